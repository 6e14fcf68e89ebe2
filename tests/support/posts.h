// The toolkit's posts as the user met them: kind and text, one per line
// ("error: text", "ask: text").
#pragma once

#include <string>

#include "xvt/xvt_test.h"

inline std::string Posts() {
  std::string out;
  for (const XvtPost& p : xvt_test_posts()) out += p.kind + ": " + p.text + "\n";
  return out;
}
