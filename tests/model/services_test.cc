// Services: type words, stream and canonical names, listing patterns and
// the listing cache, deleting and changing a service, rights and quota.
#include <filesystem>
#include <fstream>

#include "src/base/errors.h"
#include "src/model/folder_list_internal.h"
#include "src/model/model_internal.h"
#include "src/options/options.h"
#include "tests/model/model_fixture.h"

namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

Names NamesOf(const FolderList& list) {
  Names out;
  for (const FolderListEntry& e : list) out.push_back(e.name);
  std::sort(out.begin(), out.end());
  return out;
}

void SetOption(int number, const char* key, const char* value) {
  Opt_AssignString(("MsgService.ms" + std::to_string(number) + "." + key).c_str(), value, kOptSession, 0);
}

TEST(SplitPrefixes, Table) {
  std::string many;
  for (int i = 0; i < 60; ++i) many += "p" + std::to_string(i) + "/,";
  const struct { const char* locations; const char* pattern; Names want; } rows[] = {
      {nullptr, "%", {"%"}},
      {" Mail/ ; News/,\tOld/ ", "*", {"Mail/*", "News/*", "Old/*"}},
      {",; ;,", "*", {"*"}},  // only empty prefixes: none at all
      {"Mail/;News/", "Mail/Drafts", {"Mail/Drafts", "News/Mail/Drafts"}},  // already under one
      {"Mail/,Mail/", "*", {"Mail/*"}},                                     // one pattern is listed once
      {"Mail/;News/", "iNbOx", {"iNbOx"}},
      {many.c_str(), "*", {}},  // of 60 prefixes only 50 count (the size is checked)
  };
  for (const auto& r : rows) {
    Names got;
    MM_CCSplitPrefixes(r.locations, r.pattern, &got);
    if (r.want.empty()) EXPECT_EQ(got.size(), 50u);
    else EXPECT_EQ(got, r.want) << (r.locations ? r.locations : "(null)") << " | " << r.pattern;
  }
}

TEST(ListCacheText, FormatParseAndDamage) {
  FolderList list = {{"INBOX", 0, kFolderSelectable}, {"a\\b", '\\', kFolderNoInferiors | kFolderMarked}};
  std::string text;
  ASSERT_TRUE(ListCacheFormat(list, &text));
  EXPECT_EQ(text, "?\tfalse\tfalse\ttrue\tINBOX\n\\\ttrue\ttrue\tfalse\ta\\b\n");
  FolderList back;
  ASSERT_TRUE(ListCacheParse(text, &back));
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(back[0].delimiter, 0);
  EXPECT_EQ(back[1].name + back[1].delimiter, "a\\b\\");
  EXPECT_EQ(back[1].flags, kFolderNoInferiors | kFolderMarked);
  for (const char* bad : {"a\tb", "a\nb", "a\rb"})
    EXPECT_FALSE(ListCacheFormat({{bad, '/', kFolderSelectable}}, &text)) << "not cacheable: " << bad;
  for (const char* damaged : {"?\tfalse\tfalse\ttrue\n", "?\tfalse\tfalse\ttrue\tA", "?\tno\tfalse\ttrue\tA\n",
                              "??\tfalse\tfalse\ttrue\tA\n", "?\tfalse\tfalse\ttrue\t\n"}) {
    FolderList out = {{"left", 0, 0}};
    EXPECT_FALSE(ListCacheParse(damaged, &out)) << damaged;
    EXPECT_TRUE(out.empty()) << damaged;
  }
}

TEST(AclText, ParseAndBuild) {
  const struct { const char* text; int rights; const char* built; } rows[] = {
      {"LRSWIDA", kAclRead | kAclWrite | kAclAdmin, "lrswida"},
      {"lr", 0, ""},  // read needs all three
      {"wid", kAclWrite, "lrswid"},
      {"pc", kAclPost, "p"},
      {"lrsx", kAclRead, "lrs"}};  // a bogus letter is only logged
  for (const auto& r : rows) {
    EXPECT_EQ(MM_CCACLParse(r.text), r.rights) << r.text;
    EXPECT_STREQ(MM_CCACLBuild(r.rights), r.built) << r.text;
  }
}

