// velmar-parse: shows how the mail layer reads a message file.
//
//   velmar-parse [--header] [--host NAME] FILE...
//
// For each file it prints a block: the file name, optionally the header as
// found, then the envelope and the body structure that the local mail stores
// would keep for it, written as an IMAP server writes FETCH ENVELOPE and
// FETCH BODYSTRUCTURE (with the parts' parameters and dispositions; the
// records keep no MD5, language or location). The same form lets a user put a server's view next to ours,
// and lets the differential test compare the two field by field. Parser
// warnings follow as WARNING lines. Exit status: 0, or 1 if a file could
// not be read (the others are still shown), 2 for bad arguments.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"
#include "c-client/rfc822/rfc822.h"
#include "c-client/rfc822/strsrc.h"
#include "rclib/safe_file.h"

namespace {

// The local mail stores parse at most this much of a header; showing the
// same cut keeps the tool's answer equal to what the program shows.
constexpr size_t kMaxParsedHeader = 65000;

struct Options {
  bool show_header = false;
  std::string host;
  std::vector<std::string> files;
};

// --- IMAP output forms ---------------------------------------------------

// A string the way servers send it: a literal when a quoted string cannot
// carry it (line ends, 8-bit bytes, and the double quote, which servers
// prefer to send as a literal), else a quoted string.
void put_string(std::string& out, const char* s) {
  if (!s) {
    out += "NIL";
    return;
  }
  size_t n = std::strlen(s);
  bool literal = false;
  for (size_t i = 0; i < n && !literal; ++i) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    literal = c == '\r' || c == '\n' || c == '"' || c >= 0x80;
  }
  if (literal) {
    out += "{" + std::to_string(n) + "}\r\n";
    out.append(s, n);
    return;
  }
  out += '"';
  for (size_t i = 0; i < n; ++i) {
    if (s[i] == '"' || s[i] == '\\') out += '\\';
    out += s[i];
  }
  out += '"';
}

// Our records already use the protocol's group form: a group opens with a
// record that has only a mailbox (the group's name) and closes with an
// empty record, so they print one to one.
void put_addresses(std::string& out, const MailAddress* a) {
  if (!a) {
    out += "NIL";
    return;
  }
  out += '(';
  for (; a; a = a->next) {
    out += '(';
    put_string(out, a->personal);
    out += ' ';
    put_string(out, a->adl);
    out += ' ';
    put_string(out, a->mailbox);
    out += ' ';
    put_string(out, a->host);
    out += ')';
  }
  out += ')';
}

void put_envelope(std::string& out, const Envelope* env) {
  static const Envelope kEmpty{};
  if (!env) env = &kEmpty;
  out += '(';
  put_string(out, env->date);
  out += ' ';
  put_string(out, env->subject);
  for (const MailAddress* list : {env->from, env->sender, env->reply_to, env->to, env->cc, env->bcc}) {
    out += ' ';
    put_addresses(out, list);
  }
  out += ' ';
  put_string(out, env->in_reply_to);
  out += ' ';
  put_string(out, env->message_id);
  out += ')';
}

const char* type_name(unsigned short type) {
  return type <= TYPEOTHER ? body_types[type] : body_types[TYPEOTHER];
}

const char* encoding_name(unsigned short encoding) {
  return encoding <= ENCOTHER ? body_encodings[encoding] : body_encodings[ENCOTHER];
}

// Things the protocol cannot say but a reader should know, with the part
// they concern ("1.2"; "" for the message itself).
struct Notes {
  std::vector<std::string> lines;
  void add(const std::string& section, const std::string& text) {
    lines.push_back((section.empty() ? std::string("message") : "part " + section) + ": " + text);
  }
};

std::string child_section(const std::string& parent, int n) {
  return parent.empty() ? std::to_string(n) : parent + "." + std::to_string(n);
}

// A part the protocol needs but the record lacks (a multipart without
// parts, a message/rfc822 that was not parsed): servers put an empty text
// part there, and so do we, with a note saying so. It is the part our
// parser makes of an empty text, charset included.
void put_empty_text(std::string& out) {
  out += "(\"TEXT\" \"PLAIN\" (\"CHARSET\" \"US-ASCII\") NIL NIL \"7BIT\" 0 0)";
}

void put_body(std::string& out, const BodyPart* b, const std::string& section, int depth, Notes& notes);

void put_parameters(std::string& out, const BodyParameter* list) {
  if (!list) {
    out += "NIL";
    return;
  }
  out += '(';
  for (const BodyParameter* p = list; p; p = p->next) {
    if (p != list) out += ' ';
    put_string(out, p->attribute);
    out += ' ';
    put_string(out, p->value);
  }
  out += ')';
}

