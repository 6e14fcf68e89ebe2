# Shared by the peer scripts here; sourced, in plain sh for the sh ones.
# Messages name the script; PEER_USAGE (the arguments) may be set first.
PEER_NAME=$(basename "$0")
PEER_USAGE=${PEER_USAGE:-"start [DIR] | stop DIR"}

die() { echo "$PEER_NAME: $*" >&2; exit 1; }
usage() { echo "usage: $PEER_NAME $PEER_USAGE" >&2; exit 2; }
need() { command -v "$1" >/dev/null 2>&1 || die "$1 is not installed: install the package $2"; }
find_sbin() {  # NAME PACKAGE: a server's path; /usr/sbin is often not on a user's PATH
  command -v "$1" 2>/dev/null || { [ -x "/usr/sbin/$1" ] && echo "/usr/sbin/$1"; } ||
    die "$1 is not installed: install the package $2 (scripts/install-deps does)"
}

# Two free loopback ports, picked by the kernel. They are released before
# the server binds them, so a start retries on the rare clash.
free_ports() {
  "${PY:-python3}" -c 'import socket
s = [socket.socket() for _ in range(2)]
for x in s: x.bind(("127.0.0.1", 0))
print(*(x.getsockname()[1] for x in s))'
}

# DIR made and given as an absolute path, or a new temporary one.  server_dir PREFIX [DIR]
server_dir() {
  if [ $# -ge 2 ]; then mkdir -p "$2" && (cd "$2" && pwd); else mktemp -d "${TMPDIR:-/tmp}/$1.XXXXXX"; fi
}

not_running() {  # PIDFILE
  if [ -f "$1" ] && kill -0 "$(cat "$1")" 2>/dev/null; then
    die "a server is already running in $(dirname "$1") (pid $(cat "$1"))"
  fi
}

# DIR/cert.pem (self-signed for 127.0.0.1 and localhost, or for PEER_CERT_HOST
# alone when it is set) and DIR/key.pem, once.
self_signed() {
  [ ! -f "$1/cert.pem" ] || return 0
  mkdir -p "$1/log"
  local host=${PEER_CERT_HOST:-}
  openssl req -x509 -newkey rsa:2048 -nodes -days 30 -subj "/CN=${host:-127.0.0.1}" \
    -addext "subjectAltName=${host:+DNS:$host}${host:-IP:127.0.0.1,DNS:localhost}" \
    -keyout "$1/key.pem" -out "$1/cert.pem" >"$1/log/openssl.log" 2>&1 ||
    die "openssl could not make the test certificate (see $1/log/openssl.log)"
  chmod 600 "$1/key.pem"
}

# Running and not a zombie (a container's init may never reap it).
alive() {
  kill -0 "$1" 2>/dev/null &&
    [ "$(sed -n 's/^State:[[:space:]]*\([A-Z]\).*/\1/p' "/proc/$1/status" 2>/dev/null)" != Z ]
}

# True once PROBE passes (tried every 0.1 s); false when PID ends or time is up.
#   wait_ready PID SECONDS PROBE...
wait_ready() {
  _pid=$1 _n=$(($2 * 10))
  shift 2
  while [ $_n -gt 0 ] && kill -0 "$_pid" 2>/dev/null; do
    "$@" && return 0
    sleep 0.1
    _n=$((_n - 1))
  done
  return 1
}

# Stops the recorded server only if its command line holds MARK, so that a
# reused pid is never hit: TERM, SECONDS to go, then KILL; "group" also ends
# what is left of its process group.  stop_recorded PIDFILE MARK SECONDS [group]
stop_recorded() {
  [ -f "$1" ] || { echo "$PEER_NAME: no server recorded in $(dirname "$1")" >&2; return 0; }
  _pid=$(cat "$1") _n=$(($3 * 10))
  if kill -0 "$_pid" 2>/dev/null && tr '\0' ' ' <"/proc/$_pid/cmdline" 2>/dev/null | grep -qF -- "$2"; then
    kill -TERM "$_pid" 2>/dev/null || true
    while [ $_n -gt 0 ] && alive "$_pid"; do sleep 0.1 && _n=$((_n - 1)); done
    if alive "$_pid"; then
      echo "$PEER_NAME: server $_pid did not stop in $3 s; killing it" >&2
      kill -KILL "$_pid" 2>/dev/null || true
    fi
    if [ "${4:-}" = group ]; then kill -TERM -- "-$_pid" 2>/dev/null || true; fi
  fi
  rm -f "$1"
}

print_env() {  # DIR KEY=VALUE...: to DIR/env and to stdout
  _dir=$1
  shift
  printf '%s\n' "$@" | tee "$_dir/env"
}

# Starts a server on two free ports and waits until it answers, three tries
# in all: the likely failure is a port taken between our choice and the
# server's bind. LAUNCH PORT SSLPORT starts it in the background (in a
# process group of its own when it has children); READY PORT probes it.
# Sets PORT, SSLPORT and PID, the pid also in PIDFILE; when it never
# answers, shows the tail of LOGS and exits.
#   start_on_free_ports PIDFILE SECONDS "LOGS" LAUNCH READY
start_on_free_ports() {
  _pidfile=$1 _secs=$2 _logs=$3 _try=0
  while [ $_try -lt 3 ]; do
    _try=$((_try + 1))
    read -r PORT SSLPORT <<EOF_PORTS
$(free_ports)
EOF_PORTS
    "$4" "$PORT" "$SSLPORT"
    PID=$!
    echo "$PID" >"$_pidfile"
    wait_ready "$PID" "$_secs" "$5" "$PORT" && return 0
    { kill -TERM -- "-$PID" || kill -TERM "$PID"; wait "$PID"; } 2>/dev/null || true
  done
  rm -f "$_pidfile"
  echo "$PEER_NAME: the server did not answer within ${_secs}s; its log:" >&2
  # shellcheck disable=SC2086
  tail -n 20 $_logs >&2 || true
  exit 1
}

# The command line of a peer script: start [DIR], stop DIR, or another
# command the script defines as a function cmd_NAME.
peer_main() {
  [ $# -ge 1 ] || usage
  _op=$1
  shift
  case $_op in
    start) [ $# -le 1 ] || usage ;;
    stop) [ $# -eq 1 ] || usage ;;
  esac
  [ "$(type -t "cmd_$_op" 2>/dev/null)" = function ] || usage
  "cmd_$_op" "$@"
}
