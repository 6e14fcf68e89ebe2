#include "src/security/pgp_mime.h"

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstring>

#include "c-client/core/env.h"
#include "c-client/core/mail.h"
#include "c-client/rfc822/rfc822.h"
#include "c-client/rfc822/rfc822_write.h"
#include "rclib/safe_file.h"
#include "src/base/base64.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "src/security/pgp.h"

namespace {

constexpr uint32_t kTracePgp = kTraceCompose;

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

int Fail(int code) {
  pgp_set_last_error(code);
  return 0;
}

// The end of the header block: the offset of the body, or npos.
size_t HeaderEnd(std::string_view text) {
  size_t at = 0;
  while (at < text.size() && at <= kPgpMimeMaxHeader) {
    size_t nl = text.find('\n', at);
    if (nl == std::string_view::npos) return std::string_view::npos;
    std::string_view line = text.substr(at, nl - at);
    if (line.empty() || line == "\r") return nl + 1;
    at = nl + 1;
  }
  return std::string_view::npos;
}

// A header's unfolded value (first occurrence), name without the colon.
bool HeaderValue(std::string_view header, const char* name, std::string* value) {
  size_t len = std::strlen(name);
  size_t at = 0;
  while (at < header.size()) {
    size_t nl = header.find('\n', at);
    if (nl == std::string_view::npos) nl = header.size();
    std::string_view line = header.substr(at, nl - at);
    at = nl + 1;
    if (line.size() <= len || line[len] != ':' || strncasecmp(line.data(), name, len) != 0) continue;
    std::string v(line.substr(len + 1));
    while (at < header.size() && (header[at] == ' ' || header[at] == '\t')) {
      size_t next = header.find('\n', at);
      if (next == std::string_view::npos) next = header.size();
      v.append(header.substr(at, next - at));
      at = next + 1;
    }
    for (char& c : v)
      if (c == '\r') c = ' ';
    *value = v;
    return true;
  }
  return false;
}

bool ReadFile(const char* path, std::string* out) {
  FILE* f = safe_fopen_read(path);
  if (!f) return false;
  out->clear();
  char buf[65536];
  size_t n;
  bool ok = true;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) {
    if (out->size() + n > kPgpMimeMaxEntity) {
      ok = false;
      break;
    }
    out->append(buf, n);
  }
  ok = ok && !std::ferror(f);
  std::fclose(f);
  return ok;
}

std::string NewBoundary(std::string_view content) {
  for (;;) {
    unsigned char raw[12] = {};
    int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
      (void)!read(fd, raw, sizeof raw);
      close(fd);
    }
    std::string b = "=_vpgp_";
    char hex[3];
    for (unsigned char c : raw) {
      std::snprintf(hex, sizeof hex, "%02x", c);
      b += hex;
    }
    if (content.find(b) == std::string_view::npos) return b;
  }
}

// A private directory with its files, wiped and removed when done.
struct Scratch {
  std::string dir;
  std::vector<std::string> files;
  std::string File(const char* name) {
    files.push_back(JoinPath(dir, name));
    return files.back();
  }
  ~Scratch() {
    for (const std::string& f : files) pgp_clear_remove_file(f.c_str());
    if (!dir.empty()) rmdir(dir.c_str());
  }
};

bool WriteScratch(const std::string& path, std::string_view data) {
  if (safe_replace_file(path, data, 0600)) return true;
  Trace(kTracePgp, kTraceCritical, "pgp_mime: cannot write \"%s\"\n", path.c_str());
  return false;
}

