#!/usr/bin/env bash
# Differential test of the message parser against Dovecot.
#
#   differential_test.sh PATH/TO/velmar-parse
#
# Starts a private Dovecot (imap-dovecot.sh), writes a corpus of varied
# messages (make_corpus.py), APPENDs each one in CRLF form, FETCHes
# (ENVELOPE BODYSTRUCTURE) and compares the answer field by field with what
# velmar-parse prints for the same bytes. Differences that are explained
# (the server's reading is not the sensible one, or our parser documents a
# different behaviour) are listed in EXCEPTIONS below with one line of
# reason each and printed; any other difference fails the test, naming the
# message and the field. Dispositions are compared by type and by their
# parameters as a reader finds them by name (RFC 2231 forms joined and
# decoded on both sides), which is what the user sees. Messages stored with bare LF are also parsed in
# that form, and must read the same as their CRLF form.
#
# KEEP_WORK=1 keeps the work directory (corpus, CRLF copies, both answers).
set -uo pipefail

here=$(cd "$(dirname "$0")" && pwd)
parse=${1:-}
fail() { echo "FAIL: $*" >&2; exit 1; }

[[ -n $parse && -x $parse ]] || fail "usage: differential_test.sh PATH/TO/velmar-parse (not found: '${parse}')"
if ! command -v dovecot >/dev/null 2>&1 && [[ ! -x /usr/sbin/dovecot ]]; then
  fail "dovecot is not installed: install the package dovecot-imapd (scripts/install-deps does)"
fi
[[ -x /usr/bin/python3 ]] || fail "/usr/bin/python3 is missing: install the package python3"

work=$(mktemp -d "${TMPDIR:-/tmp}/velmar-diff.XXXXXX") || fail "cannot make a work directory"
# The server's own users must reach the server directory inside.
chmod 755 "$work"
cleanup() {
  "$here/imap-dovecot.sh" stop "$work/imap" >/dev/null 2>&1 || true
  if [[ -n ${KEEP_WORK:-} ]]; then echo "work directory kept: $work"; else rm -rf "$work"; fi
}
trap cleanup EXIT

# Only regular files are read: a FIFO is refused at once (a blocking open
# would wait for a writer forever), and the files after it are still shown.
mkfifo "$work/fifo" || fail "cannot make a FIFO"
printf 'Subject: after the fifo\n\nbody\n' >"$work/after.eml"
out=$(timeout 10 "$parse" "$work/fifo" "$work/after.eml" 2>&1)
rc=$?
[[ $rc -ne 124 ]] || fail "velmar-parse hangs on a FIFO"
[[ $rc -eq 1 && $out == *"cannot read $work/fifo: not a regular file"* && $out == *'"after the fifo"'* ]] ||
  fail "velmar-parse on a FIFO and a file: exit $rc (want 1), output: $out"

server=$("$here/imap-dovecot.sh" start "$work/imap") || fail "the test Dovecot did not start"
value() { sed -n "s/^$1=//p" <<<"$server"; }
/usr/bin/python3 "$here/make_corpus.py" "$work/corpus" >/dev/null || fail "make_corpus.py failed"

/usr/bin/python3 - "$(value PORT)" "$(value USER)" "$(value PASSWORD)" "$work" "$parse" <<'PYTHON'
import imaplib
import os
import re
import subprocess
import sys

port, user, password, work, parse = int(sys.argv[1]), sys.argv[2], sys.argv[3], sys.argv[4], sys.argv[5]
corpus = os.path.join(work, "corpus")
# The host our parser gives addresses without one; a name no message uses,
# so that the exception for it cannot hide anything else.
DEFAULT_HOST = "default-host.invalid"


# --- Reading IMAP data ------------------------------------------------------

class Atom(bytes):
    """An atom as opposed to a string (only NIL and numbers matter here)."""


