// The search dialog's work: rules by name, folders opened through the
// model, each searched where its messages are, the results listed.
#include "src/search/search_run.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "src/model/local_search.h"
#include "src/options/options.h"
#include "src/search/search_rules.h"

std::string SRCH_ProgramForServer(const std::string& program) {
  const bool eight_bit =
      std::any_of(program.begin(), program.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; });
  return eight_bit ? "CHARSET UTF-8 " + program : program;
}

namespace {

using Programs = std::vector<std::pair<std::string, std::string>>;  // rule name, program

// Runs the programs over one open folder: what any of them finds, once,
// in folder order. False when a rule could not run (said in problems).
bool FindInFolder(int id, int ms, const std::string& where, const Programs& programs, std::vector<UMI>* found,
                  std::vector<std::string>* problems) {
  bool all = true;
  if (MM_MSGetType(ms) == kServiceLocal) {
    for (const auto& [name, text] : programs) {
      SearchProgram program;
      std::string error;
      if (!MM_SearchParseProgram(text.c_str(), &program, &error) || !MM_FolSearchLocal(id, program, found, &error)) {
        problems->push_back("Rule \"" + name + "\" in \"" + where + "\": " + error);
        all = false;
      }
    }
    // A message found by two rules is listed once, in folder order.
    std::sort(found->begin(), found->end(), [](UMI a, UMI b) { return MM_UMIMsgno(a) < MM_UMIMsgno(b); });
    found->erase(std::unique(found->begin(), found->end()), found->end());
    return all;
  }
  // The server marks what each SEARCH finds; the marks add up until the
  // list is taken.
  MM_FolSearchStart(id);
  for (const auto& [name, text] : programs) {
    const std::string program = SRCH_ProgramForServer(text);
    if (MM_FolSearch(id, program.c_str())) continue;
    // A server that refuses UTF-8 gets no second try without it: with the
    // accents taken away the rule would find other messages than it says,
    // and a list that looks complete would not be.
    const bool charset = program.rfind("CHARSET ", 0) == 0;
    problems->push_back("Rule \"" + name + "\" in \"" + where + "\" " +
                        (charset ? "could not run: the server refused to search for non-ASCII text"
                                 : "could not run"));
    all = false;
  }
  MM_FolSearchGetList(id, found);
  return all;
}

}  // namespace

int SRCH_RunRules(const std::vector<std::string>& rule_names, const std::vector<SrchFolderRef>& folders,
                  SrchRun* run) {
  Programs programs;
  for (const std::string& name : rule_names) {
    std::string rule;
    if (!SRCH_GetRuleByName("IMAP", name.c_str(), &rule, nullptr)) {
      run->problems.push_back("Rule \"" + name + "\" not found");
      continue;
    }
    programs.emplace_back(name, rule);
  }
  bool all = programs.size() == rule_names.size();
  for (const SrchFolderRef& ref : folders) {
    const int id = MM_FolOpen(ref.ms, ref.name.c_str());
    if (id == INVALID_FOLDER) {
      run->problems.push_back("Folder \"" + ref.name + "\" could not be opened");
      all = false;
      continue;
    }
    run->folders.push_back(id);
    std::vector<UMI> found;
    if (!FindInFolder(id, ref.ms, ref.name, programs, &found, &run->problems)) all = false;
    run->found.insert(run->found.end(), found.begin(), found.end());
  }
  run->notice = run->found.empty() ? "Search contains no messages." : "";
  return all ? 1 : 0;
}

std::string SRCH_SelectionKey(int ms_number, const char* folder, const char* attribute) {
  return "MessageSelection." + std::to_string(ms_number) + "." + folder + "." + attribute;
}

int SRCH_FolderSelection(int ms, const char* folder, int id, std::vector<UMI>* found) {
  found->clear();
  const int number = MM_MSGetNumber(ms);
  short on = 0;
  if (!Opt_LookupBoolean(SRCH_SelectionKey(number, folder, "IsSelecting").c_str(), &on, kOptSession) || !on)
    return -1;
  const std::string ids = Opt_LookupText(SRCH_SelectionKey(number, folder, "SearchIDList").c_str(), kOptSession);
  Programs programs;
  for (const char* p = ids.c_str(); *p;) {
    char* end;
    const long rule_id = std::strtol(p, &end, 10);
    if (end == p) {
      ++p;
      continue;
    }
    p = end;
    std::string name, rule;
    if (rule_id < 1 || rule_id > INT32_MAX || !SRCH_GetRuleByID("IMAP", static_cast<int>(rule_id), &name, &rule, nullptr))
      return 0;
    programs.emplace_back(name, rule);
  }
  std::vector<std::string> problems;
  if (programs.empty() || !FindInFolder(id, ms, folder, programs, found, &problems)) {
    found->clear();
    return 0;
  }
  return 1;
}

std::vector<std::string> SRCH_ResultLines(const SrchRun& run) {
  std::vector<std::string> lines;
  for (UMI umi : run.found) {
    const int folder = MM_UMIFolder(umi);
    lines.push_back(std::string(MM_FolGetName(folder)) + "\t" + MM_MsgHeaderContent(umi, "From").value_or("") +
                    "\t" + MM_MsgHeaderContent(umi, "Subject").value_or(""));
  }
  return lines;
}

void SRCH_RunClose(SrchRun* run) {
  for (int id : run->folders) MM_FolClose(id, 0);
  run->folders.clear();
  run->found.clear();
}