// Reads the part file and makes it ready for signing or encryption.
int LoadPart(const char* caller, const char* part, bool for_signing, std::string* canonical) {
  std::string text;
  if (!ReadFile(part, &text)) {
    Trace(kTracePgp, kTraceCritical, "%s: cannot read the part \"%s\"\n", caller, part);
    return Fail(kPgpErrFileMissing);
  }
  if (HeaderEnd(text) == std::string::npos) {
    Trace(kTracePgp, kTraceCritical, "%s: \"%s\" is not a MIME part (no blank line after its header)\n", caller,
          part);
    return Fail(kPgpErrSetup);
  }
  if (for_signing) {
    // A signature covers exact bytes: a transport that recodes 8-bit text or
    // strips blanks at line ends would break it on the way.
    size_t line = 1;
    for (size_t i = 0; i < text.size(); ++i) {
      unsigned char c = static_cast<unsigned char>(text[i]);
      if (c == '\n') {
        size_t j = i;
        if (j > 0 && text[j - 1] == '\r') --j;
        if (j > 0 && (text[j - 1] == ' ' || text[j - 1] == '\t')) {
          Trace(kTracePgp, kTraceCritical, "%s: line %zu of the part ends in a blank; encode the part first\n",
                caller, line);
          return Fail(kPgpErrSetup);
        }
        ++line;
      } else if (c >= 0x80 || c == 0) {
        Trace(kTracePgp, kTraceCritical, "%s: line %zu of the part is not 7-bit; encode the part first\n", caller,
              line);
        return Fail(kPgpErrSetup);
      }
    }
  }
  *canonical = pgp_mime_canonical(text);
  return 1;
}

}  // namespace

std::string pgp_mime_canonical(std::string_view text) {
  std::string out;
  out.reserve(text.size() + text.size() / 40);
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) out.push_back('\r');
    out.push_back(text[i]);
  }
  return out;
}

bool pgp_mime_split(std::string_view e, PgpMimeEntity* out, std::string* error) {
  *out = PgpMimeEntity();
  if (e.size() > kPgpMimeMaxEntity) {
    *error = "the message is larger than the limit";
    return false;
  }
  size_t body = HeaderEnd(e);
  if (body == std::string_view::npos) {
    *error = "no blank line ends the header";
    return false;
  }
  out->body_offset = body;
  std::string_view header = e.substr(0, body);
  std::string value;
  if (HeaderValue(header, "Content-Transfer-Encoding", &value)) {
    size_t a = value.find_first_not_of(" \t"), z = value.find_last_not_of(" \t");
    out->transfer_encoding = a == std::string::npos ? "" : Lower(value.substr(a, z - a + 1));
  }
  if (!HeaderValue(header, "Content-Type", &value)) {
    out->type = "text/plain";
    return true;
  }
  BodyPart* b = mail_newbody();
  rfc822_parse_content_header(b, const_cast<char*>("TYPE"), value.data());
  out->type = Lower(std::string(body_types[b->type]) + "/" + (b->subtype ? b->subtype : ""));
  out->boundary = rfc822_parameter(b->parameter, "BOUNDARY").value;
  out->protocol = Lower(rfc822_parameter(b->parameter, "PROTOCOL").value);
  out->micalg = Lower(rfc822_parameter(b->parameter, "MICALG").value);
  bool multipart = b->type == TYPEMULTIPART;
  mail_free_body(&b);
  if (!multipart) return true;
  if (out->boundary.empty() || out->boundary.size() > kPgpMimeMaxBoundary) {
    *error = "the multipart part has no usable boundary";
    return false;
  }
  std::string delimiter = "--" + out->boundary;
  size_t at = body, part_start = 0;
  bool in_part = false;
  while (at < e.size()) {
    size_t nl = e.find('\n', at);
    size_t end = nl == std::string_view::npos ? e.size() : nl;
    std::string_view line = e.substr(at, end - at);
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) line.remove_suffix(1);
    bool close = line.size() == delimiter.size() + 2 && line.substr(0, delimiter.size()) == delimiter &&
                 line.substr(delimiter.size()) == "--";
    if (line == delimiter || close) {
      if (in_part) {
        // The line break before a delimiter belongs to the delimiter.
        size_t stop = at;
        if (stop > part_start && e[stop - 1] == '\n') --stop;
        if (stop > part_start && e[stop - 1] == '\r') --stop;
        if (out->parts.size() >= kPgpMimeMaxParts) {
          *error = "the multipart part has too many parts";
          return false;
        }
        out->parts.push_back(e.substr(part_start, stop - part_start));
      }
      if (close) return true;
      in_part = true;
      part_start = nl == std::string_view::npos ? e.size() : nl + 1;
    }
    at = nl == std::string_view::npos ? e.size() : nl + 1;
  }
  *error = "the multipart part has no closing delimiter";
  return false;
}