def read_value(data, i):
    """One IMAP value at data[i:]: list, quoted string, literal, NIL, number
    or atom. Returns (value, next index); strings are bytes."""
    while data[i:i + 1] == b" ":
        i += 1
    c = data[i:i + 1]
    if c == b"(":
        out = []
        i += 1
        while True:
            while data[i:i + 1] == b" ":
                i += 1
            if data[i:i + 1] == b")":
                return out, i + 1
            if i >= len(data):
                raise ValueError("unterminated list")
            v, i = read_value(data, i)
            out.append(v)
    if c == b'"':
        m = re.compile(rb'"((?:[^"\\]|\\.)*)"', re.S).match(data, i)
        if not m:
            raise ValueError("unterminated quoted string")
        return re.sub(rb"\\(.)", rb"\1", m.group(1), flags=re.S), m.end()
    if c == b"{":
        m = re.compile(rb"\{(\d+)\+?\}\r?\n").match(data, i)
        if not m:
            raise ValueError("bad literal at %r" % data[i:i + 20])
        n = int(m.group(1))
        start = m.end()
        if start + n > len(data):
            raise ValueError("short literal")
        return data[start:start + n], start + n
    m = re.compile(rb"[^ ()\r\n]+").match(data, i)
    if not m:
        raise ValueError("unexpected %r" % data[i:i + 20])
    word = m.group(0)
    if word.upper() == b"NIL":
        return None, m.end()
    if word.isdigit():
        return int(word), m.end()
    return Atom(word), m.end()


# --- Records from both sides ---------------------------------------------

ENV_FIELDS = ["date", "subject", "from", "sender", "reply_to", "to", "cc", "bcc", "in_reply_to", "message_id"]
ADDRESS_FIELDS = {"from", "sender", "reply_to", "to", "cc", "bcc"}


def envelope(v):
    if not isinstance(v, list) or len(v) != 10:
        raise ValueError("an envelope has 10 fields: %r" % (v,))
    env = {}
    for name, x in zip(ENV_FIELDS, v):
        if name in ADDRESS_FIELDS:
            env[name] = None if x is None else [tuple(a) for a in x]
        else:
            env[name] = x
    return env


def pairs(v):
    return [(v[k], v[k + 1]) for k in range(0, len(v) - 1, 2)] if isinstance(v, list) else []


def disposition(v):
    """Extension data's disposition: (type, parameters) or None."""
    if not isinstance(v, list) or not v:
        return None
    return (v[0], pairs(v[1]) if len(v) > 1 else [])


def body(v):
    if not isinstance(v, list) or not v:
        raise ValueError("bad body %r" % (v,))
    if isinstance(v[0], list):
        # The parts are the lists before the subtype.
        k = 0
        while k < len(v) and isinstance(v[k], list):
            k += 1
        parts = [body(p) for p in v[:k]]
        rest = v[k:]
        # subtype, then the extension data: parameters, disposition, ...
        return {"kind": "multipart", "parts": parts, "subtype": rest[0] if rest else None,
                "disposition": disposition(rest[2]) if len(rest) > 2 else None}
    b = {"kind": "leaf", "type": v[0], "subtype": v[1],
         "params": [(v[2][k], v[2][k + 1]) for k in range(0, len(v[2]), 2)] if v[2] else [],
         "id": v[3], "description": v[4], "encoding": v[5], "size": v[6]}
    rest = v[7:]
    ext = []
    t = (v[0] or b"").upper()
    st = (v[1] or b"").upper()
    if t == b"MESSAGE" and st == b"RFC822" and len(rest) >= 3:
        b["envelope"] = envelope(rest[0])
        b["body"] = body(rest[1])
        b["lines"] = rest[2]
        ext = rest[3:]
    elif t == b"TEXT" and rest:
        b["lines"] = rest[0]
        ext = rest[1:]
    else:
        ext = rest
    # The extension data after the MD5: the disposition.
    b["disposition"] = disposition(ext[1]) if len(ext) > 1 else None
    return b


def ours(path):
    """velmar-parse's reading of a file: (envelope, body, warnings)."""
    try:
        r = subprocess.run([parse, "--host", DEFAULT_HOST, path], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                           timeout=30)
    except subprocess.TimeoutExpired:
        raise RuntimeError("velmar-parse took more than 30 s on %s (a hang?)" % path)
    if r.returncode != 0:
        raise RuntimeError("velmar-parse failed on %s: %s" % (path, r.stderr.decode(errors="replace")))
    out = r.stdout
    i = out.index(b"\nENVELOPE ") + len(b"\nENVELOPE ")
    env, i = read_value(out, i)
    if not out.startswith(b"\nBODYSTRUCTURE ", i):
        raise ValueError("no BODYSTRUCTURE after ENVELOPE for %s" % path)
    bs, i = read_value(out, i + len(b"\nBODYSTRUCTURE "))
    tail = out[i:].decode("utf-8", "replace").splitlines()
    notes = [line for line in tail if line.startswith(("WARNING ", "NOTE "))]
    return envelope(env), body(bs), notes


