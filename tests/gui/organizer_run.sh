#!/usr/bin/env bash
# The organizer driven as a person would, under Qt's offscreen platform, on a copy of the demo home:
# open the local service, open its inbox in a window, double-click a message; the script's dump and a
# screenshot land in the build tree.  organizer_run.sh VELMAR SOURCE_DIR BUILD_DIR
set -euo pipefail
velmar=$1 source=$2 build=$(cd "$3" && pwd)
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
cp -r "$source/tests/data/demo-home/." "$home/"
echo 'option Debugging.Level all' >> "$home/default.tcl"
shot="$build/organizer-run.png" dump="$build/organizer-run.txt"
rm -f "$shot" "$dump"
# The service's line is the first row of the tree, below the 20 pixel column strip; rows are 18 high.
cat > "$home/script" <<SCRIPT
wait 500
click Message Organizer 80 29
key Right
wait 200
key Down
dismiss
key Return
wait 500
dblclick INBOX - Local Folders 120 47
wait 300
click INBOX - Local Folders 120 47
key ctrl+a
dump $dump
screenshot $shot screen
command 32009
answer 1
SCRIPT
fail() { echo "$1"; cat "$home/stderr" "$dump" 2>/dev/null; exit 1; }
status=0
VELMAR_HOME="$home" QT_QPA_PLATFORM=offscreen VELMAR_XVT_SCRIPT="$home/script" \
  timeout 60 "$velmar" -b 2>"$home/stderr" || status=$?
[[ $status -eq 0 ]] || fail "velmar exited with status $status"
[[ -s "$shot" ]] || fail "no screenshot at $shot"
[[ -s "$dump" ]] || fail "no dump at $dump"
! grep -q 'xvt: error\|cannot understand' "$home/stderr" || fail "an error was shown or a line was not understood"
expect() { grep -qxF -- "$1" "$dump" || fail "the dump has no row \"$1\""; }
expect "== Message Organizer"
expect "  Local Folders"
grep -q '^    INBOX (30 msgs' "$dump" || fail "the dump has no INBOX row with its 30 messages"
expect "== INBOX - Local Folders"
# Ctrl+A selected every message of the folder window; the double click
# opened the second newest in a viewer, which shows its header and text.
[[ $(grep -c '^\* .* | .* | ' "$dump") -eq 30 ]] || fail "not thirty selected message rows"
grep -qF '* Ann Example | Minutes of the meeting — and the slides |' "$dump" || fail "the subject is not decoded"
expect "== INBOX : Minutes of the meeting — and the slides"
grep -q '^From: *Ann Example' "$dump" || fail "the viewer shows no sender"
n=$(grep -n 'messageHandleNodeEvent: open message' "$home/debug.txt" | wc -l)
[[ $n -eq 1 ]] || fail "the double click opened $n messages"
echo "ok: organizer at $shot, dump at $dump"