bool pgp_mime_part_body(std::string_view part, std::string* body, std::string* error) {
  PgpMimeEntity inner;
  std::string_view text = part;
  size_t offset = 0;
  // A part may start right with its body after an empty header.
  if (!part.empty() && (part[0] == '\n' || part.substr(0, 2) == "\r\n")) {
    offset = part[0] == '\n' ? 1 : 2;
  } else if (pgp_mime_split(part, &inner, error)) {
    offset = inner.body_offset;
  } else {
    return false;
  }
  text = part.substr(offset);
  if (inner.transfer_encoding == "base64") {
    if (!Base64Decode(text.data(), text.size(), body)) {
      *error = "the part's base64 is damaged";
      return false;
    }
  } else if (inner.transfer_encoding == "quoted-printable") {
    unsigned long len = 0;
    unsigned char* d = rfc822_qprint(reinterpret_cast<const unsigned char*>(text.data()), text.size(), &len);
    if (!d) {
      *error = "the part's quoted-printable is damaged";
      return false;
    }
    body->assign(reinterpret_cast<char*>(d), len);
    FS_GIVE(&d);
  } else {
    body->assign(text);
  }
  return true;
}

bool pgp_use_mime() {
  short on = 1;
  Opt_LookupBoolean(kPgpMimeOption, &on, kOptSession);
  return on != 0;
}

int pgp_mime_get_type(const char* file) {
  FILE* f = safe_fopen_read(file);
  if (!f) {
    pgp_set_last_error(kPgpErrFileType);
    return kPgpTypeError;
  }
  std::string head(kPgpMimeMaxHeader + 2, '\0');
  head.resize(std::fread(head.data(), 1, head.size(), f));
  std::fclose(f);
  size_t end = HeaderEnd(head);
  if (end == std::string::npos) return kPgpMimeNone;
  std::string value;
  std::string_view header(head.data(), end);
  if (!HeaderValue(header, "Content-Type", &value)) return kPgpMimeNone;
  BodyPart* b = mail_newbody();
  rfc822_parse_content_header(b, const_cast<char*>("TYPE"), value.data());
  std::string sub = Lower(b->subtype ? b->subtype : "");
  std::string protocol = Lower(rfc822_parameter(b->parameter, "PROTOCOL").value);
  bool multipart = b->type == TYPEMULTIPART;
  mail_free_body(&b);
  if (multipart && sub == "signed" && protocol == "application/pgp-signature") return kPgpMimeSigned;
  if (multipart && sub == "encrypted" && protocol == "application/pgp-encrypted") return kPgpMimeEncrypted;
  return kPgpMimeNone;
}