# --- Comparing ----------------------------------------------------------------

def show(v):
    if v is None:
        return "NIL"
    if isinstance(v, bytes):
        s = v.decode("utf-8", "backslashreplace")
        return '"%s"' % s if len(s) <= 70 else '"%s..." (%d bytes)' % (s[:60], len(v))
    if isinstance(v, (list, tuple)):
        return "(" + " ".join(show(x) for x in v) + ")"
    return str(v)


def upper(v):
    return v.upper() if isinstance(v, bytes) else v


class Diff:
    """One field that differs: ours and the server's value, and the
    records (envelope or body) they were read from."""
    def __init__(self, field, ours, theirs, a=None, b=None):
        self.field, self.ours, self.theirs, self.a, self.b = field, ours, theirs, a, b


def compare_envelope(a, b, where, diffs):
    for f in ENV_FIELDS:
        x, y = a[f], b[f]
        if f in ADDRESS_FIELDS:
            if x is None or y is None or len(x) != len(y):
                if x != y:
                    diffs.append(Diff(where + "." + f, x, y, a, b))
                continue
            for k, (p, q) in enumerate(zip(x, y)):
                for n, name in enumerate(("name", "adl", "mailbox", "host")):
                    u, w = p[n], q[n]
                    # Domains are case-insensitive.
                    if name == "host" and upper(u) == upper(w):
                        continue
                    if u != w:
                        diffs.append(Diff("%s.%s[%d].%s" % (where, f, k + 1, name), u, w, a, b))
        elif x != y:
            diffs.append(Diff(where + "." + f, x, y, a, b))


def joined_parameters(params):
    """Parameters by name as a reader finds them: NAME* (charset'language'
    prefix split off, %XX decoded) wins over NAME*0, NAME*1*, ... joined up
    to the first gap, which win over plain NAME."""
    plain, star, segs = {}, {}, {}
    for k, v in params:
        k = upper(k or b"")
        v = v or b""
        m = re.match(rb"^(.*?)\*(\d+)(\*?)$", k)
        if m:
            segs.setdefault(m.group(1), {}).setdefault(int(m.group(2)), (v, m.group(3) == b"*"))
        elif k.endswith(b"*"):
            star.setdefault(k[:-1], v)
        else:
            plain.setdefault(k, v)

    def decode(v, first):
        if first:
            v = v.split(b"'", 2)[-1] if v.count(b"'") >= 2 else v
        return re.sub(rb"%([0-9A-Fa-f]{2})", lambda m: bytes([int(m.group(1), 16)]), v)

    out = {}
    for name in set(plain) | set(star) | set(segs):
        if name in star:
            out[name] = decode(star[name], True)
        elif name in segs and 0 in segs[name]:
            value, i = b"", 0
            while i in segs[name]:
                v, extended = segs[name][i]
                value += decode(v, i == 0) if extended else v
                i += 1
            out[name] = value
        else:
            out[name] = plain[name]
    return out


def compare_disposition(a, b, where, diffs):
    x, y = a.get("disposition"), b.get("disposition")
    if x is None or y is None:
        if x != y:
            diffs.append(Diff(where + ".disposition", show(x).encode(), show(y).encode(), a, b))
        return
    if upper(x[0]) != upper(y[0]):
        diffs.append(Diff(where + ".disposition", x[0], y[0], a, b))
    pa, pb = joined_parameters(x[1]), joined_parameters(y[1])
    for k in sorted(set(pa) | set(pb)):
        if pa.get(k) != pb.get(k):
            diffs.append(Diff("%s.dparam.%s" % (where, k.decode(errors="replace")), pa.get(k), pb.get(k), a, b))


