#!/usr/bin/env bash
# The real program on a fresh home under Qt's offscreen platform, driven by a script; leaves a screenshot
# in the build tree.  offscreen_run.sh VELMAR BUILD_DIR MODE
#   setup  an empty home: the setup window comes up and closes.
#   exit   a user's home: the organizer, File > Exit, the exit question, and the shutdown traces in order.
#   term   the same home with the exit question left unanswered: SIGTERM still ends the program in order.
set -euo pipefail
velmar=$1 build=$2 mode=$3
# shellcheck source=run_lib.sh
source "$(dirname "$0")/run_lib.sh"
new_home
shot="$build/velmar-$mode.png"
rm -f "$shot"
vhome=$home/velmar
printf 'wait 500\nscreenshot %s\nclose\nanswer 1\n' "$shot" > "$home/script"
if [[ $mode == exit || $mode == term ]]; then
  vhome=$home
  printf 'option General.Fullname "Test User"\noption General.MailAddress test@example.org\n%s\n' \
    'option Debugging.Level all' > "$home/default.tcl"
  printf 'wait 500\nscreenshot %s\ncommand 32009\nanswer 1\n' "$shot" > "$home/script"
  [[ $mode == exit ]] || printf 'wait 500\nscreenshot %s\ncommand 32009\n' "$shot" > "$home/script"
fi
show_on_failure=("$home/debug.txt")
if [[ $mode == term ]]; then
  status=0
  VELMAR_HOME="$vhome" QT_QPA_PLATFORM=offscreen VELMAR_XVT_SCRIPT="$home/script" "$velmar" -b 2>"$home/stderr" &
  pid=$!
  # The question is up once it is on stderr; then the session ends.
  for _ in $(seq 100); do grep -q 'xvt: ask: Are you sure' "$home/stderr" 2>/dev/null && break; sleep 0.1; done
  kill -TERM "$pid"
  for _ in $(seq 150); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
  if kill -0 "$pid" 2>/dev/null; then kill -KILL "$pid"; fail "SIGTERM did not end the program while a question was up"; fi
  wait "$pid" || status=$?
  [[ $status -eq 0 ]] || fail "velmar exited with status $status"
else
  run_velmar 60
fi
expect_files "$shot"
no_errors 'xvt: error'
[[ $mode == exit ]] || { echo "ok: setup window at $shot"; exit 0; }
grep -q 'xvt: ask: Are you sure you want to exit Velmar?' "$home/stderr" || fail "the exit question was not asked"
last=0
[[ $mode == exit ]] || for line in "ShutdownWorkspace : posting E_ABANDON_SHIP" "ShutdownWorkspace : posting E_SHIP_SUNK"; do
  grep -q -F "$line" "$home/debug.txt" || fail "no orderly shutdown after SIGTERM: $line"
done
[[ $mode == exit ]] || { echo "ok: SIGTERM ended the program in order with a question up"; exit 0; }
for line in "Shutdown_Prompt: function entry" "ShutdownWorkspace : posting E_ABANDON_SHIP" \
            "ShutdownWorkspace : posting E_SHIP_SUNK" "main.c : task_eh - E_DESTROY" "Debug tracing terminated at"; do
  n=$(grep -n -F "$line" "$home/debug.txt" | head -1 | cut -d: -f1)
  [[ -n "$n" && "$n" -gt "$last" ]] || fail "trace line missing or out of order: $line"
  last=$n
done
echo "ok: clean exit, screenshot at $shot"