using Services = ModelTest;

TEST_F(Services, TypesStreamNamesAndCanonicalNames) {
  for (const auto& [word, code] : {std::pair{"mail", 1}, {"bboard", 2}, {"Pop", 4}, {"mh", 7}, {"smtp", 0}})
    EXPECT_EQ(MM_MSGetTypeByTypename(word), code) << word;
  EXPECT_STREQ(MM_MSGetTypedescByType(4), "Internet (POP3) Folders");
  EXPECT_STREQ(MM_MSGetTypedescByType(0), "");
  EXPECT_STREQ(MM_MSGetTypenameByType(7), "local");
  const struct { const char* type; const char* host; const char* port; const char* security; const char* name; } names[] = {
      {"imap", "mail.example.org", "", "", "{mail.example.org/service=imap2:143}"},
      {"imap", "mail.example.org", "1143", "", "{mail.example.org/service=imap2:1143}"},
      {"imap", "mail.example.org", "", "SSL", "{mail.example.org/ssl/service=imap2:993}"},
      {"imap", "mail.example.org", "1993", "ssl", "{mail.example.org/ssl/service=imap2:1993}"},
      {"imap", "mail.example.org", "", "tls", "{mail.example.org/tls/service=imap2:143}"},
      {"imap", "mail.example.org", "", "none", "{mail.example.org/notls/service=imap2:143}"},
      {"bboard", "news.example.org", "", "", "{news.example.org/service=imap2:143}*"},
      {"nntp", "news.example.org", "", "", "{news.example.org/service=nntp:119}"},
      {"pop", "pop.example.org", "0", "", "{pop.example.org/service=pop3:110}"},
      {"imap", "", "", "", ""},  // none can be made
      {"p7", "x400.example.org", "", "", ""}};
  for (const auto& n : names) {
    const std::pair<const char*, const char*> options[] = {
        {"Type", n.type}, {"Hostname", n.host}, {"Port", n.port}, {"Security", n.security}};
    for (const auto& [key, value] : options) SetOption(10, key, value);
    const int id = MM_MSNew(10);
    std::string name;
    EXPECT_EQ(MM_CCGenSvcName(id, &name), *n.name ? 1 : 0) << n.type << " " << n.host;
    EXPECT_EQ(name, n.name) << n.type;
    MM_MSDestroy(id);
  }
  SetOption(2, "Type", "imap");
  SetOption(2, "Hostname", "h");
  SetOption(2, "Name", "Home");
  const int home = MM_MSNew(2);
  EXPECT_EQ(MM_MSNew(2), home) << "the same number gives the same slot";
  std::string full;
  for (const char* folder : {"* INBOX", "{h/service=imap2:143}INBOX"}) {
    EXPECT_TRUE(MM_CCGenFolName(home, folder, &full));
    EXPECT_EQ(full, "{h/service=imap2:143}INBOX");
  }
  EXPECT_EQ(MM_FolCanonNameBuild(home, "INBOX"), "Home!INBOX");
  EXPECT_EQ(MM_FolCanonNameBuild(INVALID_SERVICE, "INBOX"), "");
  // The service's ms number; -1 for none, -2 for slot 0.
  const struct { const char* cname; int number; const char* name; } canon[] = {
      {"Home!  Lists\\velmar", 2, "Lists\\velmar"},
      {"5!Drafts", 5, "Drafts"},  // an ms number from older options makes the service
      {"xINBOX", -2, "INBOX"},    // the old form: first character dropped
      {"Nowhere!INBOX", -1, "INBOX"}};
  for (const auto& c : canon) {
    int id = -7;
    std::string name;
    MM_FolCanonNameParse(c.cname, &id, &name);
    EXPECT_EQ(name, c.name) << c.cname;
    EXPECT_EQ(id, c.number == -1 ? INVALID_SERVICE : c.number == -2 ? 0 : MM_MSNew(c.number)) << c.cname;
  }
  for (int id : {INVALID_SERVICE, kMaxServices - 1, -1})
    EXPECT_EQ(MM_MSGetName(id) + std::to_string(MM_MSGetPort(id)) + std::to_string(MM_MSGetType(id)), "-17");
}