def compare_body(a, b, where, diffs):
    if a["kind"] != b["kind"]:
        diffs.append(Diff(where + ".kind", a["kind"].encode(), b["kind"].encode(), a, b))
        return
    compare_disposition(a, b, where, diffs)
    if a["kind"] == "multipart":
        if upper(a["subtype"]) != upper(b["subtype"]):
            diffs.append(Diff(where + ".subtype", a["subtype"], b["subtype"], a, b))
        if len(a["parts"]) != len(b["parts"]):
            diffs.append(Diff(where + ".parts", len(a["parts"]), len(b["parts"]), a, b))
        for k, (p, q) in enumerate(zip(a["parts"], b["parts"])):
            compare_body(p, q, "%s.%d" % (where, k + 1), diffs)
        return
    # Type, subtype, encoding and parameter names are case-insensitive; so
    # is the charset value. Other parameter values are compared exactly.
    for f in ("type", "subtype", "encoding"):
        if upper(a[f]) != upper(b[f]):
            diffs.append(Diff(where + "." + f, a[f], b[f], a, b))
    pa, pb = ({upper(k): v for k, v in reversed(x["params"])} for x in (a, b))  # the first of a name counts
    for k in sorted(set(pa) | set(pb), key=lambda s: s or b""):
        x, y = pa.get(k), pb.get(k)
        if k == b"CHARSET" and x is not None and y is not None:
            x, y = upper(x), upper(y)
        if x != y:
            diffs.append(Diff("%s.param.%s" % (where, (k or b"?").decode(errors="replace")), pa.get(k), pb.get(k), a, b))
    for f in ("id", "description", "size", "lines"):
        if a.get(f) != b.get(f):
            diffs.append(Diff(where + "." + f, a.get(f), b.get(f), a, b))
    if "envelope" in a and "envelope" in b:
        compare_envelope(a["envelope"], b["envelope"], where + ".envelope", diffs)
        compare_body(a["body"], b["body"], where + ".message", diffs)
    elif ("envelope" in a) != ("envelope" in b):
        diffs.append(Diff(where + ".message", b"nested message" if "envelope" in a else None,
                          b"nested message" if "envelope" in b else None, a, b))


# --- Explained differences ---------------------------------------------------
# Each entry: a name, one line of reason, and a test on (message, diff).
# Keep the tests narrow: an exception must not swallow a fault of the same
# field in another message, so most of them name what both sides must say.

def leaf(field):
    return field.rsplit(".", 1)[-1]


def squeeze(v):
    return re.sub(rb"[ \t]+", b" ", v) if isinstance(v, bytes) else v


def lf_size_ok(d):
    # Each line break inside the part is one byte shorter in the bare-LF
    # form; text and message parts say how many there are.
    if not isinstance(d.ours, int) or not isinstance(d.theirs, int):
        return False
    gap = d.theirs - d.ours
    lines = d.b.get("lines")
    return 0 < gap <= (lines if lines is not None else d.theirs)


