#!/usr/bin/python3
"""Writes a corpus of varied messages for comparing message parsers.

    make_corpus.py OUTDIR [--seed N]

Each message is one file, NNN-name.eml, holding the bytes as a mail store
would find them: most end lines with CRLF, a few with bare LF (the shape of
mail written by Unix tools), which a reader converts to CRLF before sending
them to an IMAP server. The set is deterministic for a given seed. It covers
what parsers disagree on: nesting, encodings, parameters written in odd ways,
address syntax (groups, routes, comments, quoting), raw 8-bit headers, and
the broken shapes real mail has (missing boundaries, bad base64, no
MIME-Version, overlong lines, empty bodies).
"""

import base64
import os
import quopri
import random
import sys

LF_ONLY = "lf"  # stored with bare LF line ends
CRLF = "crlf"

messages = []  # (name, text as bytes with "\n" line ends, storage)


def add(name, text, storage=CRLF):
    if isinstance(text, str):
        text = text.encode("utf-8")
    messages.append((name, text, storage))


def hdr(**fields):
    """Header lines in the given order; keys use _ for -."""
    return "".join("%s: %s\n" % (k.replace("_", "-"), v) for k, v in fields.items())


def b64(data, width=76):
    s = base64.b64encode(data).decode()
    return "".join(s[i:i + width] + "\n" for i in range(0, len(s), width))


def qp(text):
    return quopri.encodestring(text.encode("utf-8")).decode()


def base_header(rng, subject=None, mime=True, extra=""):
    i = len(messages) + 1  # the number of the message being built
    who = rng.choice(["Alice Example <alice@example.org>", "bob@example.net",
                      "\"Carol Q. Public\" <carol@example.com>", "Dave <dave@mail.example.org>"])
    to = rng.choice(["Test User <testuser@example.org>", "testuser@example.org, other@example.org",
                     "\"Team\" <team@example.com>"])
    date = "%s, %d %s 20%02d %02d:%02d:%02d %s" % (
        rng.choice(["Mon", "Tue", "Wed", "Thu", "Fri"]), rng.randint(1, 28),
        rng.choice(["Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul"]), rng.randint(10, 24),
        rng.randint(0, 23), rng.randint(0, 59), rng.randint(0, 59), rng.choice(["+0000", "-0500", "+0130"]))
    s = "From: %s\nTo: %s\nSubject: %s\nDate: %s\nMessage-ID: <corpus.%d.%d@example.org>\n" % (
        who, to, subject or "Corpus message %d" % i, date, i, rng.randint(1000, 9999))
    if mime:
        s += "MIME-Version: 1.0\n"
    return s + extra


def lorem(rng, lines, width=60):
    words = ("lorem ipsum dolor sit amet consectetur adipiscing elit sed do eiusmod tempor "
             "incididunt ut labore et dolore magna aliqua ut enim ad minim veniam quis").split()
    out = []
    for _ in range(lines):
        line = ""
        while len(line) < width:
            line += rng.choice(words) + " "
        out.append(line.rstrip())
    return "\n".join(out) + "\n"


def part(ctype, body, cte=None, extra=""):
    return "Content-Type: %s\n" % ctype + ("Content-Transfer-Encoding: %s\n" % cte if cte else "") + extra + "\n" + body


def multipart(subtype, boundary, parts, preamble="", epilogue="", close=True, params=""):
    return ("Content-Type: multipart/%s; boundary=\"%s\"%s\n\n" % (subtype, boundary, params) + preamble +
            "".join("--%s\n%s\n" % (boundary, p) for p in parts) + ("--%s--\n" % boundary if close else "") + epilogue)


