// Keyed lists through the four commands, on an interpreter of their own.
#include <gtest/gtest.h>
#include <tcl.h>

#include <string>

#include "src/base/keyed_list.h"

namespace {

class KeyedList : public ::testing::Test {
 protected:
  void SetUp() override {
    interp_ = Tcl_CreateInterp();
    TclRegisterKeyedListCommands(interp_);
  }
  void TearDown() override { Tcl_DeleteInterp(interp_); }

  // "ok: result" or "error: result".
  std::string Eval(const std::string& script) {
    int code = Tcl_EvalEx(interp_, script.c_str(), -1, TCL_EVAL_GLOBAL);
    return std::string(code == TCL_OK ? "ok: " : "error: ") + Tcl_GetStringResult(interp_);
  }

  Tcl_Interp* interp_ = nullptr;
};

struct Case { const char* script; std::string expected; };

TEST_F(KeyedList, LookupsChangesAndErrors) {
  const Case cases[] = {
      {"keylget {{a 1} {b 2}} b", "ok: 2"},
      {"keylget {{a 1} {a 2}} a", "ok: 1"},  // the first of duplicates
      {"keylget {{a {{x 1} {y {{z deep}}}}}} a.y.z", "ok: deep"},
      {"keylget {{a {{x 1} {y 2}}}} a", "ok: {x 1} {y 2}"},
      {"keylget {{{my key} {two words}}} {my key}", "ok: two words"},
      {"keylget {{a 1}} c", "error: key \"c\" not found in keyed list"},
      {"keylget {{a {{x 1}}}} a.y", "error: key \"a.y\" not found in keyed list"},
      // With a variable: 1 and the value, or 0 and the variable untouched.
      {"set v old; list [keylget {{a 1}} a v] $v", "ok: 1 1"},
      {"set v old; list [keylget {{a 1}} b v] $v", "ok: 0 old"},
      {"list [keylget {{a 1}} a {}] [info exists {}]", "ok: 1 0"},
      {"keylkeys {{a 1} {b {{c 3} {d 4}}}}", "ok: a b"},
      {"keylkeys {{a 1} {b {{c 3} {d 4}}}} b", "ok: c d"},
      {"keylkeys {{a 1}} z", "error: key \"z\" not found in keyed list"},
      // Changes.
      {"set l {}; keylset l a 1; set l", "ok: {a 1}"},
      {"unset -nocomplain l; keylset l a 1 b.c 2; set l", "ok: {a 1} {b {{c 2}}}"},
      {"set l {{a 1} {b 2}}; keylset l a x; set l", "ok: {a x} {b 2}"},
      {"set l {{a {{x 1}}}}; keylset l a.y 2; set l", "ok: {a {{x 1} {y 2}}}"},
      // Values and keys are data, never scripts.
      {"set l {}; keylset l {k [set hit 1]} {[set hit 2]}; list [keylget $l {k [set hit 1]}] [info exists hit]",
       "ok: {[set hit 2]} 0"},
      {"set l {{a 1} {b {{c 3} {d 4}}}}; keyldel l b.c; set l", "ok: {a 1} {b {{d 4}}}"},
      {"set l {{a 1} {b 2} {a 3}}; keyldel l a; set l", "ok: {b 2}"},
      {"set l {{a 1}}; list [catch {keyldel l b} m] $m $l", "ok: 1 {key \"b\" not found in keyed list} {{a 1}}"},
      {"set l {{a 1}}; list [catch {keyldel l a.b} m] $l", "ok: 1 {{a 1}}"},
      {"unset -nocomplain nothing; catch {keyldel nothing a} m; set m", "ok: can't read \"nothing\": no such variable"},
      // Array elements work as list variables (the windows array is one).
      {"keylset w(x) windowptr 0x1 kidlist {}; keylget $w(x) windowptr", "ok: 0x1"},
      // Errors are reported and lose nothing.
      {"keylget {{a 1} {}} a", "error: invalid keyed list format: list contains an empty field entry"},
      {"keylget {{{} 1}} a", "error: invalid keyed list format: list contains an empty field name"},
      {"keylget {{a 1} b} a", "error: field name scoping: no value associated with \"b\""},
      {"keylget {{a 1 2}} a", "error: trailing data following value in field: \"a\""},
      {"keylget \"{a 1\" a", "error: invalid keyed list format: {a 1"},
      {"keylget {{a {b}c}} a", "error: invalid keyed list format: a {b}c"},
      {"keylget {{a plain}} a.b",
       "error: invalid keyed list format or inconsistent field name scoping: \"a\" does not hold a keyed list"},
      {"keylkeys {{a plain}} a",
       "error: invalid keyed list format or inconsistent field name scoping: \"a\" does not hold a keyed list"},
      {"keylget {{a 1}} {}", "error: null key not allowed"},
      {"keylget {{a 1}} a..b", "error: null key not allowed"},
      {"keylkeys {{a 1}} {}", "error: null key not allowed"},
      {"set l {}; keylset l {} 1", "error: null key not allowed"},
      {"keylget {} [string repeat a. 32]a", "error: keyed list key has more than 32 levels"},
      {"keylget {} [string repeat k 1025]", "error: keyed list key is longer than 1024 bytes"},
      // Long bad data is shown cut short.
      {"keylget \"{[string repeat x 100]\" a", "error: invalid keyed list format: {" + std::string(59, 'x') + "..."},
      {"keylget {} a v extra", "error: keylget: wrong # of args"},
      {"keylkeys", "error: keylkeys: wrong # of args"},
      {"keylset l a 1 b", "error: keylset: wrong # of args"},
      {"keyldel l", "error: keyldel: wrong # of args"},
  };
  for (const Case& c : cases) EXPECT_EQ(Eval(c.script), c.expected) << c.script;

  // A failing keylset leaves the variable as it was, even when earlier pairs of the same call were fine.
  EXPECT_EQ(Eval("set l {{a plain}}; catch {keylset l b 1 a.x 2}; set l"), "ok: {a plain}");
  EXPECT_EQ(Eval("set l {{a 1} {}}; catch {keyldel l a}; set l"), "ok: {a 1} {}");
  // 32 levels are fine.
  EXPECT_EQ(Eval("set l {}; keylset l [string repeat a. 31]a v; keylget $l [string repeat a. 31]a"), "ok: v");
}

}  // namespace
