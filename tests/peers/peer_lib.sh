# Shared by the peer scripts here (sourced, never run; plain sh, so that the
# sh scripts can use it too). Before sourcing, a script sets PEER_NAME (its
# name in messages) and PEER_USAGE (its arguments, for the usage line).

die() { echo "$PEER_NAME: $*" >&2; exit 1; }
usage() { echo "usage: $PEER_NAME $PEER_USAGE" >&2; exit 2; }

# CMD must be on the PATH; PACKAGE is what provides it.
need() { command -v "$1" >/dev/null 2>&1 || die "$1 is not installed: install the package $2"; }

# N distinct free loopback ports (default 2). The kernel picks them; they
# are released before the server binds them, so a start retries on a clash.
free_ports() {
  "${PY:-python3}" -c 'import socket, sys
s = [socket.socket() for _ in range(int(sys.argv[1]))]
for x in s: x.bind(("127.0.0.1", 0))
print(*(x.getsockname()[1] for x in s))' "${1:-2}"
}

# The server's directory as an absolute path: DIR (made if missing), or a
# new temporary one named after PREFIX.  server_dir PREFIX [DIR]
server_dir() {
  if [ $# -ge 2 ]; then mkdir -p "$2" && (cd "$2" && pwd); else mktemp -d "${TMPDIR:-/tmp}/$1.XXXXXX"; fi
}

# Refuses a second server in the directory of PIDFILE while the first runs.
not_running() {
  if [ -f "$1" ] && kill -0 "$(cat "$1")" 2>/dev/null; then
    die "a server is already running in $(dirname "$1") (pid $(cat "$1"))"
  fi
}

# A self-signed certificate for 127.0.0.1 and localhost in DIR/cert.pem,
# its key in DIR/key.pem; made once per directory.
self_signed() {
  [ ! -f "$1/cert.pem" ] || return 0
  mkdir -p "$1/log"
  openssl req -x509 -newkey rsa:2048 -nodes -days 30 -subj "/CN=127.0.0.1" \
    -addext "subjectAltName=IP:127.0.0.1,DNS:localhost" \
    -keyout "$1/key.pem" -out "$1/cert.pem" >"$1/log/openssl.log" 2>&1 ||
    die "openssl could not make the test certificate (see $1/log/openssl.log)"
  chmod 600 "$1/key.pem"
}

# Running, and not a zombie waiting for a parent that never reaps (a
# container's init may not).
alive() {
  kill -0 "$1" 2>/dev/null || return 1
  [ "$(sed -n 's/^State:[[:space:]]*\([A-Z]\).*/\1/p' "/proc/$1/status" 2>/dev/null)" != Z ]
}

# Waits up to SECONDS for the server PID to pass PROBE (a command and its
# arguments, tried every tenth of a second); false once PID has ended or
# the time is up.  wait_ready PID SECONDS PROBE...
wait_ready() {
  _pid=$1 _tenths=$(($2 * 10)) _n=0
  shift 2
  while [ $_n -lt $_tenths ]; do
    kill -0 "$_pid" 2>/dev/null || return 1
    "$@" && return 0
    sleep 0.1
    _n=$((_n + 1))
  done
  return 1
}

# Stops the server recorded in PIDFILE, and only if its command line holds
# MARK, so that a pid taken over by another process is never hit: TERM, up
# to SECONDS to go, then KILL. With "group", what is left of its process
# group goes too.  stop_recorded PIDFILE MARK SECONDS [group]
stop_recorded() {
  [ -f "$1" ] || { echo "$PEER_NAME: no server recorded in $(dirname "$1")" >&2; return 0; }
  _pid=$(cat "$1")
  if kill -0 "$_pid" 2>/dev/null && tr '\0' ' ' <"/proc/$_pid/cmdline" 2>/dev/null | grep -qF -- "$2"; then
    kill -TERM "$_pid" 2>/dev/null || true
    _n=0
    while [ $_n -lt $(($3 * 10)) ] && alive "$_pid"; do
      sleep 0.1
      _n=$((_n + 1))
    done
    if alive "$_pid"; then
      echo "$PEER_NAME: server $_pid did not stop in $3 s; killing it" >&2
      kill -KILL "$_pid" 2>/dev/null || true
    fi
    if [ "${4:-}" = group ]; then kill -TERM -- "-$_pid" 2>/dev/null || true; fi
  fi
  rm -f "$1"
}

# Writes the KEY=VALUE lines to DIR/env and prints them.  print_env DIR LINE...
print_env() {
  _dir=$1
  shift
  printf '%s\n' "$@" >"$_dir/env"
  cat "$_dir/env"
}
