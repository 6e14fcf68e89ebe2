// The ISAM calls over the fixed and variable record files and the index
// file.
#include "isam/isamv3/isam.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "isam/isam_error.h"
#include "rclib/safe_file.h"

#define IS_ERR(fn, err) isam_error("isamv3", fn, err, __LINE__)

namespace {

constexpr uint32_t kBuffMagic = 0x4D415349;  // "ISAM"
constexpr int kMaxTriples = 64;

std::string Path(const std::string& name, const char* ext) { return name + ext; }

bool IsFile(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

const uint8_t* BuffHead(const char* buf) { return reinterpret_cast<const uint8_t*>(buf) - kIsamBuffHead; }

bool BuffOk(const char* buf) { return buf && get32(BuffHead(buf) + 4) == kBuffMagic; }

int BuffSize(const char* buf) { return static_cast<int>(get32(BuffHead(buf))); }

// The caller's buffer must come from bt3GetBuff and hold a whole record.
int CheckBuff(ISAM* h, const char* buf, int function, int need) {
  if (!h || h->kind == kIsamNone) return IS_ERR(function, 17);
  if (!BuffOk(buf)) return IS_ERR(function, kIsBadBuffer);
  if (BuffSize(buf) < need) return IS_ERR(function, kIsBufferUsage);
  return 0;
}

int Writable(ISAM* h, int function) {
  if (!h || h->kind == kIsamNone) return IS_ERR(function, 17);
  if (h->mode & kModeReadOnly) return IS_ERR(function, kIsModeAction);
  return 0;
}

// The key of index idx for a record of len bytes; bytes past len read as 0.
std::vector<uint8_t> BuildKey(const IsamKeyDef& k, const uint8_t* data, int len, uint32_t serial) {
  std::vector<uint8_t> key(static_cast<size_t>(k.key_len()), 0);
  bool dup = k.flags & kKeyDuplicates;
  bool head = dup && (k.flags & kKeySerialHead);
  size_t at = head ? 4 : 0;
  for (const auto& [off, n] : k.segs) {
    for (int i = 0; i < n; ++i) key[at + static_cast<size_t>(i)] = off + i < len ? data[off + i] : 0;
    at += static_cast<size_t>(n);
  }
  if (dup) put32(key.data() + (head ? 0 : k.part_len), serial);
  return key;
}

std::vector<uint8_t> KeyOfRecord(ISAM* h, int idx, const std::vector<uint8_t>& rec, int rec_len) {
  return BuildKey(h->keys[static_cast<size_t>(idx)], rec.data() + 4, rec_len - 4, get32(rec.data()));
}

// Reads record n (serial and caller's bytes) into rec; returns its length
// with the serial.
int ReadRaw(ISAM* h, uint32_t n, std::vector<uint8_t>* rec) {
  if (h->kind == kIsamFixed) {
    rec->resize(static_cast<size_t>(h->rec_size) + 4);
    if (lioRead(h->dt, static_cast<int>(n), rec->data()) < 0) return -1;
    return h->rec_size + 4;
  }
  rec->resize(static_cast<size_t>(h->rec_size) + 4);
  int len = vlRead(h->vl, static_cast<int>(n), rec->data(), static_cast<int>(rec->size()));
  if (len < 0) return -1;
  if (len < 4) return IS_ERR(336, kIsCorrupt);  // a record an index points at has its serial
  return len;
}

// Makes record n current, and copies its bytes to buf unless buf is null.
int ReadCurrent(ISAM* h, uint32_t n, char* buf) {
  int len = ReadRaw(h, n, &h->rec);
  if (len < 0) return -1;
  h->rec_len = len;
  h->cur_rec = n;
  h->cur_valid = kCurRead;
  if (buf) {
    int room = BuffSize(buf);
    std::memset(buf, 0, static_cast<size_t>(room));
    std::memcpy(buf, h->rec.data() + 4, static_cast<size_t>(std::min(len - 4, room)));
  }
  return len - 4;
}

int RecordLength(ISAM* h, uint32_t n) {
  if (h->kind == kIsamFixed) return h->rec_size;
  int len = vlRead(h->vl, static_cast<int>(n), nullptr, 0);
  return len < 4 ? -1 : len - 4;
}

// A key found in the index becomes current: read it unless asked not to.
int Found(ISAM* h, const std::vector<uint8_t>& key, uint32_t rec, char* buf, bool read) {
  h->cur_key = key;
  h->cur_rec = rec;
  h->cur_valid = kCurFound;
  if (!read) {
    int len = RecordLength(h, rec);
    return len < 0 ? IS_ERR(308, kIsBadRecord) : len;
  }
  return ReadCurrent(h, rec, buf);
}

uint32_t NextSerial(ISAM* h) {
  int32_t s = 0;
  if (h->dt) s = h->dt->heads[0].serial;
  for (const auto& head : h->nx->heads) s = std::max(s, head.serial);
  ++s;
  if (h->dt) {
    h->dt->heads[0].serial = s;
    h->dt->head_dirty = true;
  }
  for (auto& head : h->nx->heads) head.serial = s;
  h->nx->head_dirty = true;
  return static_cast<uint32_t>(s);
}

int KeysUsable(ISAM* h, int function) {
  for (size_t i = 0; i < h->keys.size(); ++i)
    if (lioKeyUsable(h->nx, static_cast<int>(i), function) < 0) return -1;
  return 0;
}

// Puts the keys of a record into every index; on a failure the keys put
// so far are taken out again and the failure stands.
int InsertKeys(ISAM* h, const std::vector<uint8_t>& rec, int rec_len, uint32_t n) {
  for (size_t i = 0; i < h->keys.size(); ++i) {
    std::vector<uint8_t> key = KeyOfRecord(h, static_cast<int>(i), rec, rec_len);
    if (lioInsert(h->nx, static_cast<int>(i), key.data(), n) < 0) {
      for (size_t j = 0; j < i; ++j) {
        std::vector<uint8_t> back = KeyOfRecord(h, static_cast<int>(j), rec, rec_len);
        lioDelete(h->nx, static_cast<int>(j), back.data(), n);
      }
      return -1;
    }
  }
  return 0;
}

void SetSegments(ISAM* h) {
  for (size_t i = 0; i < h->keys.size(); ++i) {
    std::vector<LioSegment> segs;
    for (const auto& s : h->keys[i].segs) segs.push_back(LioSegment{s.second});
    lioSetSegments(h->nx, static_cast<int>(i), segs);
  }
}

int Flush(ISAM* h) {
  int rc = 0;
  if (h->dt && lioFlush(h->dt) < 0) rc = -1;
  if (h->vl && vlFlush(h->vl) < 0) rc = -1;
  if (h->nx && lioFlush(h->nx) < 0) rc = -1;
  return rc;
}

int AddRecord(ISAM* h, const char* buf, int len, int function) {
  if (Writable(h, function) < 0 || KeysUsable(h, function) < 0) return -1;
  int n = h->kind == kIsamFixed ? lioAvl(h->dt) : vlAvl(h->vl);
  if (n < 0) return IS_ERR(function, 5);
  std::vector<uint8_t> rec(static_cast<size_t>(len) + 4, 0);
  uint32_t serial = NextSerial(h);
  put32(rec.data(), serial);
  std::memcpy(rec.data() + 4, buf, static_cast<size_t>(len));
  int wrote = h->kind == kIsamFixed ? lioWrite(h->dt, n, rec.data()) : vlWrite(h->vl, n, rec.data(), len + 4);
  if (wrote < 0 || InsertKeys(h, rec, len + 4, static_cast<uint32_t>(n)) < 0) {
    // No record without its keys: give the number back.
    if (h->kind == kIsamFixed)
      lioFree(h->dt, n);
    else
      vlFree(h->vl, n);
    Flush(h);
    h->cur_rec = 0;
    h->cur_valid = 0;
    return IS_ERR(function, wrote < 0 ? 5 : kIsKeyInsert);
  }
  h->rec = rec;
  h->rec_len = len + 4;
  h->cur_rec = static_cast<uint32_t>(n);
  h->cur_valid = kCurRead;
  h->cur_key = KeyOfRecord(h, h->cur_index, rec, len + 4);
  return n;
}

int WriteRecord(ISAM* h, const char* buf, int len, int function) {
  if (Writable(h, function) < 0 || KeysUsable(h, function) < 0) return -1;
  if (h->cur_rec == 0) return IS_ERR(function, kIsNoCurrent);
  if (h->cur_valid != kCurRead) return IS_ERR(function, kIsNotRead);
  std::vector<uint8_t> rec(static_cast<size_t>(len) + 4, 0);
  std::memcpy(rec.data(), h->rec.data(), 4);  // the serial stays
  std::memcpy(rec.data() + 4, buf, static_cast<size_t>(len));
  // Keys that differ move; on a failure the ones moved go back.
  std::vector<size_t> moved;
  int failed = 0;
  for (size_t i = 0; i < h->keys.size(); ++i) {
    auto old_key = KeyOfRecord(h, static_cast<int>(i), h->rec, h->rec_len);
    auto new_key = KeyOfRecord(h, static_cast<int>(i), rec, len + 4);
    if (old_key == new_key) continue;
    if (lioDelete(h->nx, static_cast<int>(i), old_key.data(), h->cur_rec) < 0) {
      failed = kIsWrongRecord;
      break;
    }
    if (lioInsert(h->nx, static_cast<int>(i), new_key.data(), h->cur_rec) < 0) {
      lioInsert(h->nx, static_cast<int>(i), old_key.data(), h->cur_rec);
      failed = kIsKeyInsert;
      break;
    }
    moved.push_back(i);
  }
  if (failed) {
    for (size_t i : moved) {
      auto old_key = KeyOfRecord(h, static_cast<int>(i), h->rec, h->rec_len);
      auto new_key = KeyOfRecord(h, static_cast<int>(i), rec, len + 4);
      lioDelete(h->nx, static_cast<int>(i), new_key.data(), h->cur_rec);
      lioInsert(h->nx, static_cast<int>(i), old_key.data(), h->cur_rec);
    }
    return IS_ERR(function, failed);
  }
  int n = static_cast<int>(h->cur_rec);
  int wrote = h->kind == kIsamFixed ? lioWrite(h->dt, n, rec.data()) : vlWrite(h->vl, n, rec.data(), len + 4);
  if (wrote < 0) return IS_ERR(function, 5);
  h->rec = rec;
  h->rec_len = len + 4;
  h->cur_key = KeyOfRecord(h, h->cur_index, rec, len + 4);
  return len;
}

int Step(ISAM* h, char* buf, bool forward, int function) {
  if (CheckBuff(h, buf, function, h ? h->rec_size : 0) < 0) return -1;
  if (h->cur_key.empty()) return IS_ERR(function, kIsNoCurrent);
  std::vector<uint8_t> key(h->cur_key.size());
  uint32_t rec = 0;
  int rc = forward ? lioNext(h->nx, h->cur_index, h->cur_key.data(), key.data(), &rec)
                   : lioPrev(h->nx, h->cur_index, h->cur_key.data(), key.data(), &rec);
  if (rc <= 0) return rc < 0 ? IS_ERR(function, kIsCorrupt) : 0;
  return Found(h, key, rec, buf, true);
}

int End(ISAM* h, char* buf, bool first, int function) {
  if (CheckBuff(h, buf, function, h ? h->rec_size : 0) < 0) return -1;
  std::vector<uint8_t> key(h->keys[static_cast<size_t>(h->cur_index)].key_len());
  uint32_t rec = 0;
  int rc = first ? lioFirst(h->nx, h->cur_index, key.data(), &rec) : lioLast(h->nx, h->cur_index, key.data(), &rec);
  if (rc <= 0) return rc < 0 ? IS_ERR(function, kIsCorrupt) : 0;
  return Found(h, key, rec, buf, true);
}

int MakeIndexFile(const std::string& path, const std::vector<IsamKeyDef>& keys) {
  LioFile* nx = lioCreat(path.c_str(), 0, kLioIndex, 0, static_cast<int>(keys.size()));
  if (!nx) return -1;
  for (const auto& k : keys) {
    if (lioInxCreat(nx, k.part_len, k.flags) < 0) {
      lioClose(nx);
      unlink(path.c_str());
      return -1;
    }
  }
  return lioClose(nx);
}

int Records(ISAM* h) {
  if (h->kind == kIsamFixed) return h->dt->heads[0].n_used;
  return h->vl->h.n_recs - h->vl->h.n_free;
}

// Builds name.nx$ with the given keys from the records the current index
// file reaches, then puts it in place of name.nx in one step.
int Rebuild(ISAM* h, const std::vector<IsamKeyDef>& keys, int function) {
  std::string tmp = Path(h->name, ".nx$"), nx_path = Path(h->name, ".nx");
  unlink(tmp.c_str());  // a leftover of an interrupted rebuild
  if (MakeIndexFile(tmp, keys) < 0) return IS_ERR(function, 7);
  LioFile* nx = lioOpen(tmp.c_str(), kModeReadWrite);
  if (!nx) return IS_ERR(function, 8);
  for (size_t i = 0; i < keys.size(); ++i) {
    std::vector<LioSegment> segs;
    for (const auto& s : keys[i].segs) segs.push_back(LioSegment{s.second});
    lioSetSegments(nx, static_cast<int>(i), segs);
  }
  lioSetCache(nx, 1, 64);
  int32_t serial = 0;
  for (const auto& head : h->nx->heads) serial = std::max(serial, head.serial);
  for (auto& head : nx->heads) head.serial = serial;
  std::vector<uint8_t> key(h->keys[0].key_len()), rec;
  uint32_t n = 0;
  int rc = lioFirst(h->nx, 0, key.data(), &n);
  int64_t limit = static_cast<int64_t>(h->nx->heads[0].n_keys) + 1;
  bool ok = rc >= 0;
  for (; ok && rc == 1; rc = lioNext(h->nx, 0, key.data(), key.data(), &n)) {
    int len = ReadRaw(h, n, &rec);
    if (len < 0 || --limit < 0) {
      ok = false;
      break;
    }
    for (size_t i = 0; ok && i < keys.size(); ++i) {
      auto k = BuildKey(keys[i], rec.data() + 4, len - 4, get32(rec.data()));
      ok = lioInsert(nx, static_cast<int>(i), k.data(), n) == 0;
    }
  }
  if (rc < 0) ok = false;
  if (lioClose(nx) < 0) ok = false;
  if (!ok) {
    unlink(tmp.c_str());
    return IS_ERR(function, kIsKeyInsert);
  }
  if (!IsFile(tmp)) return IS_ERR(function, kIsNoTempIndex);
  if (!safe_rename(tmp.c_str(), nx_path.c_str())) return IS_ERR(function, 5);
  safe_sync_dir(safe_dir_of(nx_path));
  lioClose(h->nx);
  h->nx = lioOpen(nx_path.c_str(), h->mode);
  if (!h->nx) return IS_ERR(function, 8);
  h->keys = keys;
  SetSegments(h);
  auto packed = isamPackKeys(keys);
  packed.resize(kIsamStash, 0);
  int wrote = h->kind == kIsamFixed ? lioWStash(h->dt, packed.data(), kIsamStash)
                                    : vlWStash(h->vl, packed.data(), kIsamStash);
  if (wrote < 0 || Flush(h) < 0) return IS_ERR(function, 5);
  h->cur_index = 0;
  h->cur_key.clear();
  h->cur_valid = 0;
  h->cur_rec = 0;
  return 0;
}

}  // namespace

int keyDefine(const int16_t* keydefs, int rec_size, std::vector<IsamKeyDef>* out) {
  if (!keydefs || !out) return IS_ERR(301, kIsBadArgs);
  std::vector<IsamKeyDef> keys;
  int triples = 0;
  for (const int16_t* t = keydefs; t[0] != -1; t += 3) {
    if (++triples > kMaxTriples) return IS_ERR(301, kIsBadKeyDef);
    int off = t[0], len = t[1], flags = static_cast<uint16_t>(t[2]);
    bool cont = flags == kKeyContinue;
    if (cont && keys.empty()) return IS_ERR(301, kIsBadKeyDef);
    int type = (cont ? keys.back().flags : flags) & 0x0F;
    if (type == kKeyFloat) return IS_ERR(301, kIsFloat);
    if (type == kKeyInt16) len = 2;
    if (type == kKeyInt32) len = 4;
    if (off < 0 || len < 1 || off + len > rec_size) return IS_ERR(301, kIsBadKeyDef);
    if (!cont) {
      if (keys.size() == kIsamMaxKeys) return IS_ERR(301, kIsBadIndexCount);
      keys.push_back(IsamKeyDef{flags, {}, 0});
    }
    keys.back().segs.emplace_back(off, len);
    keys.back().part_len += len;
    if (keys.back().part_len > kLioMaxKey) return IS_ERR(301, kIsBadKeyDef);
  }
  if (keys.empty()) return IS_ERR(301, kIsBadIndexCount);
  *out = std::move(keys);
  return 0;
}

std::vector<uint8_t> isamPackKeys(const std::vector<IsamKeyDef>& keys) {
  std::vector<uint8_t> out(2);
  put16(out.data(), static_cast<uint16_t>(keys.size()));
  auto add = [&out](int v) {
    out.push_back(static_cast<uint8_t>(v));
    out.push_back(static_cast<uint8_t>(v >> 8));
  };
  for (const auto& k : keys) {
    add(k.flags);
    for (const auto& [off, len] : k.segs) {
      add(off);
      add(len);
    }
    add(-1);
  }
  return out;
}

int isamUnpackKeys(const uint8_t* data, int len, std::vector<IsamKeyDef>* out) {
  // Back to the caller's triples, so that one check covers both forms.
  if (len < 2) return IS_ERR(322, kIsCorrupt);
  int count = static_cast<int16_t>(get16(data)), at = 2;
  if (count < 1 || count > kIsamMaxKeys) return IS_ERR(322, kIsCorrupt);
  std::vector<int16_t> triples;
  for (int k = 0; k < count; ++k) {
    if (at + 2 > len) return IS_ERR(322, kIsCorrupt);
    int16_t flags = static_cast<int16_t>(get16(data + at));
    at += 2;
    for (int seg = 0;; ++seg) {
      if (at + 2 > len || seg > kMaxTriples) return IS_ERR(322, kIsCorrupt);
      int16_t off = static_cast<int16_t>(get16(data + at));
      at += 2;
      if (off == -1) break;
      if (at + 2 > len) return IS_ERR(322, kIsCorrupt);
      int16_t n = static_cast<int16_t>(get16(data + at));
      at += 2;
      triples.insert(triples.end(), {off, n, seg == 0 ? flags : static_cast<int16_t>(kKeyContinue)});
    }
  }
  triples.push_back(-1);
  if (triples.size() > 3 * kMaxTriples) return IS_ERR(322, kIsCorrupt);
  // The size bound is checked by the caller against the record size.
  std::vector<IsamKeyDef> keys;
  if (keyDefine(triples.data(), 0x7FFF, &keys) < 0) return IS_ERR(322, kIsCorrupt);
  if (static_cast<int>(keys.size()) != count) return IS_ERR(322, kIsCorrupt);
  *out = std::move(keys);
  return 0;
}

int bt3InxCreate(const char* name, const int16_t* keydefs, int /*stash*/, int rec_size) {
  if (!name) return IS_ERR(320, kIsBadArgs);
  std::vector<IsamKeyDef> keys;
  if (keyDefine(keydefs, rec_size, &keys) < 0) return IS_ERR(320, kIsBadKeyDef);
  if (MakeIndexFile(Path(name, ".nx"), keys) < 0) return IS_ERR(320, 7);
  return 0;
}

int bt3Creat(const char* name, int rec_size, const int16_t* keydefs) {
  if (!name || rec_size < 1 || rec_size + 4 > 0xFFFF) return IS_ERR(300, kIsBadArgs);
  std::vector<IsamKeyDef> keys;
  if (keyDefine(keydefs, rec_size, &keys) < 0) return -1;
  if (bt3Exist(name) || IsFile(Path(name, ".nx"))) return IS_ERR(300, 10);
  if (bt3InxCreate(name, keydefs, 0, rec_size) < 0) return -1;
  // The smallest record still has room for the free link.
  LioFile* dt = lioCreat(Path(name, ".dt").c_str(), std::max(rec_size + 4, kLioMinRecord), kLioData, kIsamStash, 1);
  auto packed = isamPackKeys(keys);
  if (!dt || lioWStash(dt, packed.data(), static_cast<int>(packed.size())) < 0 || lioClose(dt) < 0) {
    if (dt) lioClose(dt);
    unlink(Path(name, ".dt").c_str());
    unlink(Path(name, ".nx").c_str());
    return IS_ERR(300, 347);
  }
  return 0;
}

int bt3VlCreate(const char* name, const int16_t* keydefs, int min, int max, int grain) {
  if (!name) return IS_ERR(329, kIsBadArgs);
  int vmin = min, vmax = max + 4, vgrain = grain;
  vlSizes(&vmin, &vmax, &vgrain);
  int rec_size = vmax - 2 - 4;
  std::vector<IsamKeyDef> keys;
  if (keyDefine(keydefs, rec_size, &keys) < 0) return -1;
  if (bt3Exist(name) || IsFile(Path(name, ".nx"))) return IS_ERR(329, 10);
  if (bt3InxCreate(name, keydefs, 0, rec_size) < 0) return -1;
  VlFile* vl = vlCreat(name, min, max + 4, grain, kIsamStash);
  auto packed = isamPackKeys(keys);
  if (!vl || vlWStash(vl, packed.data(), static_cast<int>(packed.size())) < 0 || vlClose(vl) < 0) {
    if (vl) vlClose(vl);
    bt3Unlink(name);
    return IS_ERR(329, 347);
  }
  return 0;
}

ISAM* bt3Open(const char* name, int mode) {
  if (!name) {
    IS_ERR(302, kIsBadArgs);
    return nullptr;
  }
  auto h = std::make_unique<ISAM>();
  h->name = name;
  h->kind = bt3Exist(name);
  if (h->kind == kIsamNone) {
    IS_ERR(302, 11);
    return nullptr;
  }
  if (!(mode & (kModeReadWrite | kModeReadOnly))) mode |= kModeReadOnly;
  h->mode = mode;
  std::vector<uint8_t> stash(kIsamStash, 0);
  auto fail = [&](int err) -> ISAM* {
    IS_ERR(302, err);
    if (h->dt) lioClose(h->dt);
    if (h->vl) vlClose(h->vl);
    if (h->nx) lioClose(h->nx);
    return nullptr;
  };
  bool forced = false;
  int stash_len = 0;
  if (h->kind == kIsamFixed) {
    h->dt = lioOpen(Path(name, ".dt").c_str(), mode);
    if (!h->dt) return fail(8);
    h->rec_size = h->dt->heads[0].rec_len - 4;
    forced |= (h->dt->mode & kModeReadOnly) && !(mode & kModeReadOnly);
    stash_len = lioRStash(h->dt, stash.data(), kIsamStash);
  } else {
    h->vl = vlOpen(name, mode);
    if (!h->vl) return fail(8);
    h->rec_size = h->vl->h.max - 2 - 4;
    forced |= (h->vl->mode & kModeReadOnly) && !(mode & kModeReadOnly);
    stash_len = vlRStash(h->vl, stash.data(), kIsamStash);
  }
  if (stash_len < 0) return fail(2);
  h->nx = lioOpen(Path(name, ".nx").c_str(), mode);
  if (!h->nx) return fail(8);
  if (h->nx->type != kLioIndex) return fail(128);
  forced |= (h->nx->mode & kModeReadOnly) && !(mode & kModeReadOnly);
  if (isamUnpackKeys(stash.data(), stash_len, &h->keys) < 0) return fail(kIsCorrupt);
  // The index file must hold one index for each key, made as the key says.
  if (h->keys.size() != h->nx->heads.size()) return fail(kIsCorrupt);
  for (size_t i = 0; i < h->keys.size(); ++i) {
    const IsamKeyDef& k = h->keys[i];
    const LioHead& head = h->nx->heads[i];
    for (const auto& [off, len] : k.segs)
      if (off + len > h->rec_size) return fail(kIsCorrupt);
    if (head.key_len != k.key_len() || head.key_type != static_cast<int16_t>(k.flags)) return fail(kIsCorrupt);
  }
  SetSegments(h.get());
  for (const auto& head : h->nx->heads)
    if (head.n_keys != Records(h.get())) {
      // Records and keys disagree: read what is there, change nothing.
      IS_ERR(302, 362);
      forced = true;
    }
  if (forced) {
    h->mode = (mode & ~kModeReadWrite) | kModeReadOnly | kModeNoDirtyMark;
    for (LioFile* f : {h->dt, h->nx})
      if (f) f->mode = (f->mode & ~kModeReadWrite) | kModeReadOnly | kModeNoDirtyMark;
    if (h->vl) h->vl->mode = (h->vl->mode & ~kModeReadWrite) | kModeReadOnly | kModeNoDirtyMark;
  }
  return h.release();
}

int bt3Close(ISAM*& h) {
  if (!h) return IS_ERR(305, 17);
  int rc = 0;
  if (h->dt && lioClose(h->dt) < 0) rc = -1;
  if (h->vl && vlClose(h->vl) < 0) rc = -1;
  if (h->nx && lioClose(h->nx) < 0) rc = -1;
  delete h;
  h = nullptr;
  return rc < 0 ? IS_ERR(305, 9) : 0;
}

int bt3Sync(ISAM* h) {
  if (!h) return IS_ERR(307, 17);
  return Flush(h) < 0 ? IS_ERR(307, 134) : 0;
}

int bt3Exist(const char* name) {
  if (!name) return 0;
  if (IsFile(Path(name, ".dt"))) return kIsamFixed;
  if (IsFile(Path(name, ".mp"))) return kIsamVariable;
  return 0;
}

int bt3Unlink(const char* name) {
  if (!name) return IS_ERR(339, kIsBadArgs);
  for (const char* ext : {".dt", ".nx", ".mp", ".st", ".nx$"}) unlink(Path(name, ext).c_str());
  safe_sync_dir(safe_dir_of(name));
  return 0;
}

int bt3Add(ISAM* h, const char* buf) {
  if (h && h->kind == kIsamVariable) return IS_ERR(306, kIsWrongKind);
  if (CheckBuff(h, buf, 306, h ? h->rec_size : 0) < 0) return -1;
  return AddRecord(h, buf, h->rec_size, 306);
}

int bt3VlAdd(ISAM* h, const char* buf, int len) {
  if (h && h->kind == kIsamFixed) return IS_ERR(330, kIsWrongKind);
  if (CheckBuff(h, buf, 330, std::max(len, 0)) < 0) return -1;
  if (len < 0 || len > h->rec_size) return IS_ERR(330, kIsRecordTooSmall);
  return AddRecord(h, buf, len, 330);
}

int bt3Write(ISAM* h, const char* buf) {
  if (h && h->kind == kIsamVariable) return IS_ERR(309, kIsWrongKind);
  if (CheckBuff(h, buf, 309, h ? h->rec_size : 0) < 0) return -1;
  return WriteRecord(h, buf, h->rec_size, 309);
}

int bt3VlWrite(ISAM* h, const char* buf, int len) {
  if (h && h->kind == kIsamFixed) return IS_ERR(331, kIsWrongKind);
  if (CheckBuff(h, buf, 331, std::max(len, 0)) < 0) return -1;
  if (len < 0 || len > h->rec_size) return IS_ERR(331, kIsRecordTooSmall);
  return WriteRecord(h, buf, len, 331);
}

int bt3Delete(ISAM* h) {
  if (Writable(h, 318) < 0 || KeysUsable(h, 318) < 0) return -1;
  if (h->cur_rec == 0) return IS_ERR(318, kIsNoCurrent);
  if (h->cur_valid != kCurRead) return IS_ERR(318, kIsNotRead);
  for (size_t i = 0; i < h->keys.size(); ++i) {
    auto key = KeyOfRecord(h, static_cast<int>(i), h->rec, h->rec_len);
    if (lioDelete(h->nx, static_cast<int>(i), key.data(), h->cur_rec) < 0) return IS_ERR(318, kIsKeyNotFound);
  }
  int rc = h->kind == kIsamFixed ? lioFree(h->dt, static_cast<int>(h->cur_rec))
                                 : vlFree(h->vl, static_cast<int>(h->cur_rec));
  if (rc < 0) return IS_ERR(318, 5);
  // The key stays as the place from which Next and Prev go on.
  h->cur_rec = 0;
  h->cur_valid = 0;
  return 0;
}

int bt3Find(ISAM* h, char* buf, int how) {
  if (CheckBuff(h, buf, 308, h ? h->rec_size : 0) < 0) return -1;
  int what = how & ~kFindNoRead;
  if (what < kFindBelow || what > kFindAny) return IS_ERR(308, kIsBadArgs);
  if (lioKeyUsable(h->nx, h->cur_index, 308) < 0) return -1;
  const IsamKeyDef& k = h->keys[static_cast<size_t>(h->cur_index)];
  auto key = BuildKey(k, reinterpret_cast<const uint8_t*>(buf), BuffSize(buf), 0);
  if (what == kFindInverted)
    for (auto& b : key) b = static_cast<uint8_t>(~b);
  std::vector<uint8_t> got(key.size());
  uint32_t rec = 0;
  int rc = 0;
  switch (what) {
    case kFindBelow:
      rc = lioBound(h->nx, h->cur_index, key.data(), kLastLT, true, got.data(), &rec);
      break;
    case kFindAbove:
      rc = lioSrPrtl(h->nx, h->cur_index, key.data(), got.data(), &rec);
      break;
    case kFindAtOrBelow:
      rc = lioBound(h->nx, h->cur_index, key.data(), kLastLE, true, got.data(), &rec);
      break;
    case kFindAtOrAbove:
    case kFindExact:
      rc = lioBound(h->nx, h->cur_index, key.data(), kFirstGE, true, got.data(), &rec);
      if (rc == 1 && what == kFindExact && lioCompare(h->nx, h->cur_index, got.data(), key.data(), true) != 0)
        rc = 0;
      break;
    default:
      rc = lioBound(h->nx, h->cur_index, key.data(), kFirstGE, true, got.data(), &rec);
      if (rc == 0) rc = lioLast(h->nx, h->cur_index, got.data(), &rec);
      break;
  }
  if (rc < 0) return IS_ERR(308, kIsKeyNotFound);
  if (rc == 0) return 0;
  return Found(h, got, rec, buf, !(how & kFindNoRead));
}

int bt3FindRel(ISAM* h, char* buf, int how, int count) {
  int rc = bt3Find(h, buf, how & ~kFindNoRead);
  if (rc <= 0 || count == 0) return rc < 0 ? IS_ERR(319, kIsKeyNotFound) : rc;
  return bt3Move(h, buf, count);
}

int bt3Start(ISAM* h, char* buf) { return End(h, buf, true, 312); }
int bt3End(ISAM* h, char* buf) { return End(h, buf, false, 313); }
int bt3Next(ISAM* h, char* buf) { return Step(h, buf, true, 314); }
int bt3Prev(ISAM* h, char* buf) { return Step(h, buf, false, 315); }

int bt3Move(ISAM* h, char* buf, int count) {
  int rc = 0;
  for (int i = 0; i < std::abs(count); ++i) {
    rc = Step(h, buf, count > 0, 316);
    if (rc <= 0) return rc;
  }
  return rc;
}

int bt3DataRead(ISAM* h, int n, char* buf) {
  if (CheckBuff(h, buf, 336, h ? h->rec_size : 0) < 0) return -1;
  std::vector<uint8_t> rec;
  int len = ReadRaw(h, static_cast<uint32_t>(n), &rec);
  if (len < 0) return IS_ERR(336, kIsBadRecord);
  int room = BuffSize(buf);
  std::memset(buf, 0, static_cast<size_t>(room));
  std::memcpy(buf, rec.data() + 4, static_cast<size_t>(std::min(len - 4, room)));
  return len - 4;
}

int bt3SetCur(ISAM* h, int n) {
  if (!h || h->kind == kIsamNone) return IS_ERR(310, 17);
  if (n < 1) return IS_ERR(310, kIsBadRecord);
  if (ReadCurrent(h, static_cast<uint32_t>(n), nullptr) < 0) return IS_ERR(310, kIsBadRecord);
  h->cur_key = KeyOfRecord(h, h->cur_index, h->rec, h->rec_len);
  return 0;
}

int bt3GetCur(ISAM* h) {
  if (!h || h->kind == kIsamNone) return IS_ERR(321, 17);
  return static_cast<int>(h->cur_rec);
}

int bt3GetLen(ISAM* h) {
  if (!h || h->kind == kIsamNone) return IS_ERR(328, 17);
  if (h->cur_rec == 0) return h->kind == kIsamFixed ? h->rec_size : IS_ERR(328, kIsNoCurrent);
  int len = RecordLength(h, h->cur_rec);
  return len < 0 ? IS_ERR(328, kIsBadRecord) : len;
}

int bt3Select(ISAM* h, int index) {
  if (!h || h->kind == kIsamNone) return IS_ERR(317, 17);
  if (index < 0 || index >= static_cast<int>(h->keys.size())) return IS_ERR(317, kIsBadIndex);
  h->cur_index = index;
  if (h->cur_valid == kCurRead)
    h->cur_key = KeyOfRecord(h, index, h->rec, h->rec_len);
  else
    h->cur_key.clear();
  return 0;
}

int bt3Check(ISAM* h, int index) {
  if (!h || h->kind == kIsamNone) return IS_ERR(311, 17);
  if (index < 0 || index >= static_cast<int>(h->keys.size())) return IS_ERR(311, kIsBadIndex);
  if (lioCheck(h->nx, index) < 0) return IS_ERR(311, kIsCorrupt);
  if (h->nx->heads[static_cast<size_t>(index)].n_keys != Records(h)) return IS_ERR(311, 362);
  return 0;
}

int bt3AddInx(ISAM* h, const int16_t* keydef) {
  if (Writable(h, 326) < 0) return -1;
  std::vector<IsamKeyDef> one;
  if (keyDefine(keydef, h->rec_size, &one) < 0) return -1;
  if (one.size() != 1) return IS_ERR(326, kIsBadIndexCount);
  if (h->keys.size() >= kIsamMaxKeys) return IS_ERR(326, kIsMaxKeys);
  if (lioKeyUsable(h->nx, 0, 326) < 0) return -1;
  auto keys = h->keys;
  keys.push_back(one[0]);
  return Rebuild(h, keys, 326);
}

int bt3DelInx(ISAM* h, int index) {
  if (Writable(h, 327) < 0) return -1;
  if (index < 0 || index >= static_cast<int>(h->keys.size())) return IS_ERR(327, kIsBadIndex);
  if (h->keys.size() == 1) return IS_ERR(327, kIsBadIndexCount);
  auto keys = h->keys;
  keys.erase(keys.begin() + index);
  return Rebuild(h, keys, 327);
}

int bt3SetMode(ISAM* h, int mode) {
  if (!h || h->kind == kIsamNone) return IS_ERR(332, 17);
  if ((h->mode & kModeReadOnly) && (mode & kModeReadWrite)) return IS_ERR(332, kIsModeAction);
  int keep = h->mode & (kModeReadWrite | kModeReadOnly);
  int bits = mode & ~(kModeReadWrite | kModeReadOnly);
  h->mode = keep | bits;
  for (LioFile* f : {h->dt, h->nx})
    if (f) f->mode = (f->mode & (kModeReadWrite | kModeReadOnly)) | bits;
  if (h->vl) vlSetMode(h->vl, bits);
  return 0;
}

int bt3SetCache(ISAM* h, int a, int b) {
  if (!h || h->kind == kIsamNone) return IS_ERR(333, 17);
  return lioSetCache(h->nx, a, b) < 0 ? IS_ERR(333, kIsBadArgs) : 0;
}

char* bt3GetBuff(ISAM* h, int size) {
  if ((!h && size <= 0) || size < 0) {
    IS_ERR(334, kIsBadArgs);
    return nullptr;
  }
  if (h) size = std::max(size, h->rec_size);
  auto* raw = static_cast<uint8_t*>(std::calloc(1, static_cast<size_t>(size) + kIsamBuffHead));
  if (!raw) {
    IS_ERR(334, 6);
    return nullptr;
  }
  put32(raw, static_cast<uint32_t>(size));
  put32(raw + 4, kBuffMagic);
  return reinterpret_cast<char*>(raw + kIsamBuffHead);
}

int bt3FreeBuff(char*& buf) {
  if (!BuffOk(buf)) return IS_ERR(335, kIsBadBuffer);
  auto* raw = reinterpret_cast<uint8_t*>(buf) - kIsamBuffHead;
  put32(raw + 4, 0);
  std::free(raw);
  buf = nullptr;
  return 0;
}

int buffValidate(const char* buf, int size) {
  if (!BuffOk(buf)) return IS_ERR(337, kIsBadBuffer);
  if (size > BuffSize(buf)) return IS_ERR(337, kIsBufferUsage);
  return 0;
}

int bt3BuffSize(const char* buf) { return BuffOk(buf) ? BuffSize(buf) : IS_ERR(337, kIsBadBuffer); }

int bt3BuffCopy(char* dst, const char* src) {
  if (!BuffOk(dst) || !BuffOk(src)) return IS_ERR(338, kIsBadBuffer);
  if (BuffSize(dst) < BuffSize(src)) return IS_ERR(338, kIsBufferUsage);
  std::memcpy(dst, src, static_cast<size_t>(BuffSize(src)));
  return BuffSize(src);
}

int bt3Lock(ISAM*, int) { return 0; }
int isamLockUp(ISAM*) { return 0; }
int isamUnLock(ISAM*) { return 0; }

IsamList* bt3MakeList(ISAM* h, int max) {
  if (!h || h->kind == kIsamNone || max < 1) {
    IS_ERR(341, kIsBadArgs);
    return nullptr;
  }
  auto* list = new IsamList;
  list->max = max;
  return list;
}

int bt3FillList(ISAM* h, IsamList* list) {
  if (!h || h->kind == kIsamNone || !list) return IS_ERR(343, kIsBadArgs);
  list->recs.clear();
  std::vector<uint8_t> key(h->keys[static_cast<size_t>(h->cur_index)].key_len());
  uint32_t rec = 0;
  int rc = lioFirst(h->nx, h->cur_index, key.data(), &rec);
  while (rc == 1 && static_cast<int>(list->recs.size()) < list->max) {
    list->recs.push_back(rec);
    rc = lioNext(h->nx, h->cur_index, key.data(), key.data(), &rec);
  }
  if (rc < 0) return IS_ERR(343, kIsCorrupt);
  return static_cast<int>(list->recs.size());
}

int bt3FreeList(IsamList*& list) {
  if (!list) return IS_ERR(342, kIsBadArgs);
  delete list;
  list = nullptr;
  return 0;
}
