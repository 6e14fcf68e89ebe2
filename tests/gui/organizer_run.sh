#!/usr/bin/env bash
# The organizer driven as a person would, under Qt's offscreen platform, on a copy of the demo home:
# open the local service, open its inbox in a window, double-click a message; the script's dump and a
# screenshot land in the build tree.  organizer_run.sh VELMAR SOURCE_DIR BUILD_DIR
set -euo pipefail
velmar=$1 source=$2 build=$(cd "$3" && pwd)
# shellcheck source=run_lib.sh
source "$(dirname "$0")/run_lib.sh"
new_home
copy_demo_home
echo 'option Debugging.Level all' >> "$home/default.tcl"
shot="$build/organizer-run.png" dump="$build/organizer-run.txt"
rm -f "$shot" "$dump"
cat > "$home/script" <<SCRIPT
$open_demo_inbox
wait 300
click INBOX - Local Folders 120 47
key ctrl+a
$(dump_and_exit)
SCRIPT
show_on_failure=("$dump")
run_velmar 60
expect_files "$shot" "$dump"
no_errors
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
