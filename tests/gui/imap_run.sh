#!/usr/bin/env bash
# A person's session against a real IMAP server, under Qt's offscreen platform:
# a private Dovecot account beside the demo's local folders; expand the account,
# open its INBOX in a window, read a message, step to the next one, delete it
# (the viewer steps on), open the message with an attachment and save it. The
# saved bytes must be the seeded ones, and after the exit (which cleans the
# folders) the deleted message must be gone from the server and only it.
# Screenshots of the organizer and the viewer land in the build tree.
#   imap_run.sh VELMAR SOURCE_DIR BUILD_DIR
set -euo pipefail
velmar=$1 source=$2 build=$(cd "$3" && pwd)
# shellcheck source=run_lib.sh
source "$(dirname "$0")/run_lib.sh"
peer="$source/tests/peers/imap-dovecot.sh"
work=$(mktemp -d)
# The server's own processes run as its users and must reach their files.
chmod 755 "$work"
home="$work/home" server="$work/server"
cleanup() {
  bash "$peer" stop "$server" >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT
mkdir -p -m 700 "$home"
mkdir -p "$server"

bash "$peer" start "$server" >"$work/env" || { echo "the private Dovecot did not start"; exit 1; }
# shellcheck disable=SC1091
source "$work/env"
bash "$peer" seed "$server" 3 INBOX

# The newest message carries a binary attachment holding every byte value.
attachment="$work/figures.bin"
python3 - "$MAILDIR/cur" "$attachment" <<'EOF'
import base64, os, sys
cur, out = sys.argv[1], sys.argv[2]
data = bytes(range(256)) * 12 + b"end of the attachment\n"
open(out, "wb").write(data)
b64 = base64.encodebytes(data).decode().replace("\n", "\r\n")
msg = ("From: Carol Sender <carol@example.org>\r\nTo: Test User <testuser@example.org>\r\n"
       "Subject: Report with an attachment\r\nDate: Wed, 15 Nov 2023 10:00:00 +0000\r\n"
       "Message-ID: <attach.1@example.org>\r\nMIME-Version: 1.0\r\n"
       "Content-Type: multipart/mixed; boundary=\"=b\"\r\n\r\n"
       "--=b\r\nContent-Type: text/plain; charset=utf-8\r\n\r\nThe figures are attached.\r\n"
       "--=b\r\nContent-Type: application/octet-stream; name=\"figures.bin\"\r\n"
       "Content-Disposition: attachment; filename=\"figures.bin\"\r\n"
       "Content-Transfer-Encoding: base64\r\n\r\n" + b64 + "--=b--\r\n").encode()
ts = 1700000100
path = os.path.join(cur, "%d.M0P1.attach,S=%d:2," % (ts, len(msg)))
open(path, "wb").write(msg)
os.utime(path, (ts, ts))
EOF
[[ $(id -u) -ne 0 ]] || chown -R "$(id -u dovecot):$(id -g dovecot)" "$MAILDIR"

copy_demo_home
cat >>"$home/default.tcl" <<EOF
option MsgService.IDList "1 2"
option MsgService.ms2.Name Work
option MsgService.ms2.Type imap
option MsgService.ms2.Hostname $HOST
option MsgService.ms2.Port $PORT
option MsgService.ms2.Userid $USER
option MsgService.ms2.Password $PASSWORD
option MsgService.ms2.Security none
option General.ExitClean Always
option Debugging.Level all
EOF

out="$build/imap-run"
saved="$out-saved.bin"
rm -f "$out"-*.txt "$out"-*.png "$saved"
# The tree's rows are 18 high below the 20 pixel column strip: in the
# organizer "Work" is the second line and its INBOX the third once expanded;
# in the folder window the newest message is the first line.
cat >"$home/script" <<SCRIPT
wait 500
click Message Organizer 80 47
key Right
wait 1500
dblclick Message Organizer 120 65
wait 1500
dblclick INBOX - Work 200 29
wait 800
dump $out-opened.txt
command 14601 INBOX : Report with an attachment
wait 800
dump $out-next.txt
command 14105 INBOX : Seeded message 3
wait 800
dump $out-deleted.txt
dblclick INBOX - Work 200 29
wait 800
file $saved
command 14622 INBOX : Report with an attachment
wait 500
screenshot $out-organizer.png
screenshot $out-viewer.png INBOX : Report with an attachment
command 32009
answer 1
SCRIPT

show_on_failure=("$out"-opened.txt "$out"-next.txt "$out"-deleted.txt)
run_velmar -k 10 90
no_errors 'xvt: error\|xvt: fatal\|cannot understand\|no window titled\|is disabled'

has() { expect "$2" "$out-$1.txt"; }
# Reading marks the message read, in the folder window and in the counts.
has opened "    INBOX (4 msgs, 2 unread)"
has opened "* Carol Sender | Report with an attachment | Nov 15 10:00 2023"
has opened "== INBOX : Report with an attachment"
has opened "  figures.bin  (application/octet-stream, 4 KB)"
has opened "The figures are attached."
# Next shows the neighbour in the same viewer; Delete steps on to the one after.
has next "== INBOX : Seeded message 3"
has next "  Sender 3 | Seeded message 3 | Nov 14 22:13 2023"
[[ $(grep -c '^== INBOX : ' "$out-next.txt") -eq 1 ]] || fail "stepping opened a second viewer"
has deleted "== INBOX : Seeded message 2"
has deleted "  Sender 3 | Seeded message 3 | Nov 14 22:13 2023 [deleted]"
has deleted "  Sender 1 | Seeded message 1 | Nov 14 22:13 2023 [unread]"

[[ -f "$saved" ]] || fail "the attachment was not saved to $saved"
cmp "$attachment" "$saved" || fail "the saved attachment differs from the one sent"
for shot in organizer viewer; do [[ -s "$out-$shot.png" ]] || fail "no screenshot $out-$shot.png"; done

# The server after the session: the deleted message went at the exit's
# clean-up, the three others are there and unchanged.
python3 - "$PORT" "$USER" "$PASSWORD" <<'EOF' || fail "the server's INBOX is not as the session left it"
import imaplib, sys
m = imaplib.IMAP4("127.0.0.1", int(sys.argv[1]))
m.login(sys.argv[2], sys.argv[3])
m.select("INBOX", readonly=True)
typ, data = m.fetch("1:*", "(FLAGS BODY.PEEK[HEADER.FIELDS (MESSAGE-ID)])")
ids = sorted(part[1].decode().split(":", 1)[1].strip() for part in data if isinstance(part, tuple))
want = sorted(["<seed.1@example.org>", "<seed.2@example.org>", "<attach.1@example.org>"])
if ids != want:
    print("server has", ids, "wanted", want)
    sys.exit(1)
EOF
echo "ok: organizer and viewer at $out-organizer.png and $out-viewer.png"
