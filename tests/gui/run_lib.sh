# Shared by the run scripts here (sourced): velmar under Qt's offscreen
# platform on a temporary home, driven by $home/script. The caller sets
# velmar, and source (the source tree) for the demo home and the SMTP sink.

# $home, removed at exit with the SMTP sink if any (KEEP_HOME=1 keeps both).
new_home() {
  home=$(mktemp -d)
  [[ -n ${KEEP_HOME:-} ]] || trap '[[ -z ${smtp:-} ]] || stop_sink; rm -rf "$home"' EXIT
}
# Script lines opening the demo's local service (the tree's first row, below
# the 20 pixel column strip; rows 18 high), then its INBOX in a window.
open_demo_inbox="wait 500
click Message Organizer 80 29
key Right
wait 200
key Down
dismiss
key Return
wait 500
dblclick INBOX - Local Folders 120 47"
# Script lines writing $dump and a screenshot of the screen to $shot, then File > Exit, confirmed.
dump_and_exit() { printf 'dump %s\nscreenshot %s screen\ncommand 32009\nanswer 1\n' "$dump" "$shot"; }
copy_demo_home() { cp -r "$source/tests/data/demo-home/." "${1:-$home}/"; }

# A private SMTP server; its plain port in $port.
start_sink() {
  smtp=$(mktemp -d)
  port=$(bash "$source/tests/peers/smtp-aiosmtpd.sh" start "$smtp" | sed -n 's/^PORT=//p')
  [[ -n "$port" ]] || { echo "the SMTP sink could not start (package python3-aiosmtpd)"; exit 1; }
}
stop_sink() {
  bash "$source/tests/peers/smtp-aiosmtpd.sh" stop "$smtp" >/dev/null 2>&1 || true
  rm -rf "$smtp"
}

show_on_failure=()  # files shown after stderr when the test fails
fail() {
  echo "$1"
  cat "$home/stderr" "${show_on_failure[@]}" 2>/dev/null
  exit 1
}

# velmar on $vhome (else $home) must exit with 0 within the time-out.
#   run_velmar [timeout options] SECONDS
run_velmar() {
  local status=0
  VELMAR_HOME="${vhome:-$home}" QT_QPA_PLATFORM=offscreen VELMAR_XVT_SCRIPT="$home/script" \
    timeout "$@" "$velmar" -b 2>"$home/stderr" || status=$?
  [[ $status -eq 0 ]] || fail "velmar exited with status $status"
}

no_errors() {  # [PATTERN]: nothing on stderr says an error or a line not understood
  ! grep -q "${1:-xvt: error\|cannot understand}" "$home/stderr" ||
    fail "an error was shown or a line was not understood"
}
expect() { grep -qxF -- "$1" "${2:-$dump}" || fail "${2:-$dump} has no line \"$1\""; }
expect_files() {
  local f
  for f; do [[ -s "$f" ]] || fail "nothing at $f"; done
}
