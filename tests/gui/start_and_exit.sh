#!/usr/bin/env bash
# Starts velmar on a fresh home under Qt's offscreen platform, takes a
# screenshot of the task window, chooses File > Exit, answers the exit
# question, and checks a clean exit with the shutdown traces in order.
set -euo pipefail
velmar=$1 build=$2
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
shot="$build/velmar-gui-test.png"
rm -f "$shot"
# A name and address make the start go to the organizer rather than setup.
cat > "$home/default.tcl" <<'TCL'
option General.Fullname "Test User"
option General.MailAddress test@example.org
option Debugging.Level all
TCL
cat > "$home/script" <<SCRIPT
wait 500
screenshot $shot
command 32009
answer 1
SCRIPT
status=0
VELMAR_HOME="$home" QT_QPA_PLATFORM=offscreen VELMAR_XVT_SCRIPT="$home/script" \
  timeout 60 "$velmar" -b 2>"$home/stderr" || status=$?
if [[ $status -ne 0 ]]; then
  echo "velmar exited with status $status"; cat "$home/stderr"; exit 1
fi
[[ -s "$shot" ]] || { echo "no screenshot at $shot"; cat "$home/stderr"; exit 1; }
grep -q 'xvt: ask: Are you sure you want to exit Velmar?' "$home/stderr" || {
  echo "the exit question was not asked"; cat "$home/stderr"; exit 1; }
trace="$home/debug.txt"
[[ -f "$trace" ]] || { echo "no debug.txt"; exit 1; }
# The shutdown traces, in this order.
expected=("Shutdown_Prompt: function entry" "Shutdown: function entry" "ShutdownWorkspace: function entry."
          "ShutdownWorkspace : posting E_ABANDON_SHIP" "ShutdownWorkspace : posting E_SHIP_SUNK"
          "main.c : task_eh - E_DESTROY" "Debug tracing terminated at")
last=0
for line in "${expected[@]}"; do
  n=$(grep -n -F "$line" "$trace" | head -1 | cut -d: -f1)
  if [[ -z "$n" || "$n" -le "$last" ]]; then
    echo "trace line missing or out of order: $line"; cat "$trace"; exit 1
  fi
  last=$n
done
echo "ok: clean exit, screenshot at $shot"
