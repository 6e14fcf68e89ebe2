#!/usr/bin/env bash
# The real program on a fresh home under Qt's offscreen platform, driven by a script; leaves a screenshot
# in the build tree.  offscreen_run.sh VELMAR BUILD_DIR MODE
#   setup  an empty home: the setup window comes up and closes.
#   exit   a user's home: the organizer, File > Exit, the exit question, and the shutdown traces in order.
set -euo pipefail
velmar=$1 build=$2 mode=$3
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
shot="$build/velmar-$mode.png"
rm -f "$shot"
vhome=$home/velmar
printf 'wait 500\nscreenshot %s\nclose\nanswer 1\n' "$shot" > "$home/script"
if [[ $mode == exit ]]; then
  vhome=$home
  printf 'option General.Fullname "Test User"\noption General.MailAddress test@example.org\n%s\n' \
    'option Debugging.Level all' > "$home/default.tcl"
  printf 'wait 500\nscreenshot %s\ncommand 32009\nanswer 1\n' "$shot" > "$home/script"
fi
fail() { echo "$1"; cat "$home/stderr" "$home/debug.txt" 2>/dev/null; exit 1; }
status=0
VELMAR_HOME="$vhome" QT_QPA_PLATFORM=offscreen VELMAR_XVT_SCRIPT="$home/script" \
  timeout 60 "$velmar" -b 2>"$home/stderr" || status=$?
[[ $status -eq 0 ]] || fail "velmar exited with status $status"
[[ -s "$shot" ]] || fail "no screenshot at $shot"
! grep -q 'xvt: error' "$home/stderr" || fail "an error was shown"
[[ $mode == exit ]] || { echo "ok: setup window at $shot"; exit 0; }
grep -q 'xvt: ask: Are you sure you want to exit Velmar?' "$home/stderr" || fail "the exit question was not asked"
last=0
for line in "Shutdown_Prompt: function entry" "ShutdownWorkspace : posting E_ABANDON_SHIP" \
            "ShutdownWorkspace : posting E_SHIP_SUNK" "main.c : task_eh - E_DESTROY" "Debug tracing terminated at"; do
  n=$(grep -n -F "$line" "$home/debug.txt" | head -1 | cut -d: -f1)
  [[ -n "$n" && "$n" -gt "$last" ]] || fail "trace line missing or out of order: $line"
  last=$n
done
echo "ok: clean exit, screenshot at $shot"