// The second listing comes from the cache, not the driver: a folder made
// behind the model's back stays unseen until the cache goes.
TEST_F(Services, ListingCacheHitMissAndDamage) {
  MakeFolder("Alpha", 0);
  FolderList list;
  ASSERT_EQ(MM_MSFindFol(local_, "*", 1, &list), 1);
  EXPECT_EQ(NamesOf(list), Names({"Alpha"}));
  MessageService* ms = ServiceAt(local_);
  const std::string file = ms->list_cache.at(0).file;
  EXPECT_EQ(ReadFile(file), "\\\tfalse\tfalse\ttrue\tAlpha\n");
  EXPECT_EQ(fs::status(file).permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);
  MakeFolder("Beta", 0);
  ASSERT_EQ(MM_MSFindFol(local_, "*", 1, &list), 1);
  EXPECT_EQ(NamesOf(list), Names({"Alpha"})) << "a hit must not reach the driver";
  ASSERT_EQ(MM_MSFindFol(local_, "B*", 1, &list), 1);  // another pattern is a miss
  EXPECT_EQ(NamesOf(list), Names({"Beta"}));
  ASSERT_EQ(MM_MSFindFol(local_, "*", 0, &list), 1);  // so are the subscribed ones
  EXPECT_TRUE(list.empty());
  // A damaged file sends this listing to the driver and empties the cache.
  std::ofstream(file, std::ios::trunc) << "?\ttrue\n";
  ASSERT_EQ(MM_MSFindFol(local_, "*", 1, &list), 1);
  EXPECT_EQ(NamesOf(list), Names({"Alpha", "Beta"}));
  MakeFolder("Gamma", 0);
  ASSERT_EQ(MM_MSFindFol(local_, "*", 1, &list), 1);
  EXPECT_EQ(NamesOf(list), Names({"Alpha", "Beta", "Gamma"}));
  EXPECT_FALSE(fs::exists(file));
  fs::remove(ms->list_cache.back().file);  // a vanished file is a miss
  MakeFolder("Delta", 0);
  ASSERT_EQ(MM_MSFindFol(local_, "*", 1, &list), 1);
  EXPECT_EQ(list.size(), 4u);
  const std::string last = ms->list_cache.back().file;
  MM_MSClose(local_);
  EXPECT_FALSE(fs::exists(last)) << "closing the service deletes its cache files";
  EXPECT_EQ(ms->listed, 0);
  // Folder locations narrow what is listed.
  MakeFolder("Mail", 0);
  MakeFolder("Mail\\Drafts", 0);
  SetOption(1, "FolderLocation", "Mail\\ ; Alpha\\");
  MM_MSReload(local_);
  ASSERT_EQ(MM_MSFindFol(local_, "*", 1, &list), 1);
  EXPECT_EQ(NamesOf(list), Names({"Mail\\Drafts"}));
}

