// Search rules: a rule is a named list of phrases kept in the options. A
// phrase has a display form (what the user reads and edits) and a key form
// (what runs). In the "IMAP" scope the key form is an IMAP SEARCH key; in
// the "IMSP" scope it is the address books' search form ("attr" "pattern").
//
// Functions return 1 or 0; SRCH_GetLastError tells why the last one failed.
#pragma once

#include <string>
#include <utility>
#include <vector>

// Scope kinds of SRCH_GetAttributes and SRCH_GetCriterion.
constexpr int kSearchMessages = 1;
constexpr int kSrchBooks = 2;
constexpr int kSrchLists = 3;

// Value kinds.
constexpr int kSrchValNone = 0;
constexpr int kSrchValDate = 1;         // "dd/mm/yyyy"
constexpr int kSrchValSize = 2;         // number
constexpr int kSrchValText = 3;         // text
constexpr int kSrchValKeywordList = 4;  // one of the attribute's keywords
constexpr int kSrchValKeyword = 5;      // keyword typed by the user
constexpr int kSrchValHeader = 6;       // header name (text) and text (text2)
constexpr int kSrchValSizeRange = 7;    // number .. number2
constexpr int kSrchValBookText = 8;     // text
constexpr int kSrchValBookField = 9;    // field (text) and text (text2)

// Error codes.
constexpr int kSrchErrNotFound = 1;  // not found, or a bad attribute or value
constexpr int kSrchErrMemory = 9;
constexpr int kSrchErrBadId = 11;

// Limits on what a phrase and a stored rule may hold.
constexpr size_t kSearchMaxValue = 1024;        // one text value, in bytes
constexpr size_t kSearchMaxRule = 64 * 1024;    // one stored rule
constexpr size_t kSearchMaxSelection = 495;     // a saved selection of rule ids

struct SRCH_Attribute {
  std::string name;  // display name
  std::string key;   // search key ("" for the date and size attributes)
  int kind = 0;      // value kind
  std::vector<std::string> keywords;  // kind 4 only
};

struct SRCH_Criterion {
  std::string name;  // display word
  std::string key;   // key word (may be empty) or, for books, the template
};

struct SRCH_Value {
  int kind = kSrchValNone;
  long number = 0, number2 = 0;
  std::string text, text2;
};

// The search dialog's record of one scope.
struct SRCH_INFO {
  std::string scope;  // "IMAP" or "IMSP"
  int kind = kSearchMessages;
  std::vector<SRCH_Attribute> attributes;
  std::string title;
};

SRCH_INFO* SRCH_IMAPInfoNew();
SRCH_INFO* SRCH_IMSPInfoNew(int kind);  // kSrchBooks or kSrchLists
void SRCH_InfoDestroy(SRCH_INFO*& info);

std::vector<SRCH_Attribute> SRCH_GetAttributes(int kind);
std::vector<SRCH_Criterion> SRCH_GetCriterion(int kind, int value_kind);
// 1 and the entry, or 0 (error 1).
int SRCH_FindAttribute(int kind, const char* name, SRCH_Attribute* out);
int SRCH_FindCriterion(int kind, int value_kind, const char* name, SRCH_Criterion* out);
// The search key of an attribute by display name ("" when it has none).
int SRCH_FindSearchKey(int kind, const char* name, std::string* out);
// The row of the 37-row reverse table whose key begins the phrase (after
// blanks): the longest key that ends at a blank or the phrase's end.
// 1 with the display name, key and value kind; 0 if none fits.
int SRCH_FindIMAPSearchKey(const char* phrase, std::string* name, std::string* key, int* kind);
std::vector<std::string> SRCH_IMAPCreateTargetList();
std::vector<std::string> SRCH_IMSPCreateTargetList();

// Builds both forms of a phrase; 0 with both outputs cleared when the
// attribute, criterion or value is refused.
int SRCH_AddPhrase(int kind, const char* attribute, const char* criterion, const SRCH_Value& value,
                   std::string* out_display, std::string* out_key);