namespace {

int Protect(const char* caller, const char* part, const char* out, const char* recipients, const char* user_id,
            const std::string& pass_phrase, bool encrypt, bool sign) {
  std::string data;
  if (!LoadPart(caller, part, !encrypt, &data)) return 0;
  Scratch s;
  s.dir = pgp_make_private_dir();
  if (s.dir.empty()) return 0;
  std::string in = s.File("d"), result = s.File("r.asc");
  if (!WriteScratch(in, data)) return Fail(kPgpErrSetup);
  std::string command;
  char buf[3000];
  int n;
  if (!encrypt)
    n = std::snprintf(buf, sizeof buf, "+for \"%s\" -o \"%s\" -sab -u \"%s\" +bat", in.c_str(), result.c_str(),
                      user_id);
  else if (sign)
    n = std::snprintf(buf, sizeof buf, "+for \"%s\" -o \"%s\" -esa %s -u \"%s\" +bat", in.c_str(), result.c_str(),
                      recipients, user_id);
  else
    n = std::snprintf(buf, sizeof buf, "+for \"%s\" -o \"%s\" -ea %s +bat", in.c_str(), result.c_str(), recipients);
  if (n < 0 || static_cast<size_t>(n) >= kPgpMaxCommand) {
    Trace(kTracePgp, kTraceCritical, "%s: PGP command too long [%d]\n", caller, n);
    return Fail(kPgpErrCommandTooLong);
  }
  command = buf;
  if (!pgp_execute(caller, command, (sign || !encrypt) ? &pass_phrase : nullptr, 0, 0, 0)) {
    if (pgp_get_last_error() == kPgpErrGeneral) pgp_set_last_error(encrypt ? kPgpErrEncrypt : kPgpErrSignCreate);
    return 0;
  }
  std::string armour;
  if (!ReadFile(result.c_str(), &armour) || armour.empty()) return Fail(encrypt ? kPgpErrEncrypt : kPgpErrSignCreate);
  armour = pgp_mime_canonical(armour);
  if (armour.size() < 2 || armour.substr(armour.size() - 2) != "\r\n") armour += "\r\n";
  std::string boundary = NewBoundary(data + armour);
  std::string text;
  if (!encrypt) {
    text = "Content-Type: multipart/signed; micalg=" + std::string(kPgpMimeMicalg) +
           ";\r\n protocol=\"application/pgp-signature\";\r\n boundary=\"" + boundary +
           "\"\r\n\r\nThis is an OpenPGP/MIME signed message.\r\n--" + boundary + "\r\n" + data;
    // The line break before a delimiter belongs to the delimiter, not to
    // the signed bytes.
    text += "\r\n--" + boundary +
            "\r\nContent-Type: application/pgp-signature; name=\"signature.asc\"\r\n"
            "Content-Description: OpenPGP digital signature\r\n"
            "Content-Disposition: attachment; filename=\"signature.asc\"\r\n\r\n" +
            armour + "\r\n--" + boundary + "--\r\n";
  } else {
    text = "Content-Type: multipart/encrypted;\r\n protocol=\"application/pgp-encrypted\";\r\n boundary=\"" +
           boundary + "\"\r\n\r\nThis is an OpenPGP/MIME encrypted message.\r\n--" + boundary +
           "\r\nContent-Type: application/pgp-encrypted\r\n"
           "Content-Description: PGP/MIME version identification\r\n\r\nVersion: 1\r\n\r\n--" +
           boundary +
           "\r\nContent-Type: application/octet-stream; name=\"encrypted.asc\"\r\n"
           "Content-Description: OpenPGP encrypted message\r\n"
           "Content-Disposition: inline; filename=\"encrypted.asc\"\r\n\r\n" +
           armour + "\r\n--" + boundary + "--\r\n";
  }
  if (!safe_replace_file(out, text, 0600)) {
    Trace(kTracePgp, kTraceCritical, "%s: cannot write \"%s\"\n", caller, out);
    return Fail(kPgpErrSetup);
  }
  return 1;
}

// Reads an entity and checks that its top is the kind asked for.
int Open(const char* caller, const char* entity, const char* subtype, const char* protocol, std::string* text,
         PgpMimeEntity* e) {
  if (!ReadFile(entity, text)) {
    Trace(kTracePgp, kTraceCritical, "%s: cannot read \"%s\"\n", caller, entity);
    return Fail(kPgpErrFileMissing);
  }
  std::string error;
  if (!pgp_mime_split(*text, e, &error)) {
    Trace(kTracePgp, kTraceCritical, "%s: %s\n", caller, error.c_str());
    return Fail(kPgpErrCorrupt);
  }
  if (e->type != std::string("multipart/") + subtype || e->protocol != protocol || e->parts.size() != 2) {
    Trace(kTracePgp, kTraceCritical, "%s: not an OpenPGP/MIME %s part (%s, %s, %zu parts)\n", caller, subtype,
          e->type.c_str(), e->protocol.c_str(), e->parts.size());
    return Fail(kPgpErrFileType);
  }
  return 1;
}

}  // namespace

