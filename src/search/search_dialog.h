// The search dialogs: choosing rules and running them over folders with the
// results listed, and building a rule phrase by phrase.
#pragma once

#include <string>
#include <vector>

#include "src/search/search_run.h"

constexpr int kSearchDialogRid = 6200;
constexpr int kSearchRules = 6201;       // list box of the rules, several may be chosen
constexpr int kSearchNewRule = 6202;
constexpr int kSearchDeleteRule = 6203;
constexpr int kSearchFolders = 6204;     // the folders searched, as text
constexpr int kSearchRun = 6205;
constexpr int kSearchResults = 6206;     // one line per message found
constexpr int kSearchStatus = 6207;      // how many were found, and what failed
constexpr int kSearchClose = 6209;

constexpr int kRuleDialogRid = 6220;
constexpr int kRuleName = 6221;
constexpr int kRuleAttribute = 6222;     // list button
constexpr int kRuleCriterion = 6223;     // list button
constexpr int kRuleValue = 6224;
constexpr int kRuleValue2 = 6225;        // a header's text, a range's upper end
constexpr int kRuleAdd = 6226;
constexpr int kRuleRemove = 6227;
constexpr int kRulePhrases = 6228;       // the phrases of the rule, as shown
constexpr int kRuleOk = 6229;
constexpr int kRuleCancel = 6230;

// Runs the search dialog over the folders. The rules of the "IMAP" kind are
// offered; what a search finds stays listed until the next search or the
// end of the dialog, whose folders are then closed again.
void SRCH_SearchDialog(const std::vector<SrchFolderRef>& folders);
// Builds a new rule; 1 with its name when one was saved (permanently, so
// that it is there at the next start), 0 when the user gave up.
int SRCH_NewRuleDialog(std::string* out_name);