// Key form to display form; 0 when the key can't be shown (unknown key,
// NOT on a date, a malformed value).
int SRCH_IMAPConvPhrase(const char* key, std::string* out_display);
// "name criterion text" from the rest of a key after its search key: the
// quoted strings of rest unquoted and joined by a blank.
int SRCH_IMAPConvCriterionPhrase(int negated, const char* name, const SRCH_Criterion pair[2], const char* rest,
                                 std::string* out_display);
// A key form taken apart for the phrase dialog: attribute, criterion, value.
int SRCH_IMAPEditPhrase(const char* key, std::string* attribute, std::string* criterion, SRCH_Value* value);
int SRCH_IMSPConvPhrase(const char* key, std::string* out_display);
int SRCH_IMSPEditPhrase(const char* key, std::string* attribute, std::string* criterion, SRCH_Value* value);
// A book search word to its display name; an unknown word stands for itself.
std::string SRCH_ConvIMSPSearchKey(const char* word);

// Dates: "dd/mm/yyyy" to "d-Mon-yyyy" and back ("" when refused).
std::string SRCH_DateToIMAP(const char* input);
std::string SRCH_DateFromIMAP(const char* imap_date);

// IMAP quoted string of a value ("a\"b" for a"b).
std::string SRCH_Quote(const std::string& text);

// Phrases of a stored rule: split at the '|' that stand outside quoted
// strings; joining puts one '|' between them.
std::vector<std::string> SRCH_SplitRule(const std::string& rule);
std::string SRCH_JoinRule(const std::vector<std::string>& phrases);

// The addresses a rule looks for, for searches that run over address books:
// each FROM, TO, CC or BCC phrase's value read as an address list, as
// "mailbox@host" (host in lower case) with the person's name, or the
// address when there is none. Sorted by name; an address given twice
// stands once. Negated phrases and values that hold no full address name
// nobody to look for and are left out.
struct SRCH_RuleAddress {
  std::string name;
  std::string address;
};
std::vector<SRCH_RuleAddress> SRCH_ParseRule(const std::string& rule);

// --- The rule store ---------------------------------------------------------

// "Search.<scope>.IDList" for attribute "IDList" (id ignored), else
// "Search.<scope>.<id>.<attribute>" for Name, Rule and Target.
int SRCH_GetOptionName(const char* scope, int id, const char* attribute, std::string* out);
int SRCH_AddToIDList(int level, const char* key, int id, int* out_id);
int SRCH_AddRuleByID(int level, const char* scope, int id, const char* name, const char* rule, const char* target);
// Adds a new rule with the smallest free id (or replaces the one of that
// name); out_id gets the id.
int SRCH_AddRuleByName(int level, const char* scope, const char* name, const char* rule, const char* target,
                       int* out_id = nullptr);
int SRCH_DeleteRuleByID(const char* scope, int id);
int SRCH_DeleteRuleByName(const char* scope, const char* name);
// The rule as it runs: outside IMSP, each '|' between phrases becomes a
// blank (a blank between IMAP keys means AND). target may be null.
int SRCH_GetRuleByID(const char* scope, int id, std::string* out_name, std::string* out_rule,
                     std::string* out_target);
int SRCH_GetRuleByName(const char* scope, const char* name, std::string* out_rule, std::string* out_target,
                       int* out_id = nullptr);
// The stored text with its '|' kept, for editing.
int SRCH_GetRawRuleByName(const char* scope, const char* name, std::string* out_rule);
// Names sorted, without duplicates, with their ids. No list or no entry:
// 1 and an empty list.
int SRCH_CreateRuleList(const char* scope, std::vector<std::pair<std::string, int>>* out);
int SRCH_SaveSelectedRules(const char* scope, const std::vector<std::string>& names, const char* key, int permanent);
int SRCH_SetRulesPermanent(const char* scope, const std::vector<std::string>& names, const char* owner_name);
// Whether the rule has a permanent copy: 1 yes, 0 no (or not found).
int SRCH_GetRuleSavedStatus(const char* scope, const char* name);
int SRCH_GetRuleSavedStatusByID(const char* scope, int id);
// "Rule1", "Rule2", ...: the first not in the sorted names.
std::string SRCH_NewRuleName(const std::vector<std::string>& names);
int SRCH_GetLastError();

// Told when a preference or search dialog changes the rules.
void SRCH_RuleStoreListener(int what, void* data);
