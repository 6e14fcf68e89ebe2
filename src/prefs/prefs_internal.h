// What the pages of the preferences share: the layout of a row, the record
// of each message service being edited, and the services page's calls.
#pragma once

#include <string>
#include <vector>

#include "xvt/xvt.h"

// A row of a page: label at the left, control at the right.
constexpr int kPrefPageLeft = 196;
constexpr int kPrefLabelRight = 344;
constexpr int kPrefControlLeft = 350;
constexpr int kPrefPageRight = 648;
constexpr int kPrefNumberWidth = 90;
constexpr int kPrefRowHeight = 34;
constexpr int kPrefTop = 14;
inline int PrefRowTop(int row) { return kPrefTop + row * kPrefRowHeight; }

// Longest text a field of the preferences takes: a setting, not a document.
constexpr size_t kPrefFieldLimit = 1000;

// The fields of a service, in the order of its option keys.
enum ServiceField { kSvfName, kSvfType, kSvfHost, kSvfPort, kSvfSecurity, kSvfUser, kSvfLocation, kSvfCount };
extern const char* const kServiceKeys[kSvfCount];

struct PrefService {
  int number = 0;
  bool added = false;
  bool deleted = false;
  std::string value[kSvfCount];   // as the dialog shows them
  std::string loaded[kSvfCount];  // as they were read; empty for a new one
};

std::string PrefServiceKey(int number, int field);
std::vector<PrefService> PrefServicesLoad();
void PrefServicesFill(WINDOW dlg, const std::vector<PrefService>& services);
// Add, Edit and Delete of the services page.
void PrefServicesCommand(WINDOW dlg, int id, std::vector<PrefService>* services);
// Whether OK has anything of the services to assign.
bool PrefServicesChanged(const std::vector<PrefService>& services);
// Assigns what changed at the permanent level and tells the model and the
// windows; afterwards the records describe what is stored.
void PrefServicesApply(std::vector<PrefService>* services);

// An integer field: true and the value when the text is one in [min, max].
bool PrefParseNumber(const std::string& text, int min, int max, int* out);
