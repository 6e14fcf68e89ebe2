// Phrases to their exact key and display forms and back, the stored-rule
// separator, and the rule store in the options.
#include <gtest/gtest.h>

#include "src/options/options.h"
#include "src/search/search_rules.h"
#include "tests/model/model_fixture.h"

namespace {

struct PhraseCase {
  int kind;
  const char* attribute;
  const char* criterion;
  SRCH_Value value;
  const char* display;  // nullptr: refused
  const char* key;
};

SRCH_Value Text(const char* t, const char* t2 = "") { return SRCH_Value{kSrchValText, 0, 0, t, t2}; }
SRCH_Value Size(long a, long b = 0) { return SRCH_Value{kSrchValSize, a, b, "", ""}; }

const PhraseCase kPhrases[] = {
    {1, "Body", "contains", Text("budget"), "Body contains budget", "BODY \"budget\""},
    {1, "From", "doesn't contain", Text("Ann Lee"), "From doesn't contain Ann Lee", "NOT FROM \"Ann Lee\""},
    {1, "Subject", "contains", Text("say \"hi\""), "Subject contains say \"hi\"", "SUBJECT \"say \\\"hi\\\"\""},
    {1, "Subject", "contains", Text("C:\\dir\\"), "Subject contains C:\\dir\\", "SUBJECT \"C:\\\\dir\\\\\""},
    {1, "Subject", "contains", Text("50% * off"), "Subject contains 50% * off", "SUBJECT \"50% * off\""},
    {1, "Subject", "contains", Text("a|b"), "Subject contains a|b", "SUBJECT \"a|b\""},
    {1, "Subject", "contains", Text("été Ünïcödé"), "Subject contains été Ünïcödé", "SUBJECT \"été Ünïcödé\""},
    {1, "Header or Body", "contains", Text("x"), "Header or Body contains x", "TEXT \"x\""},
    {1, "Comments", "contains", Text("c"), "Comments contains c", "HEADER Comments \"c\""},
    {1, "Priority", "contains", Text("1"), "Priority contains 1", "HEADER Priotity \"1\""},
    {1, "Message ID", "doesn't contain", Text("<a@b>"), "Message ID doesn't contain <a@b>",
     "NOT HEADER Message-ID \"<a@b>\""},
    {1, "Header", "contains in ", Text("X-Mailer", "Velmar \"4\""), "Header contains in  X-Mailer Velmar \"4\"",
     "HEADER \"X-Mailer\" \"Velmar \\\"4\\\"\""},
    {1, "Header", "doesn't contain in ", Text("List-Id", "dev"), "Header doesn't contain in  List-Id dev",
     "NOT HEADER \"List-Id\" \"dev\""},
    {1, "Header", "contains in ", Text("Bad:Name", "x"), nullptr, nullptr},
    {1, "Date Sent", "on", Text("03/04/1997"), "Date Sent on 3-Apr-1997", "SENTON 3-Apr-1997"},
    {1, "Date Received", "on", Text("03/04/1997"), "Date Received on 3-Apr-1997", "ON 3-Apr-1997"},
    {1, "Date Received", "before", Text("31/12/2024"), "Date Received before 31-Dec-2024", "BEFORE 31-Dec-2024"},
    {1, "Date Sent", "since", Text("1/1/2000"), "Date Sent since 1-Jan-2000", "SENTSINCE 1-Jan-2000"},
    {1, "Date Sent", "on", Text("03/13/1997"), nullptr, nullptr},
    {1, "Date Sent", "on", Text("1997"), nullptr, nullptr},
    {1, "Date Sent", "around", Text("03/04/1997"), nullptr, nullptr},
    {1, "Size", "is larger than", Size(5), "Size is larger than 5", "LARGER 5"},
    {1, "Size", "is not larger than", Size(5), "Size is not larger than 5", "NOT LARGER 5"},
    {1, "Size", "is not smaller than", Size(700), "Size is not smaller than 700", "NOT SMALLER 700"},
    {1, "Size", "is in range", Size(5, 10), "Size is in a range (5,10)", "LARGER 5 SMALLER 10"},
    {1, "Read", nullptr, {}, "Read", "SEEN"},
    {1, "Not Replied To", nullptr, {}, "Not Replied To", "UNANSWERED"},
    {1, "Marked Special", nullptr, {}, "Marked Special", "FLAGGED"},
    {1, "Keyword", "has", Text("$Work"), "Keyword has $Work", "KEYWORD $Work"},
    {1, "Keyword", "doesn't have", Text("todo"), "Keyword doesn't have todo", "UNKEYWORD todo"},
    {1, "Keyword", "has", Text("two words"), nullptr, nullptr},
    {1, "Subject", "contains", Text("line\r\nbreak"), nullptr, nullptr},
    {1, "Nonsense", "contains", Text("x"), nullptr, nullptr},
    {1, "From", nullptr, Text("x"), nullptr, nullptr},
    // Books and lists: the template with the words quoted.
    {2, "Email", "contains", Text("ann"), "Email contains ann", "\"Email\" \"*ann*\""},
    {2, "Phone number", "starts with", Text("+44"), "Phone number starts with +44", "\"Phone\" \"+44*\""},
    {2, "Name", "ends with", Text("Lee"), "Name ends with Lee", "\"Name\" \"*Lee\""},
    {2, "Alias", "is", Text("a\"b"), "Alias is a\"b", "\"Alias\" \"a\\\"b\""},
    {2, "Other", "contains", SRCH_Value{9, 0, 0, "Home city", "Zürich"}, "\"Home city\" contains Zürich",
     "\"Home city\" \"*Zürich*\""},
    {3, "Member", "is", Text("bob@x.org"), "Member is bob@x.org", "\"Member\" \"bob@x.org\""},
};

TEST(SearchPhrases, EachPhraseToItsExactKeyAndDisplay) {
  for (const PhraseCase& c : kPhrases) {
    SRCH_Value v = c.value;
    if (c.kind != 1 && v.kind == kSrchValText) v.kind = kSrchValBookText;
    std::string display = "junk", key = "junk";
    const int ok = SRCH_AddPhrase(c.kind, c.attribute, c.criterion, v, &display, &key);
    SCOPED_TRACE(std::string(c.attribute) + " / " + (c.criterion ? c.criterion : "-") + " / " + c.value.text);
    if (!c.display) {
      EXPECT_EQ(ok, 0);
      EXPECT_EQ(display, "");
      EXPECT_EQ(key, "");
      EXPECT_EQ(SRCH_GetLastError(), kSrchErrNotFound);
      continue;
    }
    ASSERT_EQ(ok, 1);
    EXPECT_EQ(display, c.display);
    EXPECT_EQ(key, c.key);
  }
}

// Key forms back to display forms; nullptr: not displayable.
const std::pair<const char*, const char*> kReverse[] = {
    {"SENTON 3-Apr-1997", "Date Sent on 3-Apr-1997"},
    {"ON 3-Apr-1997", "Date Received  on 3-Apr-1997"},
    {"BEFORE 1-Jan-2001", "Date Received  before 1-Jan-2001"},
    {"SINCE 1-Jan-2001  ", "Date Received  since 1-Jan-2001"},
    {"NOT ON 3-Apr-1997", nullptr},
    {"NOT LARGER 5", "Size is not larger than 5"},
    {"SMALLER 9", "Size is smaller than 9"},
    {"LARGER 5 SMALLER 10", "Size is is in a range (5,10)"},
    {"LARGER x", nullptr},
    {"FROM \"Ann Lee\"", "From contains Ann Lee"},
    {"  not from \"Ann\"", "From doesn't contain Ann"},
    {"SUBJECT \"say \\\"hi\\\"\"", "Subject contains say \"hi\""},
    {"SUBJECT \"C:\\\\dir\\\\\"", "Subject contains C:\\dir\\"},
    {"SUBJECT \"été\"", "Subject contains été"},
    {"SUBJECT \"open", nullptr},
    {"HEADER Comments \"c\"", "Comments contains c"},
    {"HEADER Priotity \"1\"", "Priority contains 1"},
    {"HEADER \"X-Mailer\" \"v 4\"", "Header contains in  X-Mailer v 4"},
    // Keys are whole words: a quoted "Comments" is a header's name.
    {"HEADER \"Comments\" \"x\"", "Header contains in  Comments x"},
    {"NOT HEADER \"List-Id\" \"dev\"", "Header doesn't contain in  List-Id dev"},
    {"HEADERS \"x\" \"y\"", nullptr},
    {"TEXT \"x\"", "Header or Body contains x"},
    {"KEYWORD $Work", "Keyword has $Work"},
    {"UNKEYWORD todo", "Keyword doesn't have todo"},
    {"SEEN", "Read"},
    {"UNSEEN", "Unread"},
    {"OLD", "Old"},
    {"SEEN x", nullptr},
    {"NOT SEEN", nullptr},
    {"BOGUS 1", nullptr},
};

TEST(SearchPhrases, KeysBackToDisplay) {
  for (const auto& [key, display] : kReverse) {
    std::string out = "junk";
    const int ok = SRCH_IMAPConvPhrase(key, &out);
    EXPECT_EQ(ok, display ? 1 : 0) << key;
    EXPECT_EQ(out, display ? display : "") << key;
  }
}

// The names are kept as they were displayed, blanks and spelling included
// (the reverse table's are checked above).
TEST(SearchPhrases, KeptQuirks) {
  std::string key;
  ASSERT_TRUE(SRCH_FindSearchKey(kSearchMessages, "Priority", &key));
  EXPECT_EQ(key, "HEADER Priotity");
  // Day 31 is not read back.
  EXPECT_EQ(SRCH_DateFromIMAP("31-Jan-1997"), "");
  EXPECT_EQ(SRCH_DateFromIMAP("30-Jan-1997"), "30/01/1997");
}

TEST(SearchPhrases, EditTakesAKeyApartAndBuildsItAgain) {
  // Every phrase that a key form can be edited from rebuilds the same key.
  for (const PhraseCase& c : kPhrases) {
    if (c.kind != 1 || !c.key) continue;
    std::string attribute, criterion, display, key;
    SRCH_Value v;
    // Day 31 is the one date that is not read back.
    if (std::string(c.key).find(" 31-") != std::string::npos) {
      EXPECT_EQ(SRCH_IMAPEditPhrase(c.key, &attribute, &criterion, &v), 0) << c.key;
      continue;
    }
    if (!SRCH_IMAPEditPhrase(c.key, &attribute, &criterion, &v)) {
      ADD_FAILURE() << c.key;
      continue;
    }
    if (v.kind == kSrchValSizeRange) v.kind = kSrchValSize;
    ASSERT_TRUE(SRCH_AddPhrase(1, attribute.c_str(), criterion.empty() ? nullptr : criterion.c_str(), v, &display,
                               &key)) << c.key;
    EXPECT_EQ(key, c.key);
  }
  for (const PhraseCase& c : kPhrases) {
    if (c.kind == 1 || !c.key) continue;
    std::string attribute, criterion, display, key;
    SRCH_Value v;
    ASSERT_TRUE(SRCH_IMSPEditPhrase(c.key, &attribute, &criterion, &v)) << c.key;
    ASSERT_TRUE(SRCH_AddPhrase(c.kind, attribute.c_str(), criterion.c_str(), v, &display, &key)) << c.key;
    EXPECT_EQ(key, c.key);
  }
}

TEST(SearchPhrases, BookKeysBackByTheirStars) {
  const std::pair<const char*, const char*> cases[] = {
      {"\"Email\" \"*ann*\"", "Email contains ann"},   {"\"Phone\" \"+44*\"", "\"Phone number\" starts with +44"},
      {"\"Name\" \"*Lee\"", "Name ends with Lee"},     {"\"Alias\" \"bob\"", "Alias is bob"},
      {"\"Alias\" \"*\"", "Alias is *"},               {"\"Home city\" \"*Z*\"", "\"Home city\" contains Z"},
      {"\"Member\" \"**\"", "Member is **"},  {"\"Email\"", nullptr},
  };
  for (const auto& [key, display] : cases) {
    std::string out;
    EXPECT_EQ(SRCH_IMSPConvPhrase(key, &out), display ? 1 : 0) << key;
    EXPECT_EQ(out, display ? display : "") << key;
  }
}

TEST(SearchPhrases, RuleSeparatorOnlyOutsideQuotes) {
  const std::vector<std::string> phrases = {"SUBJECT \"a|b\"", "SEEN", "FROM \"x\\\"|\""};
  const std::string joined = SRCH_JoinRule(phrases);
  EXPECT_EQ(joined, "SUBJECT \"a|b\"|SEEN|FROM \"x\\\"|\"");
  EXPECT_EQ(SRCH_SplitRule(joined), phrases);
}

TEST(SearchPhrases, AddressesARuleLooksFor) {
  const struct {
    const char* rule;
    const char* want;  // "name=address;" in order
  } cases[] = {
      {"FROM \"Zed <z@Example.ORG>\"|TO \"amy@b.net, Bob <bob@C.com>\"",
       "amy@b.net=amy@b.net;Bob=bob@c.com;Zed=z@example.org;"},
      // The same address twice, once with a name: it stands once, named.
      {"CC \"x@h.io\"|BCC \"Xavier <X@H.IO>\"|TO \"Ann <a@h.io>\"", "Ann=a@h.io;Xavier=x@h.io;"},
      // Not addresses: a negated phrase, a bare word, another key, a broken quote.
      {"NOT FROM \"a@b.c\"|FROM fred|SUBJECT \"q@r.s\"|TO \"unterminated@x.y", ""},
      {"", ""},
  };
  for (const auto& c : cases) {
    std::string got;
    for (const SRCH_RuleAddress& r : SRCH_ParseRule(c.rule)) got += r.name + "=" + r.address + ";";
    EXPECT_EQ(got, c.want) << c.rule;
  }
}

// --- The store ------------------------------------------------------------------

class RuleStore : public ModelTest {};

TEST_F(RuleStore, RulesInTheOptionsAtTheirLevels) {
  int id = 0;
  ASSERT_TRUE(SRCH_AddRuleByName(kOptPermanent, "IMAP", "Boss", "FROM \"boss\"|UNSEEN", "Message", &id));
  EXPECT_EQ(id, 1);
  ASSERT_TRUE(SRCH_AddRuleByName(kOptSession, "IMAP", "Pipes", "SUBJECT \"a|b\"|SEEN", "Message", &id));
  EXPECT_EQ(id, 2);
  ASSERT_TRUE(SRCH_AddRuleByName(kOptSession, "IMAP", "Big", "LARGER 100000", "Message", &id));
  EXPECT_EQ(id, 3);
  ASSERT_TRUE(SRCH_AddRuleByName(kOptSession, "IMSP", "Ann", "\"Name\" \"*Ann*\"|\"Email\" \"a*\"", "Person", &id));
  EXPECT_EQ(id, 1);

  EXPECT_EQ(Opt_LookupText("Search.IMAP.IDList", kOptPermanent), "1");
  EXPECT_EQ(Opt_LookupText("Search.IMAP.IDList", kOptSession), "1 2 3");
  EXPECT_EQ(Opt_LookupText("Search.IMAP.1.Rule", kOptPermanent), "FROM \"boss\"|UNSEEN");
  EXPECT_EQ(Opt_LookupText("Search.IMAP.2.Name", kOptPermanent), "");
  EXPECT_EQ(Opt_LookupText("Search.IMAP.2.Target", kOptSession), "Message");

  std::string rule, name;
  ASSERT_TRUE(SRCH_GetRuleByName("IMAP", "Pipes", &rule, nullptr));
  EXPECT_EQ(rule, "SUBJECT \"a|b\" SEEN");  // the '|' inside the text stays
  ASSERT_TRUE(SRCH_GetRawRuleByName("IMAP", "Pipes", &rule));
  EXPECT_EQ(rule, "SUBJECT \"a|b\"|SEEN");
  ASSERT_TRUE(SRCH_GetRuleByID("IMSP", 1, &name, &rule, nullptr));
  EXPECT_EQ(rule, "\"Name\" \"*Ann*\"|\"Email\" \"a*\"");
  EXPECT_EQ(SRCH_GetRuleByID("IMAP", 0, &name, &rule, nullptr), 0);
  EXPECT_EQ(SRCH_GetLastError(), kSrchErrBadId);
  std::string option;
  EXPECT_EQ(SRCH_GetOptionName("IMAP", 1, "Colour", &option), 0);
  EXPECT_EQ(SRCH_GetLastError(), kSrchErrNotFound);

  EXPECT_EQ(SRCH_GetRuleSavedStatus("IMAP", "Boss"), 1);
  EXPECT_EQ(SRCH_GetRuleSavedStatus("IMAP", "Big"), 0);

  // A freed id is the next one given.
  ASSERT_TRUE(SRCH_DeleteRuleByName("IMAP", "Pipes"));
  EXPECT_EQ(Opt_LookupText("Search.IMAP.IDList", kOptSession), "1 3");
  EXPECT_EQ(Opt_LookupText("Search.IMAP.2.Rule", kOptSession), "");
  ASSERT_TRUE(SRCH_AddRuleByName(kOptSession, "IMAP", "Again", "SEEN", "Message", &id));
  EXPECT_EQ(id, 2);

  std::vector<std::pair<std::string, int>> list;
  ASSERT_TRUE(SRCH_CreateRuleList("IMAP", &list));
  EXPECT_EQ(list, (std::vector<std::pair<std::string, int>>{{"Again", 2}, {"Big", 3}, {"Boss", 1}}));
  ASSERT_TRUE(SRCH_CreateRuleList("NONE", &list));
  EXPECT_TRUE(list.empty());

  ASSERT_TRUE(SRCH_SaveSelectedRules("IMAP", {"Big", "Boss"}, "MsgSearch.IMAP.1.SearchIDList", 1));
  EXPECT_EQ(Opt_LookupText("MsgSearch.IMAP.1.SearchIDList", kOptPermanent), "3 1");
  EXPECT_EQ(SRCH_SaveSelectedRules("IMAP", {"Nope"}, "MsgSearch.IMAP.1.SearchIDList", 1), 0);

  // A session rule made permanent takes its owner's name; a clash stops.
  ASSERT_TRUE(SRCH_SetRulesPermanent("IMAP", {"Big", "Boss"}, "Search1"));
  EXPECT_EQ(Opt_LookupText("Search.IMAP.3.Name", kOptPermanent), "Search1_Big");
  EXPECT_EQ(Opt_LookupText("Search.IMAP.IDList", kOptPermanent), "1 3");
  EXPECT_EQ(Opt_LookupText("Search.IMAP.1.Name", kOptSession), "Boss");
  ASSERT_TRUE(SRCH_AddRuleByName(kOptSession, "IMAP", "Search1_Again", "SEEN", "Message"));
  EXPECT_EQ(SRCH_SetRulesPermanent("IMAP", {"Again"}, "Search1"), 0);
}

TEST(RuleNames, FirstFreeNumber) {
  EXPECT_EQ(SRCH_NewRuleName({}), "Rule1");
  EXPECT_EQ(SRCH_NewRuleName({"Rule1", "Rule3"}), "Rule2");
  EXPECT_EQ(SRCH_NewRuleName({"Rule1", "Rule2", "Other"}), "Rule3");
}

}  // namespace
