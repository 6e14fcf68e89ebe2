// What the book tests share: entries stored and read back as short texts.
#pragma once

#include <string>
#include <vector>

#include "src/books/address_model.h"

inline std::string Joined(const std::vector<std::string>& v) {
  std::string out;
  for (const std::string& s : v) out += s + ",";
  return out;
}
// "name name*": a star marks a list.
inline std::string Names(const EntryList& list) {
  std::string out;
  for (const AddressEntry& e : list) out += (out.empty() ? "" : " ") + e.name + (e.is_list ? "*" : "");
  return out;
}
// "attribute=value;" for each attribute of the entry.
inline std::string Attrs(int id, const char* entry) {
  std::string out;
  for (const auto& [a, v] : entry_get_attributes(AddressEntry{static_cast<int16_t>(id), 0, entry}))
    out += a + "=" + v + ";";
  return out;
}
inline int Store(int id, const char* entry, const AttrList& attrs) {
  std::vector<AbPair> pairs;
  for (const auto& [a, v] : attrs) pairs.push_back({a, v});
  return Nice_imsp_io(kBookLocal, ABK_slot(id)->book, entry, pairs.data(), static_cast<int>(pairs.size()));
}
