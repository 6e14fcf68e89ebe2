#!/usr/bin/env bash
# A reply written as a person would, under Qt's offscreen platform, on a copy of the demo home: open the
# inbox, open a message in a viewer, Reply, type, Send to a private SMTP server; the delivered bytes, the
# sent-mail copy in the organizer, the dumps and screenshots land in the build tree.
#   compose_run.sh VELMAR SOURCE_DIR BUILD_DIR
set -euo pipefail
velmar=$1 source=$2 build=$(cd "$3" && pwd)
# shellcheck source=run_lib.sh
source "$(dirname "$0")/run_lib.sh"
new_home
start_sink
copy_demo_home
cat >> "$home/default.tcl" <<OPTIONS
option Debugging.Level all
option General.DeliveryHost 127.0.0.1:$port/notls
option Compose.SentmailFolder "Local Folders!Work"
option Compose.SaveOutgoing TRUE
option Reply.Text Always
option Reply.All Never
OPTIONS
shot1="$build/compose-run-reply.png" shot2="$build/compose-run-sent.png"
dump1="$build/compose-run-reply.txt" dump2="$build/compose-run-sent.txt"
rm -f "$shot1" "$shot2" "$dump1" "$dump2"
cat > "$home/script" <<SCRIPT
$open_demo_inbox
wait 500
command 14604
wait 500
type Thanks, I will bring the slides.
key Return
wait 300
dump $dump1
screenshot $shot1 screen
command 14401
wait 1500
click Message Organizer 80 29
key Down
key Down
key Down
key Right
wait 500
dump $dump2
screenshot $shot2 screen
command 32009
answer 1
SCRIPT
show_on_failure=("$dump1" "$dump2")
run_velmar 90
expect_files "$shot1" "$shot2" "$dump1" "$dump2"
no_errors
expect "== Reply" "$dump1"
grep -qF "Subject: Re: Minutes of the meeting" "$dump1" || fail "the reply has no Re: subject"
grep -qF "Thanks, I will bring the slides." "$dump1" || fail "the typed text is not in the window"
grep -qE "^> " "$dump1" || fail "the original is not quoted"
mail="$smtp/mail/000001.eml"
[[ -s "$mail" ]] || fail "nothing reached the SMTP server"
# "Re: Minutes of the meeting", encoded for its dash.
grep -q "^Subject: =?UTF-8?B?UmU6IE1pbnV0ZXMgb2YgdGhlIG1lZXRpbmcg" "$mail" || fail "the delivered subject is wrong"
grep -q "^To: Ann Example <ann@example.org>" "$mail" || fail "the reply is not addressed to the sender"
grep -qF "Thanks, I will bring the slides." "$mail" || fail "the typed text was not delivered"
! grep -qxF "== Reply" "$dump2" || fail "the compose window is still open after Send"
# Work holds four demo messages; the fifth is the sent-mail copy.
grep -q "^\*\?  *Work (5 msgs" "$dump2" || fail "the organizer does not count the sent-mail copy in Work"
grep -qF "To: Ann Example | Re: Minutes of the meeting — and the slides |" "$dump2" ||
  fail "the sent-mail copy is not listed under Work"
[[ -z "$(ls -A "$home/autosave" 2>/dev/null)" ]] || fail "an autosave file was left behind"
echo "ok: reply delivered; screenshots $shot1 $shot2; dumps $dump1 $dump2"
