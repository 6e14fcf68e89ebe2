// The local address books on disk, through the address model as the book
// windows and compose use it.
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "isam/isamv3/isam.h"
#include "rclib/safe_file.h"
#include "src/books/address_model.h"
#include "src/books/book_import.h"
#include "src/books/book_window.h"
#include "src/compose/compose.h"
#include "src/options/options.h"
#include "tests/books/book_helpers.h"
#include "tests/model/model_fixture.h"

namespace {

namespace fs = std::filesystem;

long FixedClock() { return 1700000000; }  // 2023-11-14 22:13:20 UTC

class BooksTest : public ModelTest {
 protected:
  void SetUp() override {
    ModelTest::SetUp();
    setenv("TZ", "UTC", 1);
    tzset();
    isam_abook_set_clock_for_test(FixedClock);
    ASSERT_EQ(ABK_init(), 1);
  }
  void TearDown() override {
    safe_clear_faults_for_test();
    ABK_shutdown();
    isam_abook_set_clock_for_test(nullptr);
    ModelTest::TearDown();
  }
  std::string books() const { return home_ + "/locabks/"; }
  // A book made and opened.
  int Book(const char* name) {
    ABK_createNewABook(kBookLocal, name);
    return ABK_openBook(name);
  }
};

TEST_F(BooksTest, FirstUseMakesTheDefaultBookWithItsRecordBytes) {
  ASSERT_FALSE(fs::exists(books()));
  EXPECT_EQ(Joined(AM_BookGetBooks()), "local,");
  EXPECT_EQ(Joined(AM_BookGetBooks()), "local,");  // made once
  struct stat st {};
  ASSERT_EQ(stat(books().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  ASSERT_EQ(stat((books() + "23111422.1320").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  for (const char* f : {"ab_books.dt", "ab_books.nx", "23111422.1320/ab_attrs.mp", "23111422.1320/ab_attrs.st"}) {
    ASSERT_EQ(stat((books() + f).c_str(), &st), 0) << f;
    EXPECT_EQ(st.st_mode & 0777, 0600u) << f;
  }
  // The record: the name in 200 bytes, the directory in the 500 after.
  const std::string dt = ReadFile(books() + "ab_books.dt");
  const size_t at = dt.find(std::string("local\0", 6));
  ASSERT_NE(at, std::string::npos);
  ASSERT_LE(at + 700, dt.size());
  std::string want(700, '\0');
  want.replace(0, 5, "local");
  want.replace(200, 13, "23111422.1320");
  EXPECT_EQ(dt.substr(at, 700), want);
}

TEST_F(BooksTest, BookEdgeCases) {
  const int id = Book("friends");
  ASSERT_NE(id, 0);
  EXPECT_EQ(ABK_createNewABook(kBookLocal, "friends"), "");  // two of one name
  EXPECT_EQ(ABK_createNewABook(kBookLocal, std::string(200, 'x').c_str()), "");
  EXPECT_EQ(ABK_createNewABook(kBookLocal, std::string(199, 'x').c_str()), std::string(199, 'x'));
  EXPECT_EQ(ABK_createNewABook(kBookRemote, "srv"), "");
  EXPECT_NE(Posts().find("attempt to create addressbook that already exists"), std::string::npos) << Posts();
  // A second book in the same second gets a directory of its own.
  EXPECT_TRUE(fs::is_directory(books() + "23111422.1320-1"));

  // Local books answer with every right.
  for (char r : std::string("lrwcda")) EXPECT_TRUE(ABK_DoesUserHaveACLRight(id, r)) << r;
  EXPECT_FALSE(ABK_isRemoteBook(id));
  EXPECT_TRUE(ABK_isRemoteBook(99));

  // Renaming onto a name that exists keeps the book; a free name keeps the slot.
  ASSERT_EQ(Store(id, "ann", {{"Email", "ann@x.org"}}), 1);
  const std::string taken(199, 'x');
  EXPECT_EQ(AM_BookSave(id, taken.c_str()), 0);
  EXPECT_EQ(AM_GetBookID("friends"), id);
  EXPECT_EQ(AM_BookSave(id, "pals"), 1);
  EXPECT_EQ(AM_GetBookID("pals"), id);
  EXPECT_EQ(Attrs(id, "ann"), "Email=ann@x.org;");
  std::vector<std::string> all = AM_BookGetBooks();
  EXPECT_EQ(Joined(all), "local,pals," + taken + ",");

  // 100 slots and no more.
  for (int i = 0; i < 110; ++i) ABK_createNewABook(kBookLocal, ("b" + std::to_string(i)).c_str());
  int opened = 0;
  for (const std::string& n : AM_BookGetBooks()) opened += ABK_openBook(n.c_str()) != 0;
  EXPECT_EQ(opened, kMaxBooks);
}

TEST_F(BooksTest, DeletedMissingAndDamagedBooks) {
  const int id = Book("gone");
  ASSERT_EQ(Store(id, "ann", {{"Email", "a@b.c"}}), 1);
  ABK_closeBook(id);
  EXPECT_EQ(abook_delete(ABK_localSession(), "gone"), 1);
  EXPECT_FALSE(fs::exists(books() + "23111422.1320"));
  EXPECT_EQ(ABK_openBook("gone"), 0);
  // A book whose directory went, and one whose record points outside.
  ASSERT_NE(Book("lost"), 0);
  ABK_closeBook(AM_GetBookID("lost"));
  fs::remove_all(books() + "23111422.1320");
  fs::create_directories(home_ + "/victim");
  std::ofstream(home_ + "/victim/ab_attrs.mp") << "keep";
  ISAM* h = bt3Open((books() + "ab_books").c_str(), kModeReadWrite);
  ASSERT_NE(h, nullptr);
  char* buf = bt3GetBuff(h, 700);
  std::strcpy(buf, "evil");
  std::strcpy(buf + 200, "../victim");
  ASSERT_GT(bt3Add(h, buf), 0);
  bt3FreeBuff(buf);
  bt3Close(h);
  for (const char* name : {"lost", "evil"}) {
    EXPECT_EQ(ABK_openBook(name), 0) << name;
    EXPECT_NE(Posts().find(std::string("Cannot open ISAM addressbook: ") + name + " - corrupt (missing)"),
              std::string::npos)
        << Posts();
  }
  EXPECT_EQ(abook_delete(ABK_localSession(), "evil"), 1);
  EXPECT_EQ(ReadFile(home_ + "/victim/ab_attrs.mp"), "keep");
  EXPECT_EQ(Joined(AM_BookGetBooks()), "local,lost,");
}

TEST_F(BooksTest, EntriesAndSearches) {
  const int id = Book("b");
  EXPECT_EQ(Store(id, "zed", {{"Email", "z@x.org"}, {"Alias", "zz"}}), 1);
  EXPECT_EQ(Store(id, "amy", {{"Email", "amy@y.org"}, {"Phone", ""}}), 1);
  EXPECT_EQ(Store(id, "crew", {{"member", "amy\nzed\n"}}), 1);
  AttrList many;
  for (int i = 0; i < 121; ++i) many.emplace_back("a" + std::to_string(i), std::string(i, 'v'));
  EXPECT_EQ(Store(id, "many", many), 1);
  EXPECT_EQ(entry_get_attributes(AddressEntry{static_cast<int16_t>(id), 0, "many"}), many);
  // A store replaces; an entry without attributes does not exist.
  EXPECT_EQ(Store(id, "zed", {{"Email", "zed@x.org"}}), 1);
  EXPECT_EQ(Attrs(id, "zed"), "Email=zed@x.org;");
  EXPECT_EQ(AM_EntryRemove(AddressEntry{static_cast<int16_t>(id), 0, "many"}), 1);
  EXPECT_EQ(Attrs(id, "many"), "");
  EXPECT_EQ(Names(AM_EntryGetEntries(id)), "amy crew* zed");
  EXPECT_EQ(Names(AM_EntryGetListEntries(id)), "crew*");
  EXPECT_EQ(Names(AM_FetchLists()), "crew*");

  const struct {
    const char* criteria;
    int rc;
    const char* found;
  } cases[] = {
      {"\"Name\" \"*\"", kSearchOk, "amy crew zed"},
      {"\"name\" \"Z?D\"", kSearchOk, "zed"},
      {"\"Email\" \"*@x.org\"", kSearchOk, "zed"},
      {"\"EMAIL\" \"*.org\"|\"Name\" \"a*\"", kSearchOk, "amy"},
      {"\"Phone\" \"\"", kSearchOk, "amy"},  // an empty pattern finds only empty values
      {"\"Email\" \"\"", kSearchOk, ""},
      {"\"Member\" \"*zed*\"", kSearchOk, "crew*"},
      {"\"Email\" \"*\"|\"Alias\" \"*\"", kSearchOk, ""},
      {"", kSearchFailed, ""},
      {"\"Email\"", kSearchFailed, ""},
      {"\"Email\" ", kSearchFailed, ""},
      {"\"Email\"x\"a\"", kSearchFailed, ""},
      {"\"Email\" \"a\"|", kSearchFailed, ""},
      {"\"Email\" \"a\" ", kSearchFailed, ""},
      {"\"\" \"a\"", kSearchFailed, ""},
  };
  for (const auto& c : cases) {
    AM_SearchStart();
    EXPECT_EQ(AM_Search(id, c.criteria), c.rc) << c.criteria;
    EXPECT_EQ(Names(AM_SearchGetList()), c.found) << c.criteria;
    AM_SearchCleanup();
  }
  std::string crit, pattern;
  std::vector<AbPair> pairs;
  for (int i = 0; i < 26; ++i) crit += std::string(i ? "|" : "") + "\"a\" \"b\"";
  EXPECT_EQ(AM_ParseCriteria(crit.c_str(), &pattern, &pairs), kSearchFailed);
  EXPECT_EQ(AM_ParseCriteria(crit.substr(8).c_str(), &pattern, &pairs), kSearchOk);
  EXPECT_EQ(pairs.size(), 25u);
}

TEST_F(BooksTest, Lists) {
  const int id = Book("b");
  const auto E = [id](const char* name) { return AddressEntry{static_cast<int16_t>(id), 0, name}; };
  ASSERT_EQ(ABK_NewList(id, "team"), 1);
  EXPECT_EQ(Attrs(id, "team"), "member=NOENTRIESINMEMBERFIELD;");
  EXPECT_EQ(Names(ABK_membersOfList(E("team"))), "");
  for (const char* m : {"ann", "bob", "ann"}) ASSERT_EQ(ABK_addToList(E("team"), E(m)), 1);
  ASSERT_EQ(Store(id, "all", {{"member", "team\nx\nteam"}, {"Note", "kept"}}), 1);
  EXPECT_EQ(Names(ABK_membersOfNameList(id, "team")), "ann bob ann");
  // Renaming a name in the lists changes its first occurrence only.
  EXPECT_EQ(AM_EntryRenameInAllLists(id, E("ann"), "anne"), 1);
  EXPECT_EQ(AM_EntryRenameInAllLists(id, E("team"), "crew"), 1);
  EXPECT_EQ(Attrs(id, "team"), "member=anne\nbob\nann\n;");
  EXPECT_EQ(Attrs(id, "all"), "member=crew\nx\nteam\n;Note=kept;");
  EXPECT_EQ(AM_EntryRemoveFromList(E("bob"), E("team")), 1);
  EXPECT_EQ(AM_EntryRemoveFromList(E("nobody"), E("team")), 1);
  EXPECT_EQ(Attrs(id, "team"), "member=anne\nann\n;");
  AddressEntry all = E("all");
  all.is_list = 1;
  ASSERT_EQ(AM_EntryChangeType(all), 1);
  EXPECT_EQ(Attrs(id, "all"), "Note=kept;");
}

TEST_F(BooksTest, FailingDiskLosesNoAttributes) {
  const AttrList old = {{"Email", "ann@x.org"}, {"Phone", "123"}};
  for (SafeStep step : {kSafeWrite, kSafeSync})
    for (long nth : {1L, 2L, 3L}) {
      const std::string name = "b" + std::to_string(step) + std::to_string(nth);
      const int id = Book(name.c_str());
      ASSERT_EQ(Store(id, "ann", old), 1);
      safe_fail_from_for_test(step, nth, ENOSPC);
      Store(id, "ann", {{"Email", "new@x.org"}, {"Phone", "456"}, {"Fax", "789"}});
      safe_clear_faults_for_test();
      const std::string now = Attrs(id, "ann");
      // The old attributes, or the new ones: never a mix, never nothing.
      EXPECT_TRUE(now == "Email=ann@x.org;Phone=123;" || now == "Email=new@x.org;Phone=456;Fax=789;")
          << step << " " << nth << ": " << now;
    }
  // A value too long for a record stops the store at its second pair.
  const int id = Book("long");
  ASSERT_EQ(Store(id, "ann", old), 1);
  EXPECT_EQ(Store(id, "ann", {{"Email", "new@x.org"}, {"Note", std::string(20000, 'n')}}), 0);
  EXPECT_EQ(Attrs(id, "ann"), "Email=ann@x.org;Phone=123;");
  EXPECT_NE(Posts().find("error: Failed to write attribute record"), std::string::npos) << Posts();
}

// Old books: 250-byte name records and fixed attribute files.
void WriteOldBook(const std::string& root, const char* name, const char* dir,
                  const std::vector<std::array<const char*, 3>>& attrs) {
  const int16_t name_keys[] = {0, 200, kKeyString, -1};
  const int16_t attr_keys[] = {0, 200, kKeyString | kKeyDuplicates, -1};
  const std::string names = root + "ab_books";
  if (!bt3Exist(names.c_str())) {
    ASSERT_EQ(bt3Creat(names.c_str(), 250, name_keys), 0);
  }
  ISAM* h = bt3Open(names.c_str(), kModeReadWrite);
  ASSERT_NE(h, nullptr);
  char* buf = bt3GetBuff(h, 250);
  std::strcpy(buf, name);
  std::strcpy(buf + 200, dir);
  ASSERT_GT(bt3Add(h, buf), 0);
  bt3FreeBuff(buf);
  bt3Close(h);
  fs::create_directory(root + dir);
  const std::string attr = root + dir + "/ab_attrs";
  ASSERT_EQ(bt3Creat(attr.c_str(), 1250, attr_keys), 0);
  h = bt3Open(attr.c_str(), kModeReadWrite);
  buf = bt3GetBuff(h, 1250);
  for (const auto& [e, a, v] : attrs) {
    std::memset(buf, 0, 1250);
    std::strcpy(buf, e);
    std::strcpy(buf + 200, a);
    std::strcpy(buf + 250, v);
    ASSERT_GT(bt3Add(h, buf), 0);
  }
  bt3FreeBuff(buf);
  bt3Close(h);
}

TEST_F(BooksTest, OldBooksAreConvertedOrLeftAlone) {
  fs::create_directory(books());
  WriteOldBook(books(), "work", "oldw", {{"ann", "Email", "ann@x.org"}, {"ann", "Phone", "1"}, {"team", "member", "ann"}});
  WriteOldBook(books(), "home", "oldh", {});
  const std::string before = ReadFile(books() + "ab_books.dt");

  // A conversion left half done before is not run over.
  fs::copy_file(books() + "ab_books.dt", books() + "new_book.dt");
  xvt_test_push_answer(RESP_DEFAULT);
  EXPECT_EQ(Joined(AM_BookGetBooks()), "");
  EXPECT_NE(Posts().find("error: Previous addressbook conversion failed"), std::string::npos) << Posts();
  EXPECT_EQ(ReadFile(books() + "ab_books.dt"), before);
  EXPECT_TRUE(fs::exists(books() + "oldw/ab_attrs.dt"));
  fs::remove(books() + "new_book.dt");
  ABK_init();

  // Cancel: told, nothing listed, nothing touched; not asked again.
  xvt_test_push_answer(RESP_2);
  EXPECT_EQ(Joined(AM_BookGetBooks()), "");
  EXPECT_EQ(ReadFile(books() + "ab_books.dt"), before);
  EXPECT_NE(Posts().find("note: Working with old addressbooks"), std::string::npos) << Posts();
  ABK_init();  // a new session asks again

  xvt_test_push_answer(RESP_DEFAULT);
  EXPECT_EQ(Joined(AM_BookGetBooks()), "home,local,work,");
  EXPECT_FALSE(fs::exists(books() + "oldw"));
  EXPECT_FALSE(fs::exists(books() + "new_book.dt"));
  EXPECT_TRUE(fs::exists(books() + "2311142201/ab_attrs.mp"));  // counted in name order
  const int id = ABK_openBook("work");
  EXPECT_EQ(Attrs(id, "ann"), "Email=ann@x.org;Phone=1;");
  EXPECT_EQ(Names(AM_EntryGetEntries(id)), "ann team*");
}

TEST_F(BooksTest, ComposeExpandsNamesFromTheBooks) {
  const int id = Book("b");
  ASSERT_EQ(Store(id, "Ann Lee", {{"Email", "ann@x.org"}, {"Alias", "annie"}}), 1);
  ASSERT_EQ(Store(id, "bob", {{"Email", "bob@y.org"}}), 1);
  ASSERT_EQ(Store(id, "team", {{"member", "Ann Lee\nbob\nteam\n"}}), 1);
  Opt_AssignString("Compose.Alias.carl", "Carl <carl@z.org>", kOptSession, 0);
  Opt_AssignString("Compose.Alias.bob", "Other <other@z.org>", kOptSession, 0);
  const int all = kAliasName | kAliasAlias | kAliasEmail;
  ASSERT_EQ(Store(id, "nomail", {{"Phone", "1"}}), 1);
  const struct {
    const char* in;
    int fields, ok;
    const char* out;
  } cases[] = {
      {"team", all, 1, "Ann Lee <ann@x.org>, bob <bob@y.org>"},
      {"team", 0, 1, "team"},  // no field chosen: nothing looked up
      {"annie, carl", all, 1, "Ann Lee <ann@x.org>, Carl <carl@z.org>"},
      {"bob", all, 1, "bob <bob@y.org>"},  // the book before the option
      {"nobody", all, 1, "nobody"},
      {"nomail", all, 0, "nomail"},
  };
  for (const auto& c : cases) {
    std::string out;
    EXPECT_EQ(ComposeExpandField(c.in, c.fields, &out), c.ok) << c.in;
    EXPECT_EQ(out, c.out) << c.in;
  }
  EXPECT_NE(Posts().find("matched address entry 'nomail', but email field is blank"), std::string::npos) << Posts();
}

TEST_F(BooksTest, ResolveAddressBySearchTypeAndBook) {
  const int id = Book("b");
  ASSERT_EQ(Store(id, "Ann Lee", {{"Email", "ann@x.org"}, {"Alias", "annie"}}), 1);
  ASSERT_EQ(Store(id, "bob", {{"Email", "bob@y.org"}}), 1);
  ASSERT_EQ(Store(id, "rob", {{"Email", "robert@z.org"}}), 1);
  ASSERT_EQ(Store(id, "crew", {{"member", "Ann Lee\nbob\n"}}), 1);
  ASSERT_EQ(Store(Book("off"), "anna", {{"Email", "anna@o.org"}}), 1);
  // A lookup with no options set stores their defaults.
  ResolvedAddresses none;
  EXPECT_EQ(ABK_ResolveAddress("zzz", "", &none), 0);
  EXPECT_EQ(Opt_LookupText("AddrBook.SearchType", kOptSession), "Starts With");
  EXPECT_EQ(Opt_LookupText("AddrBook.SearchAlias", kOptSession), "1");
  const struct {
    const char* type;
    int name, alias, email, off_book;
    const char *mailbox, *host, *found;
  } cases[] = {
      {"Starts With", 1, 1, 1, 0, "ann", "", "Ann Lee <ann@x.org>;"},
      {"Starts With", 1, 1, 1, 1, "ann", "", "Ann Lee <ann@x.org>;anna <anna@o.org>;"},
      {"Exact Match", 1, 1, 1, 0, "ann", "", ""},
      {"Exact Match", 0, 0, 1, 0, "ann", "x.org", "Ann Lee <ann@x.org>;"},
      {"Starts With", 0, 0, 1, 0, "ann", " x.org", "Ann Lee <ann@x.org>;"},  // a host starting with a blank is left out
      {"Exact Match", 0, 1, 0, 0, "annie", "", "Ann Lee <ann@x.org>;"},
      {"Exact Match", 1, 0, 1, 0, "annie", "", ""},
      {"Ends With", 1, 0, 0, 0, "ob", "", "bob <bob@y.org>;rob <robert@z.org>;"},
      {"Ends With", 0, 0, 1, 0, "z.org", "", "rob <robert@z.org>;"},
      {"Contains", 0, 0, 1, 0, "ert", "", "rob <robert@z.org>;"},
      {"Contains", 1, 1, 0, 0, "ert", "", ""},
      {"Exact Match", 1, 1, 1, 0, "crew", "", "Ann Lee <ann@x.org>;bob <bob@y.org>;"},
      {"Exact Match", 1, 1, 1, 0, "cr\"ew", "", ""},
  };
  for (const auto& c : cases) {
    Opt_AssignString("AddrBook.SearchType", c.type, kOptSession, 0);
    Opt_AssignBoolean("AddrBook.SearchName", c.name, kOptSession, 0);
    Opt_AssignBoolean("AddrBook.SearchAlias", c.alias, kOptSession, 0);
    Opt_AssignBoolean("AddrBook.SearchEmail", c.email, kOptSession, 0);
    Opt_AssignBoolean("AddrBook.SearchFlag.off", c.off_book, kOptSession, 0);
    ResolvedAddresses hits;
    EXPECT_EQ(ABK_ResolveAddress(c.mailbox, c.host, &hits), *c.found ? 1 : 0) << c.type << " " << c.mailbox;
    std::string got;
    for (const auto& [personal, email] : hits) got += personal + " <" + email + ">;";
    EXPECT_EQ(got, c.found) << c.type << " " << c.mailbox << "@" << c.host;
  }
}

class BookImportTest : public BooksTest {
 protected:
  std::string Write(const std::string& name, const std::string& text) {
    const std::string path = home_ + "/" + name;
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }
  static std::string All(int id) {
    std::string out;
    for (const AddressEntry& e : AM_EntryGetEntries(id)) out += e.name + ":" + Attrs(id, e.name.c_str()) + "\n";
    return out;
  }
};

TEST_F(BookImportTest, ImportsEntriesAndTellsWhatItSkipped) {
  const int id = Book("b");
  const std::string file = Write("in.txt",
                                 "\n(Name\tAnn Lee\nEmail\t ann@x.org \nAlias\tannie\nPhone\t+1 (555) 123\n)\n\n\n"
                                 "Name bob\n"
                                 "\r\n(entryname\tcrew\nMember\t(Ann Lee, bob, Ann Lee)\n)\n"
                                 "Email no@name.org\n"
                                 "(Name\tbig\nNote\t" + std::string(60001, 'x') + ")\n"
                                 "(Name\tbad\x01guy\nEmail\tb@x.org)\n"
                                 "NAME after\n"
                                 "(Name\tlost\nEmail\tx");
  xvt_test_push_answer(RESP_2);  // the bad characters: do not cancel
  EXPECT_EQ(ABK_Import(id, file.c_str()), 1);
  EXPECT_EQ(All(id),
            "Ann Lee:Email=ann@x.org;Alias=annie;Phone=+1 (555) 123;\n"
            "after:Email=;\n"  // a name alone makes a person to fill in
            "badguy:Email=b@x.org;\n"
            "bob:Email=;\n"
            "crew:member=Ann Lee\nbob\n;\n");
  const std::string posts = Posts();
  for (const char* told : {"Duplicate \"Ann Lee\" entry found in \"crew\" list", "Error parsing entry #4, skipping",
                           "Entry #5 too big to import, skipping", "entry #6 in file '" /* asked */,
                           "has 1 bad characters out of a total 29, cancel import?",
                           "Error reading size of entry #8, skipping"})
    EXPECT_NE(posts.find(told), std::string::npos) << told << "\n" << posts;

  // Yes to the question stops the import there; a missing file or book is told.
  const int other = Book("c");
  const std::string bad = Write("bad.txt", "Name one\nName t\x02wo\nName three\n");
  xvt_test_push_answer(RESP_DEFAULT);
  EXPECT_EQ(ABK_Import(other, bad.c_str()), 0);
  EXPECT_EQ(Names(AM_EntryGetEntries(other)), "one");
  EXPECT_EQ(ABK_Import(0, bad.c_str()), 0);
  EXPECT_EQ(ABK_Import(other, (home_ + "/none.txt").c_str()), 0);
  EXPECT_NE(Posts().find("Error opening import file '" + home_ + "/none.txt', exiting"), std::string::npos);
}

TEST_F(BookImportTest, ExportThenImportGivesTheSameEntries) {
  const int id = Book("b");
  ASSERT_EQ(Store(id, "Ann Lee", {{"Email", "ann@x.org"}, {"Alias", "annie"}, {"Note", "two  blanks "}}), 1);
  ASSERT_EQ(Store(id, "bob", {{"Email", "bob@y.org"}, {"Phone", ""}}), 1);
  ASSERT_EQ(Store(id, "crew", {{"member", "Ann Lee\nbob\n"}, {"Note", "team"}}), 1);
  ASSERT_EQ(ABK_NewList(id, "empty"), 1);
  const std::string path = home_ + "/out.txt";
  ASSERT_EQ(ABK_Export(id, path.c_str()), 1);
  EXPECT_EQ(ReadFile(path).substr(0, 60), "(Name\tAnn Lee\nEmail\tann@x.org\nAlias\tannie\nNote\ttwo  blanks \n");
  const int copy = Book("copy");
  ASSERT_EQ(ABK_Import(copy, path.c_str()), 1);
  EXPECT_EQ(All(copy), All(id));
  EXPECT_EQ(Posts(), "");

  // An entry the format cannot carry is left out and told; the rest is written.
  ASSERT_EQ(Store(id, "odd", {{"Note", "line\nbreak"}}), 1);
  EXPECT_EQ(ABK_Export(id, path.c_str()), 0);
  EXPECT_NE(Posts().find("The entry \"odd\" holds a line end"), std::string::npos);
  EXPECT_EQ(ReadFile(path).find("odd"), std::string::npos);
  EXPECT_NE(ReadFile(path).find("(Name\tempty\nMember\t()\n)\n"), std::string::npos);
}

TEST_F(BooksTest, WindowMakesAndEditsAPersonKeptInTheBookFiles) {
  ASSERT_EQ(Book("b"), 1);  // the window shows the first book chosen
  const auto person = [](const char* name, const char* email, const char* key, const char* value) {
    xvt_test_push_dialog(kPersonRid, [=](WINDOW dlg) {
      if (name) xvt_test_type(dlg, kPwName, name);
      xvt_test_type(dlg, kPwEmail, email);
      xvt_test_type(dlg, kPwOtherKey, key);
      xvt_test_type(dlg, kPwOtherValue, value);
      xvt_test_click(dlg, kPwSetOther);
      xvt_test_click(dlg, kPwSave);
    });
  };
  xvt_test_push_dialog(kBookWindowRid, [&](WINDOW win) {
    person("Ann Lee", "ann@x.org", "Phone", "123");
    xvt_test_click(win, kBwNewPerson);
    xvt_test_select(win, kBwEntries, 0);
    person("Ann B Lee", "ann@y.org", "Phone", "");  // renamed, address changed, Phone removed
    xvt_test_click(win, kBwOpen);
    xvt_test_click(win, kBwClose);
  });
  XVT_CONFIG config{0, 0, "t", "T", "task", 42};
  xvt_test_set_run_hook([] { ABK_BookWindow(); });
  xvt_app_create(0, nullptr, 0, [](WINDOW, EVENT*) -> long { return 0; }, &config);
  // Read back from the files by a fresh model.
  ABK_shutdown();
  ASSERT_EQ(ABK_init(), 1);
  const int id = ABK_openBook("b");
  EXPECT_EQ(Names(AM_EntryGetEntries(id)), "Ann B Lee");
  EXPECT_EQ(Attrs(id, "Ann B Lee"), "Email=ann@y.org;");
  EXPECT_EQ(Posts(), "dialog: Address Books\ndialog: Person\ndialog: Person\n");  // nothing refused
}

// Edit > Address Book... in a compose window: the search window pastes a
// chosen person, or a list's members, into the field it was opened from.
TEST_F(BooksTest, QuickSearchPastesIntoTheComposeFieldItCameFrom) {
  const int id = Book("b");
  ASSERT_EQ(Store(id, "Lee, Ann", {{"Email", "ann@x.org"}}), 1);
  ASSERT_EQ(Store(id, "bob", {{"Email", "bob@y.org"}}), 1);
  ASSERT_EQ(Store(id, "team", {{"member", "Lee, Ann\nbob\n"}}), 1);
  const struct {
    int field;  // 0 To, 1 Cc, 2 Bcc
    const char *search, *before, *after;
  } cases[] = {
      {1, "Lee", "", "\"Lee, Ann\" <ann@x.org>"},
      {2, "te", "carl@z.org,", "carl@z.org, \"Lee, Ann\" <ann@x.org>, bob <bob@y.org>"},
  };
  std::vector<std::string> fields;
  XVT_CONFIG config{0, 0, "t", "T", "task", 42};
  xvt_test_set_run_hook([&] {
    const WINDOW win = compose_new();
    ComposeInfo* info = ComposeInfoOf(win);
    for (const auto& c : cases) {
      xvt_vobj_set_title(info->address_panel[c.field], c.before);
      xvt_scr_set_focus_vobj(info->address_panel[c.field]);
      xvt_test_user_command(win, M_COMPOSE_ADDRESS_BOOK);
      const WINDOW search = xvt_test_find_window("Search Address Books");
      ASSERT_TRUE(search) << Posts();
      xvt_test_type(search, kSwText, c.search);
      xvt_test_click(search, kSwRun);
      xvt_test_select(search, kSwResults, 0);
      xvt_test_click(search, kSwPaste);
      xvt_test_click(search, kSwClose);
      const ComposeFields f = ComposeGetFields(info);
      fields.push_back(f.to + "|" + f.cc + "|" + f.bcc);
    }
    info->options.changed = 0;
    xvt_vobj_destroy(win);
  });
  xvt_app_create(0, nullptr, 0, [](WINDOW, EVENT*) -> long { return 0; }, &config);
  ASSERT_EQ(fields.size(), 2u) << Posts();
  EXPECT_EQ(fields[0], std::string("|") + cases[0].after + "|");
  EXPECT_EQ(fields[1], std::string("|") + cases[0].after + "|" + cases[1].after);
}

}  // namespace