// A listing tells the user when no stream could be had, unless the type
// has nothing to list; the rights and quota calls always do, and leave
// nothing behind.
TEST_F(Services, WithoutAStreamCallsSayWhy) {
  const struct { const char* type; const char* host; bool reports; } rows[] = {
      {"local", "", false}, {"p7", "x400.example.org", false}, {"imap", "", true}, {"nntp", "", true}};
  for (const auto& r : rows) {
    SetOption(1, "Type", r.type);
    SetOption(1, "Hostname", r.host);
    MM_MSClose(local_);  // the previous row's listing is cached
    MM_MSReload(local_);
    xvt_test_clear_posts();
    EXPECT_EQ(MM_MSGetStream(local_), nullptr) << r.type;
    FolderList list;
    EXPECT_EQ(MM_MSFindFol(local_, "*", 1, &list), r.reports ? 0 : 1) << r.type;
    EXPECT_EQ(Posts(), r.reports ? std::string("error: ") + ErrorText(2034) + "\n" : "") << r.type;
  }
  SetOption(1, "Type", "local");
  MM_MSReload(local_);
  long caps = 0;
  EXPECT_EQ(MM_MSCapabilities(local_, &caps), 1);
  EXPECT_TRUE(caps & CAP_FOLDERS);
  EXPECT_EQ(MM_MSCapabilities(INVALID_SERVICE, &caps), 0);
  long su = 5, sl = 5, mu = 5, ml = 5;
  ACLList list = {{"left", 1, "lrs"}};
  const std::function<int()> calls[] = {[&] { return MM_FolGetACLList(local_, "INBOX", &list); },
                                        [&] { return MM_FolGetMyRights(local_, "INBOX", &list); },
                                        [&] { return MM_FolAddACL(local_, "INBOX", "ann", kAclRead); },
                                        [&] { return MM_FolDeleteACL(local_, "INBOX", "ann"); },
                                        [&] { return MM_FolGetQuota(local_, "", &su, &sl, &mu, &ml); },
                                        [&] { return MM_FolSetQuota(local_, "", 10, 10); }};
  for (const auto& call : calls) {
    xvt_test_clear_posts();
    EXPECT_EQ(call(), 0);
    EXPECT_EQ(Posts(), std::string("error: ") + ErrorText(2101) + "\n");
  }
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(su + sl + mu + ml, 0);
  EXPECT_TRUE(g_acl_list == nullptr && g_quota == nullptr);
}

TEST_F(Services, DeleteRewritesIdList) {
  const struct { const char* before; int number; const char* after; } rows[] = {
      {"12  2\t21 2", 2, "12 21"}, {"2", 2, ""}, {"  3 1  ", 3, "1"}};
  for (const auto& r : rows) {
    Opt_AssignString("MsgService.IDList", r.before, kOptPermanent, 0);
    SetOption(r.number, "Type", "local");
    SetOption(r.number, "Name", "Gone");
    const int id = MM_MSNew(r.number);
    seen_.clear();
    MM_MSDelete(id);
    EXPECT_EQ(Opt_LookupText("MsgService.IDList", kOptSession), r.after) << r.before;
    EXPECT_EQ(Opt_LookupText("MsgService.IDList", kOptPermanent), r.after) << r.before;
    EXPECT_EQ(Opt_LookupText(("MsgService.ms" + std::to_string(r.number) + ".Name").c_str(), kOptSession), "");
    EXPECT_EQ(ServiceAt(id), nullptr);
    EXPECT_EQ(Types({E_MS_CLOSED, E_MS_DESTROYED}), std::vector<int>{E_MS_DESTROYED});
  }
}

// A changed service that was listed asks whether to re-open it; the
// re-open is posted from the model's handler, before later notifiers hear
// of the change.
TEST_F(Services, ChangedServiceAsks) {
  const struct { bool listed; ASK_RESPONSE answer; std::vector<int> events; std::string posts; } rows[] = {
      {false, RESP_DEFAULT, {E_MS_CHANGED}, ""},
      {true, RESP_DEFAULT, {E_MS_REOPEN, E_MS_CHANGED}, "ask\n"},
      {true, RESP_2, {E_MS_CHANGED}, std::string("ask\nerror: ") + ErrorText(3018) + "\n"}};
  int round = 0;
  for (const auto& r : rows) {
    const std::string old_name = MM_MSGetName(local_), name = "Renamed" + std::to_string(++round);
    SetOption(1, "Name", name.c_str());
    ServiceAt(local_)->listed = r.listed;
    if (r.listed) xvt_test_push_answer(r.answer);
    xvt_test_clear_posts();
    seen_.clear();
    MM_NotPostSimple(E_MS_CHANGED, local_);
    EXPECT_EQ(Types(), r.events) << round;
    EXPECT_STREQ(MM_MSGetName(local_), name.c_str()) << "reloaded in every case";
    std::string posts;
    for (const XvtPost& p : xvt_test_posts()) posts += p.kind == "ask" ? "ask\n" : p.kind + ": " + p.text + "\n";
    EXPECT_EQ(posts, r.posts) << round;
    EXPECT_TRUE(!r.listed || xvt_test_posts().at(0).text.find("\"" + old_name + "\"") != std::string::npos);
  }
}

}  // namespace
