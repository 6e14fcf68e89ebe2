// Services: listing patterns, the listing cache, the control stream of
// the service types, deleting a service, a changed service, and the rights
// and quota calls.
#include <filesystem>

#include "src/base/errors.h"
#include "src/model/folder_list_internal.h"
#include "src/model/model_internal.h"
#include "src/options/options.h"
#include "tests/model/model_fixture.h"

namespace {

using Names = std::vector<std::string>;

Names NamesOf(const FolderList& list) {
  Names out;
  for (const FolderListEntry& e : list) out.push_back(e.name);
  std::sort(out.begin(), out.end());
  return out;
}

TEST(SplitPrefixes, Table) {
  struct Row {
    const char* locations;
    const char* pattern;
    Names want;
  } rows[] = {
      {nullptr, "%", {"%"}},
      {"Mail/", "*", {"Mail/*"}},
      {" Mail/ ; News/,\tOld/ ", "*", {"Mail/*", "News/*", "Old/*"}},
      {",; ;,", "*", {"*"}},                     // only empty prefixes: none at all
      {"Mail/,,News/", "x", {"Mail/x", "News/x"}},  // empty ones are skipped
      {"Mail/", "Mail/Drafts", {"Mail/Drafts"}},    // already under the prefix
      {"Mail/;News/", "Mail/Drafts", {"Mail/Drafts", "News/Mail/Drafts"}},
      {"Mail/,Mail/", "*", {"Mail/*"}},  // one pattern is listed once
      {"Mail/;News/", "iNbOx", {"iNbOx"}},
  };
  for (const Row& r : rows) {
    Names got;
    MM_CCSplitPrefixes(r.locations, r.pattern, &got);
    EXPECT_EQ(got, r.want) << (r.locations ? r.locations : "(null)") << " | " << r.pattern;
  }
  // At most 50 prefixes count.
  std::string many;
  for (int i = 0; i < 60; ++i) many += "p" + std::to_string(i) + "/,";
  Names got;
  MM_CCSplitPrefixes(many.c_str(), "*", &got);
  ASSERT_EQ(got.size(), 50u);
  EXPECT_EQ(got.back(), "p49/*");
}

TEST(ListCacheText, FormatAndParse) {
  FolderList list = {{"INBOX", 0, kFolderSelectable}, {"a\\b", '\\', kFolderNoInferiors | kFolderMarked}};
  std::string text;
  ASSERT_TRUE(ListCacheFormat(list, &text));
  EXPECT_EQ(text, "?\tfalse\tfalse\ttrue\tINBOX\n\\\ttrue\ttrue\tfalse\ta\\b\n");
  FolderList back;
  ASSERT_TRUE(ListCacheParse(text, &back));
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(back[1].name, "a\\b");
  EXPECT_EQ(back[1].delimiter, '\\');
  EXPECT_EQ(back[1].flags, kFolderNoInferiors | kFolderMarked);
  EXPECT_EQ(back[0].delimiter, 0);

  for (const char* bad : {"a\tb", "a\nb", "a\rb"}) {
    FolderList one = {{bad, '/', kFolderSelectable}};
    EXPECT_FALSE(ListCacheFormat(one, &text)) << "name with a line break or TAB is not cacheable";
  }
  const char* damaged[] = {
      "?\tfalse\tfalse\ttrue\n",             // a missing column
      "?\tfalse\tfalse\ttrue\tA",            // cut off before the line end
      "?\tno\tfalse\ttrue\tA\n",             // not a truth word
      "??\tfalse\tfalse\ttrue\tA\n",         // two delimiter bytes
      "?\tfalse\tfalse\ttrue\t\n",           // no name
  };
  for (const char* d : damaged) {
    FolderList out = {{"left", 0, 0}};
    EXPECT_FALSE(ListCacheParse(d, &out)) << d;
    EXPECT_TRUE(out.empty()) << d;
  }
  EXPECT_TRUE(ListCacheParse("", &back));
  EXPECT_TRUE(back.empty());
}

class ServicesTest : public ModelTest {};

// The listing cache answers the second listing without the driver: a
// folder made behind the model's back stays unseen until the cache goes.
TEST_F(ServicesTest, ListingCacheHitMissAndDamage) {
  MakeFolder("Alpha", 0);
  FolderList list;
  ASSERT_EQ(MM_MSFindFol(local_, "*", 1, &list), 1);
  EXPECT_EQ(NamesOf(list), Names({"Alpha"}));
  MessageService* ms = ServiceAt(local_);
  ASSERT_EQ(ms->list_cache.size(), 1u);
  const std::string file = ms->list_cache[0].file;
  EXPECT_EQ(ReadFile(file), "\\\tfalse\tfalse\ttrue\tAlpha\n");
  EXPECT_EQ(std::filesystem::status(file).permissions() & std::filesystem::perms::all,
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);

  MakeFolder("Beta", 0);  // behind the model's back
  ASSERT_EQ(MM_MSFindFol(local_, "*", 1, &list), 1);
  EXPECT_EQ(NamesOf(list), Names({"Alpha"})) << "a hit must not reach the driver";
  // Another pattern, or the subscribed folders, is a miss.
  ASSERT_EQ(MM_MSFindFol(local_, "B*", 1, &list), 1);
  EXPECT_EQ(NamesOf(list), Names({"Beta"}));
  ASSERT_EQ(MM_MSFindFol(local_, "*", 0, &list), 1);
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(ms->list_cache.size(), 3u);

  // A damaged file sends the listing to the driver.
  WriteFile(file, "?\ttrue\n");
  ASSERT_EQ(MM_MSFindFol(local_, "*", 1, &list), 1);
  EXPECT_EQ(NamesOf(list), Names({"Alpha", "Beta"}));
  EXPECT_EQ(ms->cache_invalid, 1);
  // ... and the next listing starts from an empty cache.
  MakeFolder("Gamma", 0);
  ASSERT_EQ(MM_MSFindFol(local_, "*", 1, &list), 1);
  EXPECT_EQ(NamesOf(list), Names({"Alpha", "Beta", "Gamma"}));
  EXPECT_FALSE(std::filesystem::exists(file));
  EXPECT_EQ(ms->listed, 1);

  // A vanished file is a miss as well.
  std::filesystem::remove(ms->list_cache.back().file);
  MakeFolder("Delta", 0);
  ASSERT_EQ(MM_MSFindFol(local_, "*", 1, &list), 1);
  EXPECT_EQ(list.size(), 4u);

  // Closing the service deletes every cache file.
  std::vector<std::string> files;
  for (const ListCacheEntry& e : ms->list_cache) files.push_back(e.file);
  ASSERT_FALSE(files.empty());
  MM_MSClose(local_);
  for (const std::string& f : files) EXPECT_FALSE(std::filesystem::exists(f)) << f;
  EXPECT_EQ(ms->listed, 0) << "E_MS_CLOSED clears the listed mark";
}

TEST_F(ServicesTest, ListingUnderFolderLocations) {
  MakeFolder("Mail", 0);
  MakeFolder("Mail\\Drafts", 0);
  MakeFolder("News", 0);
  MakeFolder("News\\x", 0);
  MakeFolder("Other", 0);
  Opt_AssignString("MsgService.ms1.FolderLocation", "Mail\\ ; News\\", kOptSession, 0);
  MM_MSReload(local_);
  FolderList list;
  ASSERT_EQ(MM_MSFindFol(local_, "*", 1, &list), 1);
  EXPECT_EQ(NamesOf(list), Names({"Mail\\Drafts", "News\\x"}));
}

TEST_F(ServicesTest, StreamsByType) {
  struct Row {
    const char* type;
    const char* host;
    bool reports;  // a listing tells the user that no stream could be had
  } rows[] = {
      {"local", "", false},
      {"p7", "x400.example.org", false},  // nothing to list, nothing to report
      {"imap", "", true},                 // no host: no stream name
      {"nntp", "", true},
  };
  for (const Row& r : rows) {
    Opt_AssignString("MsgService.ms1.Type", r.type, kOptSession, 0);
    Opt_AssignString("MsgService.ms1.Hostname", r.host, kOptSession, 0);
    MM_MSClose(local_);  // the listing of the previous row is cached
    MM_MSReload(local_);
    xvt_test_clear_posts();
    EXPECT_EQ(MM_MSGetStream(local_), nullptr) << r.type;
    FolderList list;
    EXPECT_EQ(MM_MSFindFol(local_, "*", 1, &list), r.reports ? 0 : 1) << r.type;
    EXPECT_EQ(Posts(), r.reports ? std::string("error: ") + ErrorText(2034) + "\n" : "") << r.type;
  }
  EXPECT_NE(TraceText().find("MM_MSFindFol: failed to open stream to message service"), std::string::npos);

  Opt_AssignString("MsgService.ms1.Type", "local", kOptSession, 0);
  MM_MSReload(local_);
  long caps = 0;
  EXPECT_EQ(MM_MSCapabilities(local_, &caps), 1);
  EXPECT_TRUE(caps & CAP_FOLDERS);
  EXPECT_EQ(MM_MSCapabilities(INVALID_SERVICE, &caps), 0);
  EXPECT_EQ(caps, 0);
}

TEST_F(ServicesTest, DeleteRewritesIdList) {
  struct Row {
    const char* before;
    int number;
    const char* after;
  } rows[] = {
      {"1 2 3", 2, "1 3"},
      {"12  2\t21 2", 2, "12 21"},
      {"2", 2, ""},
      {"  3 1  ", 3, "1"},
  };
  for (const Row& r : rows) {
    Opt_AssignString("MsgService.IDList", r.before, kOptPermanent, 0);
    Opt_AssignString(("MsgService.ms" + std::to_string(r.number) + ".Name").c_str(), "Gone", kOptSession, 0);
    Opt_AssignString(("MsgService.ms" + std::to_string(r.number) + ".Type").c_str(), "local", kOptSession, 0);
    const int id = MM_MSNew(r.number);
    ASSERT_NE(id, INVALID_SERVICE);
    EventRecorder rec;
    MM_MSDelete(id);
    EXPECT_EQ(Opt_LookupText("MsgService.IDList", kOptSession), r.after) << r.before;
    EXPECT_EQ(Opt_LookupText("MsgService.IDList", kOptPermanent), r.after) << r.before;
    EXPECT_EQ(Opt_LookupText(("MsgService.ms" + std::to_string(r.number) + ".Name").c_str(), kOptSession), "");
    EXPECT_EQ(ServiceAt(id), nullptr);
    EXPECT_EQ(rec.Types({E_MS_CLOSED, E_MS_DESTROYED}), std::vector<int>({E_MS_DESTROYED}));
    if (r.number == 1) local_ = MM_MSNew(1);
  }
}

// A changed service that was listed asks whether to re-open it now.
TEST_F(ServicesTest, ChangedServiceAsks) {
  struct Row {
    bool listed;
    ASK_RESPONSE answer;
    std::vector<int> events;
    std::string posts;
  } rows[] = {
      {false, RESP_DEFAULT, {E_MS_CHANGED}, ""},
      // The re-open is posted from the model's handler, before later
      // notifiers hear of the change.
      {true, RESP_DEFAULT, {E_MS_REOPEN, E_MS_CHANGED}, "ask"},
      {true, RESP_2, {E_MS_CHANGED}, std::string("ask\nerror: ") + ErrorText(3018)},
  };
  int round = 0;
  for (const Row& r : rows) {
    const std::string old_name = MM_MSGetName(local_);
    const std::string name = "Renamed" + std::to_string(++round);
    Opt_AssignString("MsgService.ms1.Name", name.c_str(), kOptSession, 0);
    ServiceAt(local_)->listed = r.listed;
    if (r.listed) xvt_test_push_answer(r.answer);
    xvt_test_clear_posts();
    EventRecorder rec;
    MM_NotPostSimple(E_MS_CHANGED, local_);
    EXPECT_EQ(rec.Types(), r.events) << round;
    EXPECT_STREQ(MM_MSGetName(local_), name.c_str()) << "reloaded in every case";
    std::string posts;
    for (const XvtPost& p : xvt_test_posts()) {
      if (!posts.empty()) posts += "\n";
      posts += p.kind == "ask" ? "ask" : p.kind + ": " + p.text;
      if (p.kind == "ask") {
        EXPECT_NE(p.text.find("\"" + old_name + "\""), std::string::npos) << p.text;
        EXPECT_EQ(p.buttons, std::vector<std::string>({"Re-open", "Cancel"}));
      }
    }
    EXPECT_EQ(posts, r.posts) << round;
  }
}

TEST(AclText, ParseAndBuild) {
  struct Row {
    const char* text;
    int rights;
    const char* built;
  } rows[] = {
      {"lrswida", kAclRead | kAclWrite | kAclAdmin, "lrswida"},
      {"LRSWIDA", kAclRead | kAclWrite | kAclAdmin, "lrswida"},
      {"lrs", kAclRead, "lrs"},
      {"lr", 0, ""},  // read needs all three
      {"wid", kAclWrite, "lrswid"},
      {"pc", kAclPost, "p"},
      {"", 0, ""},
  };
  for (const Row& r : rows) {
    EXPECT_EQ(MM_CCACLParse(r.text), r.rights) << r.text;
    EXPECT_STREQ(MM_CCACLBuild(r.rights), r.built) << r.text;
  }
  EXPECT_EQ(MM_CCACLParse(MM_CCACLBuild(kAclRead | kAclAdmin | kAclPost)), kAclRead | kAclAdmin | kAclPost);
}

TEST_F(ServicesTest, AclBogusLetterIsLoggedNotShown) {
  xvt_test_clear_posts();
  EXPECT_EQ(MM_CCACLParse("lrsx"), kAclRead);
  EXPECT_NE(TraceText().find("mm_log: Bogus flag in acl string"), std::string::npos);
  EXPECT_EQ(Posts(), "") << "a level 1 log is no dialog";
}

// Without a stream each call reports message 2101 with its own text.
TEST_F(ServicesTest, RightsAndQuotaWithoutStream) {
  long su = 5, sl = 5, mu = 5, ml = 5;
  ACLList list = {{"left", 1}};
  struct Row {
    std::function<int()> call;
    const char* trace;
  } rows[] = {
      {[&] { return MM_FolGetACLList(local_, "INBOX", &list); }, "MM_FolGetACLList: failed to open stream for rename"},
      {[&] { return MM_FolGetMyRights(local_, "INBOX", &list); },
       "MM_FolGetACLList: failed to open stream for myrights"},
      {[&] { return MM_FolAddACL(local_, "INBOX", "ann", kAclRead); }, "MM_FolAddACL: failed to open stream for rename"},
      {[&] { return MM_FolDeleteACL(local_, "INBOX", "ann"); }, "MM_FolDeleteACL: failed to open stream for rename"},
      {[&] { return MM_FolGetQuota(local_, "", &su, &sl, &mu, &ml); },
       "MM_FolGetQuota: failed to open stream for set quota"},
      {[&] { return MM_FolSetQuota(local_, "", 10, 10); }, "MM_FolSetQuota: failed to open stream for set quota"},
  };
  for (const Row& r : rows) {
    xvt_test_clear_posts();
    EXPECT_EQ(r.call(), 0) << r.trace;
    EXPECT_EQ(Posts(), std::string("error: ") + ErrorText(2101) + "\n") << r.trace;
    EXPECT_NE(TraceText().find(r.trace), std::string::npos) << r.trace;
  }
  EXPECT_TRUE(list.empty()) << "a failed listing leaves no entries behind";
  EXPECT_EQ(su + sl + mu + ml, 0);
  EXPECT_EQ(g_acl_list, nullptr);
  EXPECT_EQ(g_quota, nullptr);
  ACLList some = {{"a", 1}, {"b", 2}};
  MM_FolFreeACL(&some);
  EXPECT_TRUE(some.empty());
}

}  // namespace