def build(rng):
    # --- Plain text -----------------------------------------------------------
    add("plain-no-mime", base_header(rng, mime=False) + "\n" + lorem(rng, 8))
    add("plain-us-ascii", base_header(rng) + "Content-Type: text/plain; charset=us-ascii\n\n" + lorem(rng, 3))
    add("plain-utf8-8bit", base_header(rng) +
        "Content-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: 8bit\n\n"
        "Grüße aus Köln — ça va? Ελληνικά\n" + lorem(rng, 2))
    add("plain-latin1-qp", base_header(rng) +
        "Content-Type: text/plain; charset=\"iso-8859-1\"\nContent-Transfer-Encoding: quoted-printable\n\n" +
        "Gr=FC=DFe, this line is long enough that it needs a soft break somewhere a=\nround here.\n"
        "Trailing blank=20\n")
    add("plain-qp-utf8", base_header(rng) +
        "Content-Type: text/plain; charset=UTF-8\nContent-Transfer-Encoding: Quoted-Printable\n\n" +
        qp("Ünïcödé text that goes on and on and on for quite a while so that the encoder must wrap it.\n"
           "Second line ends in a blank \n"))
    add("html-only", base_header(rng) + "Content-Type: text/html; charset=\"utf-8\"\n\n"
        "<html><body><p>Hello <b>world</b></p></body></html>\n")
    add("text-base64", base_header(rng) +
        "Content-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: base64\n\n" +
        b64(("Base64 text body, ünïcode.\n" * 6).encode()))
    add("text-no-trailing-newline", base_header(rng) + "Content-Type: text/plain\n\nno final line end")
    add("text-enriched-format-flowed",
        base_header(rng) + "Content-Type: text/plain; format=flowed; delsp=yes; charset=us-ascii\n\n"
        "A flowed line that continues \nonto the next one.\n")

    # --- Multipart ------------------------------------------------------------
    add("mixed-attachment", base_header(rng) + multipart("mixed", "=_b1", [
        part("text/plain; charset=us-ascii", lorem(rng, 4)),
        part("application/pdf; name=\"report.pdf\"", b64(bytes(rng.randrange(256) for _ in range(700))),
             "base64", "Content-Disposition: attachment; filename=\"report.pdf\"\n")]))
    add("alternative", base_header(rng) + multipart("alternative", "alt-boundary-42", [
        part("text/plain; charset=utf-8", "Plain version.\n", "7bit"),
        part("text/html; charset=utf-8", qp("<p>HTML version with ümlauts.</p>\n"), "quoted-printable")]))
    inner = multipart("related", "rel=3", [
        part("text/html; charset=us-ascii", "<img src=\"cid:img1@x\">\n"),
        part("image/png", b64(bytes(range(200))), "base64", "Content-ID: <img1@x>\n")])
    alt = multipart("alternative", "alt=2", ["Content-Type: text/plain\n\nplain\n", inner])
    add("three-deep", base_header(rng) + multipart("mixed", "mix=1", [
        alt, part("application/octet-stream; name=data.bin", b64(b"\x00\x01\x02" * 100), "base64")]))
    # four levels of multipart with a leaf at each level
    d4 = multipart("mixed", "L4", ["Content-Type: text/plain\n\nlevel four\n"])
    d3 = multipart("alternative", "L3", ["Content-Type: text/plain\n\nlevel three\n", d4])
    d2 = multipart("related", "L2", [d3, "Content-Type: text/plain\n\nlevel two\n"])
    add("four-deep", base_header(rng) + multipart("mixed", "L1", [d2, "Content-Type: text/plain\n\nlevel one\n"]))
    add("mixed-preamble-epilogue", base_header(rng) + multipart("mixed", "pre-epi", [
        "Content-Type: text/plain\n\nfirst\n", "Content-Type: text/plain\n\nsecond\n"],
        preamble="This is a multi-part message in MIME format.\n\n", epilogue="\nEpilogue text.\n"))
    add("mixed-part-without-headers", base_header(rng) + multipart("mixed", "nohdr", [
        "\nimplicit text/plain part\n", "Content-Type: text/plain\n\nexplicit\n"]))
    add("mixed-many-parts", base_header(rng) + multipart("mixed", "many", [
        part("text/plain", "part %d\n" % k) for k in range(12)]))
    add("mixed-empty-parts", base_header(rng) + multipart("mixed", "empties", [
        "Content-Type: text/plain\n", "Content-Type: text/plain\n\n", "\n"]))
    add("digest", base_header(rng) + multipart("digest", "dig", [
        "\nFrom: a@example.org\nSubject: digest one\n\nbody one\n",
        "Content-Type: message/rfc822\n\nFrom: b@example.org\nSubject: digest two\n\nbody two\n"]))
    add("report", base_header(rng) + multipart("report", "rep", [
        "Content-Type: text/plain\n\nDelivery failed.\n",
        "Content-Type: message/delivery-status\n\nReporting-MTA: dns; mx.example.org\n\n"
        "Final-Recipient: rfc822; x@example.org\nAction: failed\nStatus: 5.0.0\n",
        "Content-Type: text/rfc822-headers\n\nFrom: x@example.org\nSubject: lost\n"],
        params="; report-type=delivery-status"))
    add("signed", base_header(rng) + multipart("signed", "sig", [
        "Content-Type: text/plain; charset=us-ascii\n\nsigned text\n",
        "Content-Type: application/pgp-signature; name=\"signature.asc\"\n\n"
        "-----BEGIN PGP SIGNATURE-----\nabc\n-----END PGP SIGNATURE-----\n"],
        params="; micalg=pgp-sha256; protocol=\"application/pgp-signature\""))
    add("media-types", base_header(rng) + multipart("mixed", "media", [
        part("audio/basic", b64(b"\x7f" * 90), "base64"),
        part("video/mp4", b64(b"\x00\x00\x00\x18ftyp" * 10), "base64"),
        part("image/jpeg; name=\"p.jpg\"", b64(b"\xff\xd8\xff" * 40), "base64"),
        part("application/json", "{\"a\": 1}\n"),
        part("model/gltf+json", "{}\n"),
        part("font/woff2", b64(b"wOF2" * 10), "base64")]))

    # --- message/rfc822 -------------------------------------------------------
    innermost = ("From: Inner Most <inner@example.org>\nTo: x@example.org\nSubject: innermost\n"
                 "Date: Mon, 1 Jan 2018 10:00:00 +0000\nMIME-Version: 1.0\n"
                 "Content-Type: text/plain; charset=utf-8\n\ninnermost text\n")
    middle = ("From: Middle <middle@example.org>\nSubject: middle\nMIME-Version: 1.0\n" +
              multipart("mixed", "mid", ["Content-Type: text/plain\n\nmiddle text\n",
                                         "Content-Type: message/rfc822\n\n" + innermost]))
    add("message-nested-twice", base_header(rng) + multipart("mixed", "outer", [
        "Content-Type: text/plain\n\nsee attached\n",
        "Content-Type: message/rfc822; name=\"fwd.eml\"\nContent-Description: forwarded\n\n" + middle]))
    add("message-top-level", base_header(rng) + "Content-Type: message/rfc822\n\n" +
        "From: wrapped@example.org\nSubject: wrapped\nCc: c1@example.org, c2@example.org\n\nwrapped body\n")
    add("message-base64-encoded", base_header(rng) + "Content-Type: message/rfc822\n"
        "Content-Transfer-Encoding: base64\n\n" + b64(b"From: enc@example.org\r\nSubject: enc\r\n\r\nx\r\n"))
    add("message-no-headers", base_header(rng) + multipart("mixed", "mnh", [
        "Content-Type: message/rfc822\n\n\nonly a body\n"]))
    add("message-partial", base_header(rng) +
        "Content-Type: message/partial; id=\"abc@example.org\"; number=1; total=2\n\n" + lorem(rng, 2))
    add("message-external-body", base_header(rng) + "Content-Type: message/external-body; "
        "access-type=URL; URL=\"http://example.org/x\"\n\nContent-Type: text/plain\n\n")

    # --- Parameters -----------------------------------------------------------
    add("param-spacing", base_header(rng) +
        "Content-Type: text/plain ; charset = \"utf-8\" ;format=flowed;delsp = yes\n\nodd spacing\n")
    add("param-quoted-escapes", base_header(rng) + multipart("mixed", "pq", [
        "Content-Type: application/octet-stream; name=\"a \\\"quoted\\\" name.txt\"\n"
        "Content-Transfer-Encoding: base64\n\n" + b64(b"abc"),
        "Content-Type: text/plain; charset=\"us-ascii\"; name=\"semi;colon=equals.txt\"\n\nx\n"]))
    add("param-case-and-comment", base_header(rng) +
        "Content-Type: TEXT/Plain; CharSet=ISO-8859-1 (Latin one); Format=Fixed\n\nx\n")
    add("param-rfc2231", base_header(rng) + multipart("mixed", "r2231", [
        "Content-Type: application/pdf; name*=utf-8''r%C3%A9sum%C3%A9.pdf\n"
        "Content-Transfer-Encoding: base64\n\n" + b64(b"%PDF"),
        "Content-Type: text/plain; title*0=\"part one \"; title*1=\"part two\"\n\ny\n"]))
    add("disposition-rfc2231", base_header(rng) +
        "Content-Disposition: inline\n" + multipart("mixed", "d2231", [
        part("text/plain; charset=us-ascii", "see the files\n", "7bit", "Content-Disposition: INLINE\n"),
        "Content-Type: application/pdf\nContent-Transfer-Encoding: base64\n"
        "Content-Disposition: attachment; filename*=utf-8''r%C3%A9sum%C3%A9.pdf; size=4\n\n" + b64(b"%PDF"),
        "Content-Type: application/octet-stream\nContent-Transfer-Encoding: base64\n"
        "Content-Disposition: Attachment;\n filename*0*=iso-8859-1'de'Gr%FC%DFe;\n filename*1=\" aus K\";"
        "\n filename*2*=%F6ln.txt\n\n" + b64(b"abc"),
        "Content-Type: image/png\nContent-Transfer-Encoding: base64\n"
        "Content-Disposition: attachment; filename=\"plain name.png\"; filename*=utf-8''better.png\n\n" +
        b64(b"\x89PNG")]))
    add("param-folded", base_header(rng) + "Content-Type: multipart/mixed;\n\tboundary=\"folded-b\";\n"
        "  charset=us-ascii\n\n--folded-b\nContent-Type: text/plain;\n charset=utf-8\n\nfolded\n--folded-b--\n")
    add("param-unquoted-boundary-specials", base_header(rng) +
        "Content-Type: multipart/alternative; boundary=----=_NextPart_000_0012_01D2\n\n"
        "------=_NextPart_000_0012_01D2\nContent-Type: text/plain\n\nA\n"
        "------=_NextPart_000_0012_01D2\nContent-Type: text/html\n\n<p>A</p>\n"
        "------=_NextPart_000_0012_01D2--\n")
    add("param-text-without-charset", base_header(rng) + multipart("mixed", "nocs", [
        "Content-Type: text/plain; format=flowed\n\nflowed, no charset\n",
        "Content-Type: text/html\n\n<p>no parameters</p>\n"]))
    add("param-trailing-semicolon", base_header(rng) + "Content-Type: text/plain; charset=us-ascii;\n\nx\n")
    add("type-uppercase-encoding-mixedcase", base_header(rng) +
        "Content-Type: APPLICATION/OCTET-STREAM\nContent-Transfer-Encoding: BaSe64\n"
        "Content-ID: <part1.abc@example.org>\nContent-Description: Some data\n\n" + b64(b"\x00" * 57))
    add("unknown-type-and-encoding", base_header(rng) + multipart("mixed", "unk", [
        "Content-Type: foo/bar; x=y\n\nstrange\n",
        "Content-Type: application/octet-stream\nContent-Transfer-Encoding: x-uuencode\n\nbegin 644 x\n`\nend\n",
        "Content-Type: text\n\nno subtype\n"]))

    # --- Encoded words and addresses ------------------------------------------
    add("encoded-words", hdr(
        From="=?UTF-8?B?SsO8cmdlbiBNw7xsbGVy?= <jm@example.de>",
        To="=?ISO-8859-1?Q?Andr=E9?= Pirard <PIRARD@vm1.ulg.ac.be>",
        Subject="=?utf-8?q?caf=C3=A9?= and =?UTF-8?B?w6lsw6hwaGFudA==?=",
        Date="Thu, 13 Feb 1997 09:00:00 -0800", MIME_Version="1.0") + "\nbody\n")
    add("groups", hdr(
        From="alice@example.org",
        To="Undisclosed recipients:;",
        Cc="Friends: a@example.org, \"C D\" <c@example.org>;, e@example.org",
        Bcc="Empty:; , Team: x@example.org;",
        Subject="groups", Date="Fri, 14 Feb 1997 09:00:00 +0000") + "\nx\n")
    add("route-addresses", hdr(
        From="Route Person <@relay1.example.org,@relay2.example.org:rp@example.org>",
        To="<@one.example:plain@example.org>, Named <named@example.org>",
        Reply_To="<@a.example,@b.example:reply@example.org>",
        Subject="routes", Date="Sat, 15 Feb 1997 09:00:00 +0000") + "\nx\n")
    add("address-comments-and-quotes", hdr(
        From="joe@example.org (Joe Q. Public)",
        Sender="\"Doe, John \\\"JD\\\"\" <jd@example.org>",
        Reply_To="(lead comment) <lead@example.org>",
        To="\"quoted.local\"@example.org, first.last @ example.org",
        Cc="Mary Smith <mary@x.test>, jdoe@example.org (John Doe (nested comment))",
        Subject="comments", Date="Sun, 16 Feb 1997 09:00:00 +0000") + "\nx\n")
    add("address-unqualified", hdr(
        From="localuser", To="other, third@", Cc="\"Name Only\"",
        Subject="unqualified", Date="Mon, 17 Feb 1997 09:00:00 +0000") + "\nx\n")
    add("address-domain-literal", hdr(
        From="Lit <user@[192.0.2.1]>", To="root@[IPv6:2001:db8::1]",
        Subject="literal domains", Date="Tue, 18 Feb 1997 09:00:00 +0000") + "\nx\n")
    add("address-missing-comma", hdr(
        From="a@example.org", To="a@b.example c@d.example", Cc="good@example.org, <broken@",
        Subject="missing comma", Date="Wed, 19 Feb 1997 09:00:00 +0000") + "\nx\n")
    add("envelope-all-fields", hdr(
        Date="Thu, 20 Feb 1997 09:00:00 +0100",
        Subject="every envelope field",
        From="From One <f1@example.org>, from2@example.org",
        Sender="sender@example.org",
        Reply_To="reply1@example.org, Reply Two <reply2@example.org>",
        To="to@example.org", Cc="cc@example.org", Bcc="bcc@example.org",
        In_Reply_To="<parent.123@example.org>",
        Message_ID="<self.456@example.org>",
        Newsgroups="comp.mail.misc") + "\nx\n")
    add("envelope-repeated-headers", hdr(
        From="first@example.org") + "From: second@example.org\nTo: t1@example.org\nTo: t2@example.org\n"
        "Subject: first subject\nSubject: second subject\nDate: Fri, 21 Feb 1997 09:00:00 +0000\n"
        "Date: Sat, 22 Feb 1997 09:00:00 +0000\n\nx\n")
    add("envelope-empty-values", "From: a@example.org\nSubject:\nTo: \nCc:   \nIn-Reply-To:\n"
        "Date: Sat, 22 Feb 1997 09:00:00 +0000\n\nx\n")
    add("envelope-none", "X-Only: nothing an envelope uses\n\nbody\n")
    add("header-case-and-space", "FROM: upper@example.org\nsubject: lower case name\ndate:Sun, 23 Feb 1997 09:00:00 +0000\n"
        "To:    lots-of-blanks@example.org   \nmime-version: 1.0\ncontent-type: TEXT/HTML\n\n<p/>\n")

    # --- 8-bit headers --------------------------------------------------------
    add("eightbit-headers-utf8", "From: Jürgen Müller <jm@example.de>\nTo: Zoë <zoe@example.org>\n"
        "Subject: Grüße — ünïcode subject\nDate: Mon, 24 Feb 1997 09:00:00 +0000\nMIME-Version: 1.0\n"
        "Content-Type: text/plain; charset=utf-8; name=\"naïve.txt\"\nContent-Transfer-Encoding: 8bit\n\nÜ\n")
    add("eightbit-headers-latin1", "From: Andr\xe9 <andre@example.fr>\nSubject: caf\xe9 cr\xe8me\n"
        "Date: Tue, 25 Feb 1997 09:00:00 +0000\n\nx\n".encode("latin-1"))
    add("header-specials-in-strings", "From: \"Back\\\\slash\" <bs@example.org>\n"
        "Subject: quote \" and backslash \\ and {braces} and %percent\nDate: Wed, 26 Feb 1997 09:00:00 +0000\n\nx\n")

    # --- Real-world shapes ----------------------------------------------------
    add("missing-final-boundary", base_header(rng) + multipart("mixed", "nofinal", [
        "Content-Type: text/plain\n\nfirst\n", "Content-Type: text/plain\n\nsecond, never closed\n"],
        close=False))
    add("missing-boundary-parameter", base_header(rng) + "Content-Type: multipart/mixed\n\n"
        "--whatever\nContent-Type: text/plain\n\nx\n--whatever--\n")
    add("boundary-mismatch", base_header(rng) + "Content-Type: multipart/mixed; boundary=\"expected\"\n\n"
        "--actual\nContent-Type: text/plain\n\nx\n--actual--\n")
    add("bad-base64", base_header(rng) + multipart("mixed", "badb64", [
        "Content-Type: text/plain\n\nsee attachment\n",
        "Content-Type: application/octet-stream\nContent-Transfer-Encoding: base64\n\n"
        "SGVsbG8gd29ybGQ=garbage!!*&\nnot base64 at all\n===\n"]))
    add("bad-qp", base_header(rng) + "Content-Type: text/plain\nContent-Transfer-Encoding: quoted-printable\n\n"
        "bad =ZZ hex and = lone equals and =4\n")
    add("bare-lf-plain", base_header(rng) + "Content-Type: text/plain\n\n" + lorem(rng, 5), LF_ONLY)
    add("bare-lf-multipart", base_header(rng) + multipart("alternative", "lfb", [
        part("text/plain", lorem(rng, 3)), part("text/html", "<p>x</p>\n")]), LF_ONLY)
    add("bare-lf-nested-message", base_header(rng) + multipart("mixed", "lfm", [
        "Content-Type: message/rfc822\n\nFrom: in@example.org\nSubject: lf inner\n\ninner\nlines\n"]), LF_ONLY)
    long_subject = " ".join("word%d" % k for k in range(180))
    add("long-header-lines", base_header(rng, subject=long_subject) + "X-Long: " + "y" * 1200 + "\n"
        "To: " + ", ".join("r%d@example.org" % k for k in range(40)) + "\n\nx\n")
    # A part header longer than any fixed line buffer a parser might use.
    add("long-part-header", base_header(rng) + multipart("mixed", "lph", [
        "Content-Type: application/octet-stream; name=\"" + "n" * 20000 + ".bin\"\n"
        "Content-Transfer-Encoding: base64\nContent-Description: after the long line\n\n" + b64(b"x" * 30),
        "Content-Type: text/plain\n\nlast part\n"]))
    folded = "a folded\n subject that\n\tcontinues over\n   three lines"
    add("folded-headers", "From: Folded\n Name <folded@example.org>\nTo: one@example.org,\n two@example.org\n"
        "Subject: " + folded + "\nDate: Thu, 27 Feb 1997\n 09:00:00 +0000\n\nx\n")
    add("empty-body", base_header(rng) + "Content-Type: text/plain\n\n")
    add("header-only-no-blank-line", "From: h@example.org\nSubject: header only\nDate: Fri, 28 Feb 1997 09:00:00 +0000\n")
    add("no-mime-version-with-content-headers", base_header(rng, mime=False) +
        "Content-Type: text/html; charset=utf-8\nContent-Transfer-Encoding: quoted-printable\n\n<p>=C3=A9</p>\n")
    add("mime-version-after-content", base_header(rng, mime=False) +
        "Content-Type: text/html; charset=utf-8\nMIME-Version: 1.0\n\n<p>late mime version</p>\n")
    add("mime-version-odd", base_header(rng, mime=False) + "MIME-Version: 1.0 (produced by tool)\n"
        "Content-Type: text/plain; charset=us-ascii\n\nx\n")
    add("multipart-nested-encoding", base_header(rng) + "Content-Type: multipart/mixed; boundary=nb\n"
        "Content-Transfer-Encoding: base64\n\n" + b64(b"--nb\r\n\r\nx\r\n--nb--\r\n"))
    add("boundary-prefix-of-other", base_header(rng) + multipart("mixed", "b", [
        multipart("alternative", "bb", ["Content-Type: text/plain\n\ninner a\n",
                                         "Content-Type: text/plain\n\ninner b\n"]),
        "Content-Type: text/plain\n\nouter\n"]))
    add("boundary-with-trailing-space", base_header(rng) + "Content-Type: multipart/mixed; boundary=\"ws\"\n\n"
        "--ws   \nContent-Type: text/plain\n\nx\n--ws--  \n")
    add("mixed-line-ends", (base_header(rng) + "Content-Type: text/plain\n\n").replace("\n", "\r\n") +
        "lf line\ncrlf line\r\nlf again\n", LF_ONLY)
    add("control-bytes-binary", base_header(rng) + "Content-Type: application/octet-stream\n"
        "Content-Transfer-Encoding: binary\n\n" + "a\x01b\x7fc\n")
    add("long-body-lines", base_header(rng) + "Content-Type: text/plain\n\n" + "z" * 5000 + "\n" + lorem(rng, 200))

    # --- Generated variations -------------------------------------------------
    # Random trees of the shapes above, so the comparison also sees mixes
    # nobody wrote by hand.
    def rand_leaf(depth):
        kind = rng.randrange(6)
        if kind == 0:
            return part("text/plain; charset=%s" % rng.choice(["us-ascii", "UTF-8", "\"iso-8859-1\""]),
                        lorem(rng, rng.randint(0, 6)), rng.choice([None, "7bit", "8bit"]))
        if kind == 1:
            return part("text/html", qp("<p>%s</p>\n" % lorem(rng, 2)), "quoted-printable")
        if kind == 2:
            return part("application/octet-stream; name=\"f%d.bin\"" % rng.randrange(100),
                        b64(bytes(rng.randrange(256) for _ in range(rng.randint(0, 400)))), "base64")
        if kind == 3:
            return part("image/gif", b64(b"GIF89a" + bytes(rng.randrange(256) for _ in range(60))), "base64",
                        "Content-ID: <g%d@example.org>\n" % rng.randrange(1000))
        if kind == 4 and depth < 3:
            return ("Content-Type: message/rfc822\n\nFrom: r%d@example.org\nSubject: inner %d\n"
                    "MIME-Version: 1.0\n" % (depth, depth)) + rand_tree(depth + 1)
        return "Content-Type: text/plain\nContent-Description: note %d\n\nnote\n" % depth

    def rand_tree(depth):
        if depth >= 3 or rng.random() < 0.3:
            return rand_leaf(depth)
        sub = rng.choice(["mixed", "alternative", "related"])
        bnd = "gen-%d-%d" % (depth, rng.randrange(10 ** 6))
        return multipart(sub, bnd, [rand_tree(depth + 1) for _ in range(rng.randint(1, 4))])

    for k in range(16):
        tree = rand_tree(0)
        add("generated-%02d" % k, base_header(rng) + tree, LF_ONLY if k % 5 == 4 else CRLF)


def main(argv):
    if len(argv) < 2:
        print("usage: make_corpus.py OUTDIR [--seed N]", file=sys.stderr)
        return 2
    out = argv[1]
    seed = 4711
    if len(argv) >= 4 and argv[2] == "--seed":
        seed = int(argv[3])
    build(random.Random(seed))
    os.makedirs(out, exist_ok=True)
    for k, (name, text, storage) in enumerate(messages, 1):
        data = text.replace(b"\r\n", b"\n")
        if name == "mixed-line-ends":
            data = text  # keep the deliberate mix
        elif storage == CRLF:
            data = data.replace(b"\n", b"\r\n")
        with open(os.path.join(out, "%03d-%s.eml" % (k, name)), "wb") as f:
            f.write(data)
    print("%d messages in %s" % (len(messages), out))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