EXCEPTIONS = [
    {"name": "no-message-id",
     "reason": "a locally parsed envelope has no message-id by design: the parser never stores it",
     "match": lambda m, d: leaf(d.field) == "message_id" and d.ours is None},
    {"name": "sender-reply-to-default",
     "reason": "the server fills empty Sender and Reply-To from From, as the protocol asks of servers; "
               "our records keep what the header says",
     "match": lambda m, d: leaf(d.field) in ("sender", "reply_to") and d.ours is None
                           and d.theirs is not None and d.theirs == d.b["from"]},
    {"name": "first-header-wins",
     "reason": "with a repeated Date or Subject the parser keeps the first, the server the last",
     "match": lambda m, d: d.field in ("envelope.date", "envelope.subject")
                           and len(header_values(m, leaf(d.field))) > 1
                           and d.ours == header_values(m, leaf(d.field))[0]
                           and d.theirs == header_values(m, leaf(d.field))[-1]},
    {"name": "subject-blanks",
     "reason": "unfolding takes out only the line break, so the subject keeps the blanks and TABs of its "
               "folds; the server squeezes them to one blank; equal once blank runs are squeezed",
     "match": lambda m, d: leaf(d.field) == "subject" and isinstance(d.ours, bytes) and d.ours != d.theirs
                           and squeeze(d.ours) == squeeze(d.theirs)},
    {"name": "default-host",
     "reason": "an address without a host gets the local default host (warned); the server writes a "
               "placeholder (MISSING_DOMAIN, SYNTAX_ERROR)",
     "match": lambda m, d: d.field.endswith("].host") and d.ours == DEFAULT_HOST.encode()
                           and d.theirs in (b"MISSING_DOMAIN", b"SYNTAX_ERROR")},
    {"name": "lone-quoted-word",
     "reason": "a lone quoted word in an address list is read as a mailbox without host, the server "
               "reads it as a name with no address",
     "match": lambda m, d: re.search(r"\]\.(name|mailbox)$", d.field) is not None
                           and m.endswith("-address-unqualified.eml")
                           and (d.ours, d.theirs) in ((None, b"Name Only"), (b"Name Only", b"MISSING_MAILBOX"))},
    {"name": "unknown-type",
     "reason": "a type outside the seven MIME top-level types is stored as X-UNKNOWN",
     "match": lambda m, d: leaf(d.field) == "type" and d.ours == b"X-UNKNOWN"
                           and upper(d.theirs) not in (b"TEXT", b"MULTIPART", b"MESSAGE", b"APPLICATION",
                                                       b"AUDIO", b"IMAGE", b"VIDEO")},
    {"name": "unknown-encoding",
     "reason": "a transfer encoding outside the five standard ones is stored as X-UNKNOWN",
     "match": lambda m, d: leaf(d.field) == "encoding" and d.ours == b"X-UNKNOWN"
                           and upper(d.theirs) not in (b"7BIT", b"8BIT", b"BINARY", b"BASE64", b"QUOTED-PRINTABLE")},
    {"name": "default-subtype",
     "reason": "a Content-Type without subtype gets the type's default subtype; the server leaves it empty",
     "match": lambda m, d: leaf(d.field) == "subtype" and d.theirs == b""
                           and d.ours in (b"PLAIN", b"MIXED", b"RFC822", b"OCTET-STREAM", b"BASIC", b"UNKNOWN")},
    {"name": "rfc2231-continuations",
     "reason": "parameter continuations (NAME*0, NAME*1) stay separate parameters in the records (lookups "
               "by name join them); the server joins them",
     "match": lambda m, d: re.search(r"\.param\.[A-Z0-9-]+(\*\d+\*?)?$", d.field) is not None
                           and m.endswith("-param-rfc2231.eml")
                           and ((d.ours is None and d.theirs is not None and "*" not in d.field)
                                or (d.theirs is None and re.search(r"\*\d+\*?$", d.field)))},
    {"name": "unquoted-boundary-with-equals",
     "reason": "an unquoted boundary containing '=' is taken whole, as senders mean it; the server cuts "
               "it at '=' and finds an extra empty part",
     "match": lambda m, d: d.field == "body.parts" and m.endswith("-param-unquoted-boundary-specials.eml")
                           and d.ours == 2 and d.theirs == 3},
    {"name": "part-header-cut",
     "reason": "a part header line longer than the parser's 16 KB work buffer is cut (warned); the "
               "value keeps its start",
     "match": lambda m, d: ".param." in d.field and isinstance(d.ours, bytes) and isinstance(d.theirs, bytes)
                           and len(d.theirs) > 16000 and d.theirs.startswith(d.ours)},
    {"name": "lf-stored-size",
     "reason": "sizes are the stored byte count, so a bare-LF part is smaller by its line breaks than "
               "its CRLF form (line counts are equal)",
     "match": lambda m, d: d.field.startswith("lf:") and leaf(d.field) == "size" and lf_size_ok(d)},
]

RAW = {}  # message name -> the CRLF bytes both sides read


def header_values(m, name):
    """The values of a top-level header field, in order, unfolded."""
    head = RAW.get(m, b"").split(b"\r\n\r\n", 1)[0]
    head = re.sub(rb"\r\n(?=[ \t])", b"", head)
    want = name.replace("_", "-").encode().lower()
    out = []
    for line in head.split(b"\r\n"):
        k, sep, v = line.partition(b":")
        if sep and k.strip().lower() == want:
            out.append(v.strip(b" \t"))
    return out


def explain(m, d):
    for e in EXCEPTIONS:
        if e["match"](m, d):
            return e
    return None


def judge(n, a, b, prefix, sides, explained, failures):
    """Compares two readings (envelope, body) of message n: explained
    differences are noted by name, the others fail."""
    diffs = []
    compare_envelope(a[0], b[0], "envelope", diffs)
    compare_body(a[1], b[1], "body", diffs)
    for d in diffs:
        d.field = prefix + d.field
        e = explain(n, d)
        if e:
            explained.setdefault(e["name"], []).append("%s %s" % (n, d.field))
        else:
            failures.append((n, d.field, sides % (show(d.ours), show(d.theirs))))


# --- Run ------------------------------------------------------------------------

