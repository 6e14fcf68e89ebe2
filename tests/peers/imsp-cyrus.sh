#!/usr/bin/env bash
# A private option and address book server (cyrus-imspd) for tests, on a
# free high port, with its data in a directory of its own.
#
#   imsp-cyrus.sh start [DIR]   data, options and users in DIR (or a new
#                               temporary directory); prints KEY=VALUE lines
#                               once a real LOGIN works
#   imsp-cyrus.sh stop DIR      stops the server started in DIR and every
#                               child serving a connection
#
# The server has no bind-address option: it listens on every address of the
# port. Its data directory /var/lib/imsp is compiled in, so the data of DIR
# is put there in one of two ways (IMSP_MODE):
#   ns     a private mount namespace with DIR/data bound over /var/lib/imsp
#   patch  a copy of the binary whose path names a same-length symlink to
#          DIR/data; needs no namespaces and no root
# The default is ns where a namespace can be made, else patch. The mechanisms
# offered are PLAIN LOGIN CRAM-MD5 DIGEST-MD5, or IMSP_MECHS.
set -euo pipefail

PY=/usr/bin/python3
USER_NAME=testuser
OTHER_NAME=otheruser
PASSWORD=secret
START_TIMEOUT=${IMSP_START_TIMEOUT:-20}
DATA_PATH=/var/lib/imsp

# shellcheck source=peer_lib.sh
. "$(dirname "$0")/peer_lib.sh"

find_server() {
  IMSPD=$(find_sbin cyrus-imspd cyrus-imspd) || exit 1
  need saslpasswd2 sasl2-bin
  [[ -x $PY ]] || die "$PY is missing: install the package python3"
}

# The namespace way when it works here: root may make a mount namespace
# outright; anyone else maps themselves to root in a user namespace first.
pick_mode() {
  UNSHARE=(unshare -m)
  [[ $(id -u) -eq 0 ]] || UNSHARE=(unshare -r -m)
  local mode=${IMSP_MODE:-}
  if [[ -z $mode ]]; then
    mode=patch
    command -v unshare >/dev/null && "${UNSHARE[@]}" sh -c "mount --bind / $DATA_PATH" 2>/dev/null && mode=ns
  fi
  [[ $mode == ns || $mode == patch ]] || die "IMSP_MODE must be ns or patch, not '$mode'"
  [[ $mode != ns ]] || [[ -d $DATA_PATH ]] || die "$DATA_PATH is missing: reinstall the package cyrus-imspd"
  MODE=$mode
}

# The server looks names up by halving the file, so it must be sorted.
write_options() {
  local d=$1
  LC_ALL=C sort >"$d/data/options" <<EOF
imsp.sasl.pwcheck_method N auxprop
imsp.sasl.auxprop_plugin N sasldb
imsp.sasl.sasldb_path N $d/sasldb2
imsp.sasl.mech_list N ${IMSP_MECHS:-PLAIN LOGIN CRAM-MD5 DIGEST-MD5}
imsp.sasl.allowplaintext N +
imsp.create.new.users N +
common.domain N example.org
EOF
}

# A copy of the server whose data path is a link of the same length to
# DIR/data; the link's name is kept in DIR/link for clean.
patch_binary() {
  local d=$1 link
  link=$(mktemp -u /tmp/imsp.XXX)
  ln -sfn "$d/data" "$link"
  echo "$link" >"$d/link"
  mkdir -p "$d/bin"
  "$PY" - "$IMSPD" "$d/bin/cyrus-imspd" "$DATA_PATH" "$link" <<'EOF'
import sys
src, dst, old, new = sys.argv[1:]
assert len(old) == len(new)
data = open(src, "rb").read()
assert data.count(old.encode()) >= 1
open(dst, "wb").write(data.replace(old.encode(), new.encode()))
EOF
  chmod 755 "$d/bin/cyrus-imspd"
}

# The greeting, then a LOGIN that the server accepts.
probe_login() {
  "$PY" - "$1" "$USER_NAME" "$PASSWORD" <<'EOF'
import socket, sys
try:
    s = socket.create_connection(("127.0.0.1", int(sys.argv[1])), timeout=3)
    f = s.makefile("rb")
    if not f.readline().startswith(b"* OK"):
        sys.exit(1)
    s.sendall(b"p1 LOGIN %s %s\r\np2 LOGOUT\r\n" % (sys.argv[2].encode(), sys.argv[3].encode()))
    for line in f:
        if line.startswith(b"p1 "):
            sys.exit(0 if line.startswith(b"p1 OK") else 1)
    sys.exit(1)
except OSError:
    sys.exit(1)
EOF
}

cmd_start() {
  find_server
  pick_mode
  local d
  d=$(server_dir velmar-imsp "$@")
  not_running "$d/imspd.pid"
  mkdir -p "$d/data/user" "$d/log"
  write_options "$d"
  for u in "$USER_NAME" "$OTHER_NAME"; do
    printf %s "$PASSWORD" | saslpasswd2 -f "$d/sasldb2" -p -c "$u" ||
      die "saslpasswd2 could not add $u to $d/sasldb2"
  done
  [[ $MODE == ns ]] || patch_binary "$d"

  # A process group of its own: each connection is served by a child that
  # outlives the listener, and stop ends the group.
  launch() {
    if [[ $MODE == ns ]]; then
      setsid "${UNSHARE[@]}" sh -c 'mount --bind "$1/data" "$2" && exec "$3" -p "$4"' sh "$d" "$DATA_PATH" \
        "$IMSPD" "$1" >>"$d/log/stdout.log" 2>&1 </dev/null &
    else
      setsid "$d/bin/cyrus-imspd" -p "$1" >>"$d/log/stdout.log" 2>&1 </dev/null &
    fi
  }
  start_on_free_ports "$d/imspd.pid" "$START_TIMEOUT" "$d/log/stdout.log" launch probe_login
  local port=$PORT pid=$PID

  print_env "$d" "DIR=$d" "PID=$pid" "MODE=$MODE" HOST=127.0.0.1 "PORT=$port" "USER=$USER_NAME" \
    "PASSWORD=$PASSWORD" "OTHERUSER=$OTHER_NAME"
}

# The link of the patched binary goes with the server: nothing else uses it.
cmd_stop() {
  stop_recorded "$1/imspd.pid" "cyrus-imspd -p" 10 group
  if [[ -f $1/link ]]; then
    local link
    link=$(cat "$1/link")
    if [[ -L $link && $link == /tmp/imsp.* ]]; then rm -f "$link"; fi
    rm -f "$1/link"
  fi
}

peer_main "$@"