int pgp_mime_sign(const char* part, const char* out, const char* user_id, const std::string& pass_phrase) {
  return Protect("pgp_mime_sign", part, out, nullptr, user_id, pass_phrase, false, true);
}

int pgp_mime_encrypt(const char* part, const char* out, const char* recipients, const char* user_id,
                     const std::string& pass_phrase, int sign) {
  return Protect("pgp_mime_encrypt", part, out, recipients, user_id, pass_phrase, true, sign != 0);
}

int pgp_mime_decrypt(const char* entity, const char* out, const std::string& pass_phrase) {
  std::string text, armour, error;
  PgpMimeEntity e;
  if (!Open("pgp_mime_decrypt", entity, "encrypted", "application/pgp-encrypted", &text, &e)) return 0;
  if (!pgp_mime_part_body(e.parts[1], &armour, &error)) {
    Trace(kTracePgp, kTraceCritical, "pgp_mime_decrypt: %s\n", error.c_str());
    return Fail(kPgpErrCorrupt);
  }
  Scratch s;
  s.dir = pgp_make_private_dir();
  if (s.dir.empty()) return 0;
  std::string in = s.File("e.asc"), plain = s.File("p");
  if (!WriteScratch(in, armour)) return Fail(kPgpErrSetup);
  std::string command = "+for \"" + in + "\" -o \"" + plain + "\" +bat";
  if (command.size() >= kPgpMaxCommand) return Fail(kPgpErrCommandTooLong);
  if (!pgp_execute("pgp_mime_decrypt", command, &pass_phrase, 0, 0, 0)) {
    if (pgp_get_last_error() == kPgpErrGeneral) pgp_set_last_error(kPgpErrDecrypt);
    return 0;
  }
  std::string result;
  if (!ReadFile(plain.c_str(), &result)) return Fail(kPgpErrDecrypt);
  bool ok = safe_replace_file(out, result, 0600);
  explicit_bzero(result.data(), result.size());
  return ok ? 1 : Fail(kPgpErrSetup);
}

int pgp_mime_verify(const char* entity, const char* out) {
  std::string text, signature, error;
  PgpMimeEntity e;
  if (!Open("pgp_mime_verify", entity, "signed", "application/pgp-signature", &text, &e)) return 0;
  if (!pgp_mime_part_body(e.parts[1], &signature, &error)) {
    Trace(kTracePgp, kTraceCritical, "pgp_mime_verify: %s\n", error.c_str());
    return Fail(kPgpErrCorrupt);
  }
  Scratch s;
  s.dir = pgp_make_private_dir();
  if (s.dir.empty()) return 0;
  std::string sig = s.File("s.asc"), data = s.File("d");
  if (!WriteScratch(sig, signature) || !WriteScratch(data, pgp_mime_canonical(e.parts[0]))) return Fail(kPgpErrSetup);
  std::string command = "+for \"" + sig + "\" \"" + data + "\" +bat";
  if (command.size() >= kPgpMaxCommand) return Fail(kPgpErrCommandTooLong);
  if (!pgp_execute("pgp_mime_verify", command, nullptr, 0, 0, 1)) {
    if (pgp_get_last_error() == kPgpErrGeneral) pgp_set_last_error(kPgpErrNotVerified);
    return 0;
  }
  if (out && !safe_replace_file(out, e.parts[0], 0600)) return Fail(kPgpErrSetup);
  return 1;
}
