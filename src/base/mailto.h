// What another program asks us to compose: a mailto: link, the --compose
// command line, and the text that carries such a request to a running
// copy of the program. Pure text handling, so that the entry, the local
// server and the tests share one reading of it.
#pragma once

#include <string>
#include <vector>

// Limits on what outside programs may hand us: enough for any real link,
// small enough that a runaway caller cannot make us build a huge window.
constexpr size_t kMailtoMaxLength = 64 * 1024;     // the whole URL
constexpr size_t kMailtoMaxAddresses = 100;        // to + cc + bcc together
constexpr size_t kMailtoMaxHeaders = 64;           // hfields after "?"
constexpr size_t kMailtoMaxField = 2048;           // one decoded header value
constexpr size_t kComposeMaxBody = 256 * 1024;     // the body, decoded
constexpr size_t kComposeMaxAttachments = 64;
constexpr size_t kComposeMaxRequest = 1024 * 1024;  // an encoded request

struct ComposeRequest {
  std::vector<std::string> to, cc, bcc;
  std::string subject, body, in_reply_to;
  std::vector<std::string> attach;   // absolute paths
  std::vector<std::string> ignored;  // header names left out, for the trace
};

// True when arg is a mailto: URL (any case of the scheme).
bool IsMailtoUrl(const std::string& arg);

// Reads a mailto: URL. Only to, cc, bcc, subject, body and in-reply-to are
// taken; every other header is ignored (from, sender, attach and the like
// could make a link send as someone else or leak a file). False, with *why,
// for a URL that is malformed or over a limit; *out is then unspecified.
bool MailtoParse(const std::string& url, ComposeRequest* out, std::string* why);

// Reads the words of a command line: mailto: URLs and "--compose" with its
// --to/--cc/--bcc/--subject/--body-file/--attach options. The words that are
// not ours go to *rest in order. *found tells whether there was a request.
// Relative attachment and body paths are taken from cwd. The body file is
// read here; the attachments are checked by ComposeCheckAttachments. On a
// fault (false, *why tells the first) *rest and *found are still complete.
bool ComposeParseArgs(const std::vector<std::string>& args, const std::string& cwd, ComposeRequest* out,
                      std::vector<std::string>* rest, bool* found, std::string* why);

// Each attachment must be an absolute path of a readable regular file.
bool ComposeCheckAttachments(const ComposeRequest& request, std::string* why);

// The request as one line of printable ASCII ("key=value&..." with the
// values percent-encoded), and back. Decode keeps every limit above.
std::string ComposeRequestEncode(const ComposeRequest& request);
bool ComposeRequestDecode(const std::string& text, ComposeRequest* out, std::string* why);

// Addresses as one field's text ("a@x, b@y").
std::string ComposeJoinAddresses(const std::vector<std::string>& list);
