#!/usr/bin/env bash
# A private SMTP server for tests (python3-aiosmtpd), on 127.0.0.1 with free
# ports. Every message it takes is written to DIR/mail as NNNNNN.eml (the
# data bytes exactly, dots unstuffed) and NNNNNN.json (helo, mail_from,
# rcpt_tos, mail_options, auth, tls).
#
#   smtp-aiosmtpd.sh start [DIR]   prints KEY=VALUE lines once the server answers:
#                                  PORT (plain, STARTTLS and AUTH offered),
#                                  SSLPORT (TLS from the first byte), CAFILE
#   smtp-aiosmtpd.sh stop DIR      stops the server started in DIR (by its pid)
#
# Recipients reject*@ get 550, tempfail*@ 451; a message from
# refuse-data@ gets 554 after its data. AUTH takes testuser/secret (PLAIN,
# LOGIN, CRAM-MD5). SMTP_REQUIRE_STARTTLS=1 and SMTP_AUTH_REQUIRED=1 make
# the plain port insist on them.
set -euo pipefail

PY=/usr/bin/python3
START_TIMEOUT=${SMTP_START_TIMEOUT:-20}

# shellcheck source=peer_lib.sh
. "$(dirname "$0")/peer_lib.sh"

check_deps() {
  [[ -x $PY ]] || die "$PY is missing: install the package python3"
  "$PY" -c 'import aiosmtpd' 2>/dev/null ||
    die "the module aiosmtpd is missing: install the package python3-aiosmtpd (scripts/install-deps does)"
  need openssl openssl
}

write_sink() {
  cat >"$1/sink.py" <<'PYEOF'
import asyncio, hmac, json, os, signal, ssl, sys, threading, time
from aiosmtpd.controller import Controller
from aiosmtpd.smtp import SMTP, AuthResult, LoginPassword

d = sys.argv[1]
USERS = {"testuser": "secret"}
maildir = os.path.join(d, "mail")
os.makedirs(maildir, exist_ok=True)
lock = threading.Lock()
counter = [0]

def authenticator(server, session, envelope, mechanism, auth_data):
    if isinstance(auth_data, LoginPassword):
        user, pw = auth_data.login.decode(), auth_data.password.decode()
        ok = USERS.get(user) == pw
        return AuthResult(success=ok, auth_data=user if ok else None)
    if isinstance(auth_data, tuple):  # CRAM-MD5: (user, digest, challenge)
        user, digest, challenge = auth_data
        pw = USERS.get(user)
        ok = pw is not None and hmac.compare_digest(
            hmac.new(pw.encode(), challenge, "md5").hexdigest(), digest)
        return AuthResult(success=ok, auth_data=user if ok else None)
    return AuthResult(success=False, handled=False)

class Sink(SMTP):
    async def auth_CRAM__MD5(self, server, args):
        challenge = ("<%d.%d@sink>" % (os.getpid(), time.time_ns())).encode()
        answer = await server.challenge_auth(challenge)
        if answer is None or isinstance(answer, bytes) and b" " not in answer:
            return AuthResult(success=False, handled=False)
        user, digest = answer.decode().rsplit(" ", 1)
        return authenticator(server, server.session, server.envelope, "CRAM-MD5", (user, digest, challenge))

class Handler:
    async def handle_RCPT(self, server, session, envelope, address, rcpt_options):
        if address.startswith("reject"):
            return "550 5.1.1 No such user here"
        if address.startswith("tempfail"):
            return "451 4.3.0 Try again later"
        envelope.rcpt_tos.append(address)
        return "250 OK"

    async def handle_DATA(self, server, session, envelope):
        if envelope.mail_from.startswith("refuse-data@"):
            return "554 5.6.0 Message refused"
        tls = server.transport.get_extra_info("ssl_object") is not None
        with lock:
            counter[0] += 1
            n = counter[0]
        base = os.path.join(maildir, "%06d" % n)
        meta = {"helo": session.host_name, "mail_from": envelope.mail_from,
                "rcpt_tos": envelope.rcpt_tos, "mail_options": envelope.mail_options,
                "auth": session.auth_data if isinstance(session.auth_data, str) else None,
                "tls": tls, "received": time.time()}
        with open(base + ".eml.tmp", "wb") as f:
            f.write(envelope.original_content)
        with open(base + ".json.tmp", "w") as f:
            json.dump(meta, f)
        os.rename(base + ".eml.tmp", base + ".eml")
        os.rename(base + ".json.tmp", base + ".json")
        return "250 2.0.0 Stored %06d" % n

class Ctl(Controller):
    def __init__(self, *a, smtp_kw=None, **kw):
        self.smtp_kw = smtp_kw or {}
        super().__init__(*a, **kw)
    def factory(self):
        return Sink(self.handler, **self.smtp_kw)

env = dict(line.split("=", 1) for line in open(os.path.join(d, "ports")).read().split())
ctx = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
ctx.load_cert_chain(os.path.join(d, "cert.pem"), os.path.join(d, "key.pem"))
common = dict(authenticator=authenticator, auth_require_tls=False, hostname="sink.test",
              data_size_limit=33554432, enable_SMTPUTF8=False, decode_data=False)
plain = Ctl(Handler(), hostname="127.0.0.1", port=int(env["PORT"]),
            smtp_kw=dict(common, tls_context=ctx,
                         require_starttls=os.environ.get("SMTP_REQUIRE_STARTTLS") == "1",
                         auth_required=os.environ.get("SMTP_AUTH_REQUIRED") == "1"))
secure = Ctl(Handler(), hostname="127.0.0.1", port=int(env["SSLPORT"]), ssl_context=ctx,
             smtp_kw=dict(common))
signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTERM, signal.SIGINT})
plain.start()
secure.start()
with open(os.path.join(d, "ready"), "w") as f:
    f.write("ok\n")
signal.sigwait({signal.SIGTERM, signal.SIGINT})
plain.stop()
secure.stop()
PYEOF
}

# The sink wrote its ready file and answers EHLO with 250.  ready DIR PORT
ready() { [[ -f $1/ready ]] && answers "$2"; }

answers() {
  "$PY" - "$1" <<'EOF'
import smtplib, sys
try:
    s = smtplib.SMTP("127.0.0.1", int(sys.argv[1]), timeout=3)
    code = s.ehlo()[0]
    s.quit()
    sys.exit(0 if code == 250 else 1)
except OSError:
    sys.exit(1)
EOF
}

cmd_start() {
  check_deps
  local d
  d=$(server_dir velmar-smtp "$@")
  not_running "$d/smtp.pid"
  mkdir -p "$d/mail" "$d/log"
  self_signed "$d"
  write_sink "$d"
  launch() {
    printf 'PORT=%s\nSSLPORT=%s\n' "$1" "$2" >"$d/ports"
    rm -f "$d/ready"
    "$PY" "$d/sink.py" "$d" >"$d/log/sink.log" 2>&1 </dev/null &
  }
  up() { ready "$d" "$1"; }
  start_on_free_ports "$d/smtp.pid" "$START_TIMEOUT" "$d/log/sink.log" launch up
  local port=$PORT sslport=$SSLPORT pid=$PID
  print_env "$d" "DIR=$d" "PID=$pid" HOST=127.0.0.1 "PORT=$port" "SSLPORT=$sslport" USER=testuser \
    PASSWORD=secret "CAFILE=$d/cert.pem" "MAILDIR=$d/mail"
}

cmd_stop() {
  # Only our own server: its command line names our sink.
  stop_recorded "$1/smtp.pid" "$1/sink.py" 5
}

peer_main "$@"