def main():
    names = sorted(n for n in os.listdir(corpus) if n.endswith(".eml"))
    if len(names) < 60:
        print("FAIL: the corpus has only %d messages" % len(names))
        return 1
    crlf_dir = os.path.join(work, "crlf")
    os.makedirs(crlf_dir, exist_ok=True)
    crlf = {}
    for n in names:
        raw = open(os.path.join(corpus, n), "rb").read()
        # The same mapping imaplib applies on APPEND, so both sides read
        # exactly the same bytes.
        data = re.sub(rb"\r\n|\r|\n", b"\r\n", raw)
        crlf[n] = (raw, data)
        with open(os.path.join(crlf_dir, n), "wb") as f:
            f.write(data)

    M = imaplib.IMAP4("127.0.0.1", port, timeout=60)
    M.login(user, password)
    typ, _ = M.create("corpus")
    if typ != "OK":
        print("FAIL: CREATE corpus failed")
        return 1
    for n in names:
        typ, resp = M.append("corpus", None, None, crlf[n][1])
        if typ != "OK":
            print("FAIL: APPEND of %s refused: %r" % (n, resp))
            return 1
    typ, resp = M.select("corpus", readonly=True)
    if typ != "OK" or int(resp[0]) != len(names):
        print("FAIL: the server holds %r messages, %d were appended" % (resp, len(names)))
        return 1

    dump = open(os.path.join(work, "answers.txt"), "wb")
    failures = []
    explained = {}
    parser_notes = {}
    for seq, n in enumerate(names, 1):
        typ, data = M.fetch(str(seq), "(ENVELOPE BODYSTRUCTURE RFC822.SIZE)")
        if typ != "OK" or not data or data[0] is None:
            failures.append((n, "fetch", "FETCH failed: %r" % (data,)))
            continue
        raw = b"".join(item[0] + b"\r\n" + item[1] if isinstance(item, tuple) else item for item in data if item)
        try:
            _, i = read_value(raw, 0)  # the message number
            items, _ = read_value(raw, i)
            answer = {upper(items[k]): items[k + 1] for k in range(0, len(items), 2)}
            server_env = envelope(answer[b"ENVELOPE"])
            server_body = body(answer[b"BODYSTRUCTURE"])
        except (ValueError, KeyError, IndexError) as e:
            failures.append((n, "fetch", "cannot read the server's answer (%s): %r" % (e, raw[:300])))
            continue
        if answer.get(b"RFC822.SIZE") != len(crlf[n][1]):
            failures.append((n, "RFC822.SIZE", "server stored %r bytes, %d were sent"
                             % (answer.get(b"RFC822.SIZE"), len(crlf[n][1]))))
        dump.write(b"== %s\nSERVER %s\n" % (n.encode(), raw))
        try:
            our_env, our_body, notes = ours(os.path.join(crlf_dir, n))
        except (RuntimeError, ValueError) as e:
            failures.append((n, "velmar-parse", str(e)))
            continue
        parser_notes[n] = notes
        RAW[n] = crlf[n][1]
        judge(n, (our_env, our_body), (server_env, server_body), "", "ours %s, server %s", explained, failures)
        # A store keeps messages with the line ends they came with; bare LF
        # must not change how a message reads.
        if crlf[n][0] != crlf[n][1]:
            try:
                lf_env, lf_body, _ = ours(os.path.join(corpus, n))
            except (RuntimeError, ValueError) as e:
                failures.append((n, "velmar-parse (bare LF)", str(e)))
                continue
            judge(n, (lf_env, lf_body), (our_env, our_body), "lf:", "bare-LF form %s, CRLF form %s", explained,
                  failures)
    M.logout()
    dump.close()

    print("compared %d messages with Dovecot" % len(names))
    for e in (e for e in EXCEPTIONS if e["name"] in explained):
        seen = explained[e["name"]]
        print("  explained, %s (%d): %s\n      %s" % (e["name"], len(seen), e["reason"], "\n      ".join(seen[:6])))
    if failures:
        print("%d unexplained difference(s):" % len(failures))
        for k, (n, field, text) in enumerate(failures):
            print("  FAIL %s %s: %s" % (n, field, text))
            if all(n != m for m, _, _ in failures[:k]):
                print("".join("      (velmar-parse: %s)\n" % line for line in parser_notes.get(n, [])), end="")
        return 1
    print("PASS: no unexplained differences")
    return 0


sys.exit(main())
PYTHON
