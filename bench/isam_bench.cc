// The indexed-file library with 100,000 records shaped like address-book
// entries (a 40-byte name, compared regardless of case with duplicates
// allowed, an int32 id, unique, and 80 bytes of attribute text), against a
// std::multimap by name and a std::map by id doing the same in memory.
//
//   isam:     bt3Creat, then bt3Add of every record in random id order;
//             bt3Find (exact) of each record by its id; a walk of the name
//             index by bt3Start/bt3Next; bt3Find and bt3Delete of half the
//             records; bt3Close, which syncs the files. Default node cache.
//   baseline: the same operations on the two maps. It writes no file and
//             keeps everything in memory: the floor for any index.
// Both sides run once to warm up, then three times in alternating order;
// the figures are the best of the three.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "bench/bench_rng.h"
#include "isam/isamv3/isam.h"

namespace {

constexpr int kRecords = 100000;
constexpr int kRecSize = 124;

double Now() {
  using namespace std::chrono;
  return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

struct Person {
  std::string name;
  int32_t id;
  std::string text;
};

std::vector<Person> MakePeople() {
  static const char* const first[] = {"Ann", "bob", "Carla", "dmitri", "Eve", "frank", "Gita", "hugo"};
  static const char* const last[] = {"Smith", "jones", "Novak", "o'Brien", "Weiss", "le Roux", "Kim"};
  BenchRng rng{10};
  std::vector<Person> people;
  for (int i = 0; i < kRecords; ++i) {
    // Many entries share a name: about 5,600 names for 100,000 records.
    std::string name = std::string(first[rng.below(8)]) + " " + last[rng.below(7)] + " " + std::to_string(rng.below(100));
    people.push_back(Person{name, i + 1, "email=" + name + "@example.org phone=" + std::to_string(rng.next() % 1000000)});
  }
  for (size_t i = people.size() - 1; i > 0; --i) std::swap(people[i], people[rng.below(i + 1)]);
  return people;
}

struct Times {
  double add = 0, find = 0, walk = 0, del = 0, total = 0;
  size_t walked = 0;
};

void Fill(char* buf, const Person& p) {
  std::memset(buf, 0, kRecSize);
  std::strncpy(buf, p.name.c_str(), 39);
  std::memcpy(buf + 40, &p.id, 4);
  std::strncpy(buf + 44, p.text.c_str(), kRecSize - 45);
}

Times RunIsam(const std::vector<Person>& people, const std::string& dir) {
  Times t;
  std::string name = dir + "/book";
  bt3Unlink(name.c_str());
  const int16_t keys[] = {0, 40, kKeyStringNoCase | kKeyDuplicates, 40, 4, kKeyInt32, -1};
  double start = Now();
  if (bt3Creat(name.c_str(), kRecSize, keys) < 0) return t;
  ISAM* h = bt3Open(name.c_str(), kModeReadWrite);
  char* buf = bt3GetBuff(h, 0);
  for (const auto& p : people) {
    Fill(buf, p);
    if (bt3Add(h, buf) < 0) std::fprintf(stderr, "add failed\n");
  }
  double added = Now();
  bt3Select(h, 1);
  for (const auto& p : people) {
    std::memcpy(buf + 40, &p.id, 4);
    if (bt3Find(h, buf, kFindExact) != kRecSize) std::fprintf(stderr, "find failed\n");
  }
  double found = Now();
  bt3Select(h, 0);
  for (int rc = bt3Start(h, buf); rc > 0; rc = bt3Next(h, buf)) ++t.walked;
  double walked = Now();
  bt3Select(h, 1);
  for (size_t i = 0; i < people.size(); i += 2) {
    std::memcpy(buf + 40, &people[i].id, 4);
    if (bt3Find(h, buf, kFindExact) != kRecSize || bt3Delete(h) < 0) std::fprintf(stderr, "delete failed\n");
  }
  bt3FreeBuff(buf);
  bt3Close(h);
  double end = Now();
  t.add = added - start, t.find = found - added, t.walk = walked - found, t.del = end - walked, t.total = end - start;
  bt3Unlink(name.c_str());
  return t;
}

std::string Lower(const std::string& s) {
  std::string out = s;
  for (auto& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

Times RunMaps(const std::vector<Person>& people) {
  Times t;
  double start = Now();
  std::multimap<std::string, int32_t> by_name;
  std::map<int32_t, std::string> by_id;  // the record
  std::vector<char> buf(kRecSize);
  for (const auto& p : people) {
    Fill(buf.data(), p);
    by_id.emplace(p.id, std::string(buf.data(), kRecSize));
    by_name.emplace(Lower(p.name), p.id);
  }
  double added = Now();
  for (const auto& p : people) {
    auto it = by_id.find(p.id);
    if (it == by_id.end()) std::fprintf(stderr, "find failed\n");
    std::memcpy(buf.data(), it->second.data(), kRecSize);
  }
  double found = Now();
  for (const auto& [key, id] : by_name) {
    std::memcpy(buf.data(), by_id[id].data(), kRecSize);
    ++t.walked;
  }
  double walked = Now();
  for (size_t i = 0; i < people.size(); i += 2) {
    auto it = by_id.find(people[i].id);
    auto range = by_name.equal_range(Lower(people[i].name));
    for (auto n = range.first; n != range.second; ++n)
      if (n->second == people[i].id) {
        by_name.erase(n);
        break;
      }
    by_id.erase(it);
  }
  double end = Now();
  t.add = added - start, t.find = found - added, t.walk = walked - found, t.del = end - walked, t.total = end - start;
  return t;
}

void Best(Times* best, const Times& t) {
  if (best->total == 0 || t.total < best->total) *best = t;
}

void Print(const char* what, const Times& t) {
  std::printf("%-9s add %8.1f ms  find %8.1f ms  walk %7.1f ms (%zu)  delete half %8.1f ms  total %8.1f ms\n", what,
              t.add, t.find, t.walk, t.walked, t.del, t.total);
}

}  // namespace

int main() {
  std::string dir = (std::filesystem::temp_directory_path() / "velmar-isam-bench-XXXXXX").string();
  if (!::mkdtemp(dir.data())) return 1;
  auto people = MakePeople();
  std::printf("isam_bench: %d records of %d bytes, name key case-blind with duplicates, int32 id key\n", kRecords,
              kRecSize);
  RunIsam(people, dir);  // warm-up
  RunMaps(people);
  Times isam, maps;
  for (int round = 0; round < 3; ++round) {
    if (round % 2 == 0) {
      Best(&isam, RunIsam(people, dir));
      Best(&maps, RunMaps(people));
    } else {
      Best(&maps, RunMaps(people));
      Best(&isam, RunIsam(people, dir));
    }
  }
  Print("isam", isam);
  Print("baseline", maps);
  std::printf("baseline: std::multimap by name and std::map by id in memory; it writes no file\n");
  std::printf("ratio isam/baseline (total): %.1f\n", isam.total / maps.total);
  std::filesystem::remove_all(dir);
  return 0;
}
