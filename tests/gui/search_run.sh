#!/usr/bin/env bash
# A saved search looked at as a person would, under Qt's offscreen platform, on a copy of the demo home
# with one search over INBOX and Work: its line in the top window, then a double click that opens its
# window. Screenshots and the dump land in the build tree.  search_run.sh VELMAR SOURCE_DIR BUILD_DIR
set -euo pipefail
velmar=$1 source=$2 build=$(cd "$3" && pwd)
# shellcheck source=run_lib.sh
source "$(dirname "$0")/run_lib.sh"
new_home
copy_demo_home
cat >> "$home/default.tcl" <<'OPT'
option Debugging.Level all
option Search.IMAP.IDList 1
option Search.IMAP.1.Name Builds
option Search.IMAP.1.Rule "SUBJECT \"Build\""
option Search.IMAP.1.Target Message
option FolderID.IDList "1 2"
option FolderID.1.MS 1
option FolderID.1.Name INBOX
option FolderID.2.MS 1
option FolderID.2.Name Work
option MsgSearch.IMAP.IDList 1
option MsgSearch.IMAP.1.Name "Build news"
option MsgSearch.IMAP.1.Scope "1 2"
option MsgSearch.IMAP.1.SearchIDList 1
OPT
top="$build/search-run-top.png" shot="$build/search-run.png" dump="$build/search-run.txt"
rm -f "$top" "$shot" "$dump"
# The search's line is the second row of the tree, below the 20 pixel column strip; rows are 18 high.
cat > "$home/script" <<SCRIPT
wait 500
screenshot $top
dblclick Message Organizer 120 47
dismiss
dismiss
wait 1000
$(dump_and_exit)
SCRIPT
show_on_failure=("$dump")
run_velmar 60
expect_files "$top" "$shot" "$dump"
no_errors
expect "  Build news (3 msgs)"
expect "== Search : Build news"
expect "  Ivan | Build is green again | Nov 15 10:14 2026 [unread]"
expect "  Judy | Re: Build is green again | Nov 14 11:21 2026 [unread]"
[[ $(grep -c ' | .* | ' "$dump") -eq 3 ]] || fail "not three message rows"
echo "ok: search at $shot, dump at $dump"
