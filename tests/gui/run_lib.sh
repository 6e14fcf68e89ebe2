# Shared by the run scripts here (sourced, never run): the real program on a
# temporary home under Qt's offscreen platform, driven by $home/script.
# A script sets velmar (the program) and, for the demo home and the SMTP
# sink, source (the source tree) before it calls these.

# A new temporary home in $home, removed at exit with the SMTP sink if one
# was started (KEEP_HOME=1 keeps both for a look afterwards).
new_home() {
  home=$(mktemp -d)
  [[ -n ${KEEP_HOME:-} ]] || trap remove_home EXIT
}
remove_home() {
  [[ -z ${smtp:-} ]] || stop_sink
  rm -rf "$home"
}

# The shipped demo home copied into DIR (default $home).
copy_demo_home() { cp -r "$source/tests/data/demo-home/." "${1:-$home}/"; }

# A private SMTP server in a temporary folder; its plain port in $port.
start_sink() {
  smtp=$(mktemp -d)
  port=$(bash "$source/tests/peers/smtp-aiosmtpd.sh" start "$smtp" | sed -n 's/^PORT=//p')
  [[ -n "$port" ]] || { echo "the SMTP sink could not start (package python3-aiosmtpd)"; exit 1; }
}
stop_sink() {
  bash "$source/tests/peers/smtp-aiosmtpd.sh" stop "$smtp" >/dev/null 2>&1 || true
  rm -rf "$smtp"
}

# Says what went wrong, shows the program's stderr and the files named in
# show_on_failure, and ends the test.
show_on_failure=()
fail() {
  echo "$1"
  cat "$home/stderr" "${show_on_failure[@]}" 2>/dev/null
  exit 1
}

# Runs velmar on $home/script (home $vhome if set, else $home) under the
# time-out whose arguments are given; fails unless it exits with 0.
#   run_velmar [timeout options] SECONDS
run_velmar() {
  local status=0
  VELMAR_HOME="${vhome:-$home}" QT_QPA_PLATFORM=offscreen VELMAR_XVT_SCRIPT="$home/script" \
    timeout "$@" "$velmar" -b 2>"$home/stderr" || status=$?
  [[ $status -eq 0 ]] || fail "velmar exited with status $status"
}

# Fails if the program's stderr shows an error or a script line it did not
# understand.  no_errors [PATTERN]
no_errors() {
  ! grep -q "${1:-xvt: error\|cannot understand}" "$home/stderr" ||
    fail "an error was shown or a line was not understood"
}

# Fails unless FILE (default $dump) has the line exactly.  expect LINE [FILE]
expect() { grep -qxF -- "$1" "${2:-$dump}" || fail "${2:-$dump} has no line \"$1\""; }

# Fails unless every file is there and not empty.
expect_files() {
  local f
  for f; do [[ -s "$f" ]] || fail "nothing at $f"; done
}
