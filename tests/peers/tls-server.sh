#!/bin/sh
# A TLS server for the transport tests: openssl s_server on 127.0.0.1, on a
# free port, answering each line with the line reversed (-rev).
#
#   tls-server.sh start DIR [good|selfsigned|wronghost]
#       Makes the certificates in DIR on first use (a test CA; "good" is
#       signed by it for localhost, "wronghost" is signed by it for another
#       name, "selfsigned" is its own issuer for localhost), starts the
#       server, waits until it accepts connections and prints
#       KIND=, PORT=, PID=, CERT=, KEY=, CA= lines.
#   tls-server.sh stop DIR
#       Stops every server started in DIR, by the pids recorded there.
set -eu

PEER_USAGE="start DIR [good|selfsigned|wronghost] | stop DIR"
# shellcheck source=peer_lib.sh
. "$(dirname "$0")/peer_lib.sh"

need openssl openssl
[ $# -ge 2 ] || usage
action=$1
dir=$2
kind=${3:-good}

make_certificates() {
  [ -f "$dir/ca.pem" ] && return 0
  days=2
  # EC keys: quick to make, so every test process can have its own.
  key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1" 2>/dev/null; }
  key "$dir/ca.key"
  openssl req -x509 -new -key "$dir/ca.key" -subj "/CN=Velmar Test CA" -days $days \
    -addext "basicConstraints=critical,CA:true" -addext "keyUsage=critical,keyCertSign,cRLSign" \
    -out "$dir/ca.pem" 2>/dev/null
  for which in good:localhost wronghost:wrong.example; do
    name=${which%%:*}
    cn=${which#*:}
    key "$dir/$name.key"
    openssl req -new -key "$dir/$name.key" -subj "/CN=$cn" -out "$dir/$name.csr" 2>/dev/null
    printf 'subjectAltName=DNS:%s\nbasicConstraints=CA:false\nextendedKeyUsage=serverAuth\n' "$cn" >"$dir/$name.ext"
    openssl x509 -req -in "$dir/$name.csr" -CA "$dir/ca.pem" -CAkey "$dir/ca.key" -CAcreateserial \
      -days $days -extfile "$dir/$name.ext" -out "$dir/$name.pem" 2>/dev/null
  done
  key "$dir/selfsigned.key"
  openssl req -x509 -new -key "$dir/selfsigned.key" -subj "/CN=localhost" -days $days \
    -addext "subjectAltName=DNS:localhost" -out "$dir/selfsigned.pem" 2>/dev/null
}

# The port of the ACCEPT line in LOG, in port; false while there is none.
listening() {
  port=$(sed -n 's/^ACCEPT .*:\([0-9][0-9]*\)$/\1/p' "$1")
  [ -n "$port" ]
}

case $action in
start)
  case $kind in good | selfsigned | wronghost) ;; *) die "unknown certificate kind: $kind" ;; esac
  mkdir -p "$dir"
  make_certificates || die "cannot make the certificates in $dir"
  log=$dir/$kind.log
  : >"$log"
  # Port 0: the system picks a free port, and the server names it in its
  # ACCEPT line. No -quiet: that line is how we know it listens.
  openssl s_server -accept 127.0.0.1:0 -cert "$dir/$kind.pem" -key "$dir/$kind.key" -rev \
    </dev/null >"$log" 2>&1 &
  pid=$!
  echo $pid >"$dir/$kind.pid"
  if ! wait_ready $pid 10 listening "$log"; then
    kill $pid 2>/dev/null || true
    cat "$log" >&2
    die "openssl s_server did not accept connections within 10 s"
  fi
  printf 'KIND=%s\nPORT=%s\nPID=%s\nCERT=%s\nKEY=%s\nCA=%s\n' "$kind" "$port" "$pid" "$dir/$kind.pem" \
    "$dir/$kind.key" "$dir/ca.pem"
  ;;
stop)
  for file in "$dir"/*.pid; do
    [ -f "$file" ] || continue
    stop_recorded "$file" "$dir/" 5
  done
  ;;
*)
  die "unknown action: $action"
  ;;
esac
