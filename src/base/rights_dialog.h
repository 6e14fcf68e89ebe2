// The access rights dialog, shared by folders and address books. It knows
// nothing of either: its owner hands it the rights it offers and three
// calls to the server, and the dialog always shows what the server answers
// after a change, never what was asked for.
#pragma once

#include <functional>
#include <string>
#include <vector>

constexpr int kRightsDialogRid = 9070;
enum {
  kRdList = 9071, kRdNote, kRdIdentifierLabel, kRdIdentifier, kRdRight0, kRdRight1, kRdRight2, kRdRight3,
  kRdAdd = 9081, kRdChange, kRdRemove, kRdClose,
};

struct RightsRow {
  std::string identifier;
  int flags = 0;     // bits of the rights the owner offers
  std::string text;  // the rights as the server wrote them
};

// One check box: its label and the bit it stands for. At most four.
struct RightsBox {
  const char* label;
  int bit;
};

struct RightsOwner {
  std::string title;  // "Access Rights of INBOX"
  std::vector<RightsBox> boxes;
  // Reads the list anew; *may_change says whether the user may administer
  // it, and *note is the line shown under the list (empty: none). False
  // when the list cannot be read (the reason was told).
  std::function<bool(std::vector<RightsRow>* rows, bool* may_change, std::string* note)> load;
  std::function<bool(const std::string& identifier, int flags)> set;  // false: refused (told)
  std::function<bool(const std::string& identifier)> remove;
};

// A list line: the identifier, the offered rights by name, and the
// server's letters.
std::string RightsLine(const RightsOwner& owner, const RightsRow& row);

// Runs the dialog (modal) over owner.
void RightsDialog(const RightsOwner& owner);