// The disposition as extension data writes it: ("TYPE" (params)) or NIL.
void put_disposition(std::string& out, const BodyPart* b) {
  out += ' ';
  if (!b->disposition) {
    out += "NIL";
    return;
  }
  out += '(';
  put_string(out, b->disposition);
  out += ' ';
  put_parameters(out, b->disposition_parameter);
  out += ')';
}

void put_multipart(std::string& out, const BodyPart* b, const std::string& section, int depth, Notes& notes) {
  out += '(';
  int n = 0;
  for (const BodyPartNode* p = b->parts; p; p = p->next) put_body(out, &p->body, child_section(section, ++n), depth + 1, notes);
  if (n == 0) {
    put_empty_text(out);
    notes.add(section, "multipart without parts; shown with one empty TEXT/PLAIN part, as a server would");
  }
  out += ' ';
  put_string(out, b->subtype ? b->subtype : rfc822_default_subtype(b->type));
  out += ' ';
  put_parameters(out, b->parameter);
  put_disposition(out, b);
  out += ')';
}

void put_body(std::string& out, const BodyPart* b, const std::string& section, int depth, Notes& notes) {
  // The parser bounds its own nesting; this keeps the printer safe on a
  // record from anywhere else.
  if (depth > kRfc822MaxDepth + 2) {
    put_empty_text(out);
    notes.add(section, "nesting too deep to print");
    return;
  }
  if (b->type == TYPEMULTIPART) {
    put_multipart(out, b, section, depth, notes);
    return;
  }
  out += '(';
  put_string(out, type_name(b->type));
  out += ' ';
  put_string(out, b->subtype ? b->subtype : rfc822_default_subtype(b->type));
  out += ' ';
  put_parameters(out, b->parameter);
  out += ' ';
  put_string(out, b->id);
  out += ' ';
  put_string(out, b->description);
  out += ' ';
  put_string(out, encoding_name(b->encoding));
  out += ' ' + std::to_string(b->size_bytes);
  bool rfc822 = b->type == TYPEMESSAGE && b->subtype && std::strcmp(b->subtype, "RFC822") == 0;
  if (rfc822) {
    out += ' ';
    put_envelope(out, b->msg_env);
    out += ' ';
    if (b->msg_body) {
      // The nested message's parts are numbered below this part, as IMAP does.
      put_body(out, b->msg_body, section.empty() ? "1" : section, depth + 1, notes);
    } else {
      put_empty_text(out);
      notes.add(section, "message/rfc822 whose contents were not parsed; shown with an empty TEXT/PLAIN body");
    }
  }
  if (rfc822 || b->type == TYPETEXT) out += ' ' + std::to_string(b->size_lines);
  out += " NIL";  // no MD5
  put_disposition(out, b);
  out += ')';
}

// --- Reading a file ------------------------------------------------------

// Length of the header block including the empty line that ends it, or the
// whole file when there is none. Reads in pieces so that a huge body is
// never loaded.
bool find_header_end(int fd, unsigned long file_size, unsigned long* header_size, std::string* error) {
  char buf[8192];
  unsigned long pos = 0;
  // State: 0 inside a line, 1 just after LF, 2 after LF then CR.
  int state = 1;
  while (pos < file_size) {
    ssize_t got = pread(fd, buf, sizeof buf, static_cast<off_t>(pos));
    if (got < 0) {
      if (errno == EINTR) continue;
      *error = std::strerror(errno);
      return false;
    }
    if (got == 0) break;
    for (ssize_t i = 0; i < got; ++i) {
      char c = buf[i];
      if (c == '\n') {
        if (state == 1 || state == 2) {
          // A line end at the very start means an empty header.
          *header_size = pos + i + 1;
          return true;
        }
        state = 1;
      } else if (c == '\r' && state == 1) {
        state = 2;
      } else if (c != '\r') {
        state = 0;
      }
    }
    pos += static_cast<unsigned long>(got);
  }
  *header_size = file_size;
  return true;
}

bool read_exact(int fd, char* to, size_t size, unsigned long offset, std::string* error) {
  size_t done = 0;
  while (done < size) {
    ssize_t got = pread(fd, to + done, size - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      *error = got < 0 ? std::strerror(errno) : "file shrank while being read";
      return false;
    }
    done += static_cast<size_t>(got);
  }
  return true;
}

void print_header_block(const std::string& header) {
  std::fputs("HEADER\n", stdout);
  size_t start = 0;
  while (start < header.size()) {
    size_t end = header.find('\n', start);
    if (end == std::string::npos) end = header.size();
    std::string line = header.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty()) std::printf("  %s\n", line.c_str());
    start = end + 1;
  }
}

