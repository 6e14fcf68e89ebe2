#!/usr/bin/env bash
# scripts/check-layers passes on the tree and fails on each planted break:
# an upward include in the program, one in the mail layer, a backend named by
# program code, and a folder with no layer.
set -u
top=$(cd "$(dirname "$0")/../.." && pwd)
check=$top/scripts/check-layers
fail=0
"$check" "$top" >/dev/null || { echo "FAIL: the tree itself breaks the layers"; "$check" "$top"; fail=1; }

plant() {  # file include expected-word
  local tmp; tmp=$(mktemp -d)
  mkdir -p "$tmp/$(dirname "$1")"
  printf '#include "%s"\n' "$2" >"$tmp/$1"
  out=$("$check" "$tmp" 2>&1); rc=$?
  if [[ $rc -eq 0 || "$out" != *"$3"* ]]; then echo "FAIL: $1 including $2 was not caught ($out)"; fail=1; fi
  rm -rf "$tmp"
}
plant src/base/trace.cc src/app/workspace.h "higher layer"
plant src/options/option_store.cc src/model/mm.h "higher layer"
plant c-client/core/mail.cc c-client/mh/mh.h "higher layer"
plant c-client/net/tcp.cc src/base/trace.h "higher layer"
plant src/organizer/tree.cc xvt/qt/qt_internal.h "higher layer"
plant src/newthing/x.cc src/base/trace.h "in no layer"

# Downward and sideways-in-layer includes pass, and tests may include anything.
tmp=$(mktemp -d)
mkdir -p "$tmp/src/app" "$tmp/tests/base"
printf '#include "src/base/trace.h"\n#include "c-client/core/mail.h"\n' >"$tmp/src/app/task.cc"
printf '#include "src/app/workspace.h"\n#include "xvt/xvt_test.h"\n' >"$tmp/tests/base/t.cc"
"$check" "$tmp" >/dev/null || { echo "FAIL: a downward include was refused"; fail=1; }
rm -rf "$tmp"
[[ $fail -eq 0 ]] && echo "check-layers: all planted breaks caught"
exit $fail
