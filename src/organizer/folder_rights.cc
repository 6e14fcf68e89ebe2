// Folder > Access Rights...: the shared rights dialog over a folder's access
// list on its IMAP server.
#include <map>
#include <string>

#include "c-client/core/mail.h"
#include "src/base/rights_dialog.h"
#include "src/model/mm.h"
#include "src/organizer/organizer.h"

namespace {

// A server's capabilities don't change while the program runs, and asking
// pings the server: the menu asks once per service.
std::map<int, bool>& AclKnown() {
  static std::map<int, bool> known;
  return known;
}

}  // namespace

bool FOL_ServiceHasACL(int ms) {
  if (MM_MSGetType(ms) != kServiceImap) return false;
  auto at = AclKnown().find(ms);
  if (at != AclKnown().end()) return at->second;
  long caps = 0;
  if (!MM_MSCapabilities(ms, &caps)) return false;  // not connected: ask again later
  return AclKnown()[ms] = (caps & CAP_ACL) != 0;
}

void FOL_AccessRights(int ms, const char* name) {
  const std::string folder = name ? name : "";
  RightsOwner owner;
  owner.title = "Access Rights of " + folder;
  owner.boxes = {{"read", kAclRead}, {"write", kAclWrite}, {"post", kAclPost}, {"administer", kAclAdmin}};
  owner.load = [ms, folder](std::vector<RightsRow>* rows, bool* may_change, std::string* note) {
    ACLList mine;
    const bool admin = MM_FolGetMyRights(ms, folder.c_str(), &mine) && !mine.empty() &&
                       (mine.front().rights & kAclAdmin);
    *may_change = admin;
    if (!admin)
      *note = "You do not have the administer right here (yours: " + (mine.empty() ? "unknown" : mine.front().text) +
              "): the list is read-only.";
    // Only administrators may read the whole list.
    ACLList list;
    if (admin && !MM_FolGetACLList(ms, folder.c_str(), &list)) return false;
    if (!admin && !mine.empty()) list.push_back({"(you)", mine.front().rights, mine.front().text});
    for (const ACLEntry& e : list) rows->push_back({e.identifier, e.rights, e.text});
    return true;
  };
  owner.set = [ms, folder](const std::string& who, int flags) {
    return MM_FolAddACL(ms, folder.c_str(), who.c_str(), flags) != 0;
  };
  owner.remove = [ms, folder](const std::string& who) {
    return MM_FolDeleteACL(ms, folder.c_str(), who.c_str()) != 0;
  };
  RightsDialog(owner);
}