// Parses one file and prints its block; false (with a message on standard
// error) if the file could not be read.
bool show_file(const std::string& path, const Options& opt) {
  // A FIFO or a device named here would block a plain open (a FIFO until
  // some writer comes): only a regular file is read.
  SafeFileError failure;
  int fd = safe_open_read(path.c_str(), &failure);
  std::string error;
  struct stat st {};
  if (fd < 0)
    error = failure.error == EINVAL ? "not a regular file" : std::strerror(failure.error);
  else if (fstat(fd, &st) != 0)
    error = std::strerror(errno);
  if (!error.empty()) {
    if (fd >= 0) close(fd);
    std::fprintf(stderr, "velmar-parse: cannot read %s: %s\n", path.c_str(), error.c_str());
    return false;
  }
  unsigned long file_size = static_cast<unsigned long>(st.st_size);
  unsigned long header_size = 0;
  std::vector<char> header;
  bool ok = find_header_end(fd, file_size, &header_size, &error);
  size_t parsed_size = header_size < kMaxParsedHeader ? header_size : kMaxParsedHeader;
  if (ok) {
    header.resize(parsed_size + 1, '\0');
    ok = read_exact(fd, header.data(), parsed_size, 0, &error);
  }
  if (!ok) {
    close(fd);
    std::fprintf(stderr, "velmar-parse: cannot read %s: %s\n", path.c_str(), error.c_str());
    return false;
  }

  std::printf("FILE %s\n", path.c_str());
  if (opt.show_header) print_header_block(std::string(header.data(), parsed_size));

  FileText file_text{};
  file_text.fd = fd;
  file_text.start = header_size;
  StringSource body_source{};
  string_init(&body_source, &file_string, &file_text, file_size - header_size);

  std::vector<char> work(kRfc822WorkSize, '\0');
  Envelope* env = nullptr;
  BodyPart* body = nullptr;
  mail_env_clear();
  std::string out;
  Notes notes;
  try {
    rfc822_parse_msg(&env, &body, header.data(), parsed_size, &body_source, opt.host.c_str(), work.data());
    out += "ENVELOPE ";
    put_envelope(out, env);
    out += "\nBODYSTRUCTURE ";
    if (body) {
      put_body(out, body, "", 0, notes);
    } else {
      put_empty_text(out);
      notes.add("", "no body structure was made");
    }
    out += '\n';
  } catch (const MailFatal& f) {
    out += "\nERROR the parser stopped: " + f.text + "\n";
  }
  close(fd);
  std::fwrite(out.data(), 1, out.size(), stdout);
  if (header_size > kMaxParsedHeader)
    notes.add("", "header of " + std::to_string(header_size) + " bytes; only the first " +
                      std::to_string(kMaxParsedHeader) + " are parsed, as the mail stores do");
  for (const std::string& n : notes.lines) std::printf("NOTE %s\n", n.c_str());
  for (const MailEnvLine& line : mail_env_lines())
    if (line.callback == "log") std::printf("WARNING %s\n", line.text.c_str());
  std::fputs("\n", stdout);
  mail_env_clear();
  mail_free_envelope(&env);
  mail_free_body(&body);
  return true;
}

void usage(FILE* to) {
  std::fputs(
      "usage: velmar-parse [--header] [--host NAME] FILE...\n"
      "Shows the envelope and body structure the mail layer reads from each\n"
      "message file, in the form of an IMAP FETCH (ENVELOPE BODY) answer.\n"
      "  --header     also print the header as found in the file\n"
      "  --host NAME  host for addresses without one (default: this machine's name)\n",
      to);
}

}  // namespace

int main(int argc, char** argv) {
  Options opt;
  bool options_done = false;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (options_done || a.empty() || a[0] != '-' || a == "-") {
      opt.files.push_back(a);
    } else if (a == "--") {
      options_done = true;
    } else if (a == "--header") {
      opt.show_header = true;
    } else if (a == "--host" && i + 1 < argc) {
      opt.host = argv[++i];
    } else if (a.rfind("--host=", 0) == 0) {
      opt.host = a.substr(7);
    } else if (a == "--help" || a == "-h") {
      usage(stdout);
      return 0;
    } else {
      std::fprintf(stderr, "velmar-parse: unknown option %s\n", a.c_str());
      usage(stderr);
      return 2;
    }
  }
  if (opt.files.empty()) {
    usage(stderr);
    return 2;
  }
  if (opt.host.empty()) {
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0 || !name[0]) std::snprintf(name, sizeof name, "localhost");
    opt.host = name;
  }
  mail_env_set_echo(-1);  // warnings go into each block instead
  int status = 0;
  for (const std::string& f : opt.files)
    if (!show_file(f, opt)) status = 1;
  std::fflush(stdout);
  return status;
}
