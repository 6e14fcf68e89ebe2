// parse_bench: how fast the mail layer reads messages, next to GMime 3.
//
//   parse_bench [MEGABYTES]      (default 200)
//
// Builds a mixed corpus in memory from a fixed seed (plain text, HTML
// alternatives, base64 attachments, nested multiparts and forwarded
// messages, encoded words in the headers), then parses every message with
// our parser (envelope and the whole body structure, the body read through a
// StringSource as the local stores do) and with GMime 3
// (g_mime_parser_construct_message, then a walk over the MIME tree touching
// what our records hold). Each side runs three times in the same process;
// the best run counts. Prints MB/s (10^6 bytes) for both and the ratio.
#include <gmime/gmime.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "bench/bench_rng.h"
#include "c-client/core/plain_env.h"
#include "c-client/rfc822/rfc822.h"
#include "c-client/rfc822/strsrc.h"

namespace {

// --- A deterministic corpus ---------------------------------------------

using Rng = BenchRng;

const char* const kWords[] = {"the",  "message", "server", "folder", "meeting", "report", "draft", "attached",
                              "see",  "below",   "thanks", "update", "quarter", "budget", "plan",  "review",
                              "next", "week",    "please", "note",   "lorem",   "ipsum",  "dolor", "amet"};
const char* const kNames[] = {"Alice Example", "Bob Smith", "Carol Jones", "Dave O'Brien", "Erin Müller"};
const char* const kHosts[] = {"example.org", "mail.example.com", "corp.example.net"};

std::string words(Rng& r, size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i) {
    if (i) s += ' ';
    s += kWords[r.below(std::size(kWords))];
  }
  return s;
}

std::string text_lines(Rng& r, size_t bytes) {
  std::string s;
  while (s.size() < bytes) s += words(r, 6 + r.below(8)) + "\r\n";
  return s;
}

std::string base64_lines(Rng& r, size_t raw_bytes) {
  static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  size_t chars = (raw_bytes + 2) / 3 * 4;
  std::string s;
  s.reserve(chars + chars / 38 + 8);
  for (size_t i = 0; i < chars; ++i) {
    s += kAlphabet[r.below(64)];
    if (i % 76 == 75) s += "\r\n";
  }
  return s + "\r\n";
}

std::string qp_html(Rng& r, size_t bytes) {
  std::string s;
  while (s.size() < bytes) s += "<p style=3D\"margin:0\">" + words(r, 8) + " =C3=A9t=C3=A9</p>=\r\n";
  return s + "\r\n";
}

std::string address(Rng& r) {
  const char* name = kNames[r.below(std::size(kNames))];
  std::string local = std::string(1, static_cast<char>('a' + r.below(26))) + std::to_string(r.below(1000));
  std::string host = kHosts[r.below(std::size(kHosts))];
  switch (r.below(4)) {
    case 0: return local + "@" + host;
    case 1: return "=?UTF-8?Q?" + std::string(name).substr(0, 5) + "=C3=BC?= <" + local + "@" + host + ">";
    case 2: return "\"" + std::string(name) + "\" <" + local + "@" + host + ">";
    default: return std::string(name) + " <" + local + "@" + host + ">";
  }
}

std::string top_header(Rng& r, int n) {
  std::string h = "Return-Path: <bounce@" + std::string(kHosts[r.below(3)]) + ">\r\n";
  h += "Received: from mx" + std::to_string(r.below(9)) + ".example.net (mx.example.net [192.0.2." +
       std::to_string(r.below(255)) + "])\r\n\tby mail.example.org with ESMTPS id " + std::to_string(r.next() % 1000000) +
       "\r\n\tfor <me@example.org>; Mon, 6 May 2024 10:00:00 +0000\r\n";
  h += "From: " + address(r) + "\r\n";
  h += "To: " + address(r);
  for (size_t i = r.below(4); i > 0; --i) h += ",\r\n " + address(r);
  h += "\r\n";
  if (r.chance(40)) h += "Cc: " + address(r) + ", " + address(r) + "\r\n";
  h += r.chance(50) ? "Subject: =?UTF-8?B?w4RydGVyIMO8YmVyIGRpZQ==?= " + words(r, 4) + "\r\n"
                    : "Subject: Re: " + words(r, 5) + "\r\n";
  h += "Date: Mon, " + std::to_string(1 + r.below(28)) + " May 2024 1" + std::to_string(r.below(10)) + ":00:00 +0200\r\n";
  h += "Message-ID: <" + std::to_string(n) + "." + std::to_string(r.next() % 100000) + "@example.org>\r\n";
  if (r.chance(50)) h += "In-Reply-To: <p" + std::to_string(n) + "@example.org>\r\n";
  h += "X-Mailer: bench\r\n";
  return h;
}

std::string boundary(Rng& r, int depth) {
  return "----=_Part_" + std::to_string(depth) + "_" + std::to_string(r.next() % 100000000);
}

std::string multipart(const std::string& subtype, const std::string& b, const std::vector<std::string>& parts) {
  std::string s = "Content-Type: multipart/" + subtype + ";\r\n\tboundary=\"" + b + "\"\r\n\r\n";
  s += "This is a multi-part message in MIME format.\r\n";
  for (const std::string& p : parts) s += "\r\n--" + b + "\r\n" + p;
  return s + "\r\n--" + b + "--\r\n";
}

std::string text_part(Rng& r, size_t bytes) {
  return "Content-Type: text/plain; charset=\"utf-8\"; format=flowed\r\nContent-Transfer-Encoding: 7bit\r\n\r\n" +
         text_lines(r, bytes);
}

std::string html_part(Rng& r, size_t bytes) {
  return "Content-Type: text/html; charset=\"utf-8\"\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n" +
         qp_html(r, bytes);
}

std::string attachment(Rng& r, size_t bytes) {
  static const char* const kTypes[] = {"application/pdf", "image/jpeg", "application/octet-stream", "image/png"};
  std::string name = words(r, 1) + std::to_string(r.below(100)) + ".bin";
  return std::string("Content-Type: ") + kTypes[r.below(4)] + "; name=\"" + name +
         "\"\r\nContent-Transfer-Encoding: base64\r\nContent-Disposition: attachment; filename=\"" + name +
         "\"\r\n\r\n" + base64_lines(r, bytes);
}

std::string alternative(Rng& r, int depth, size_t bytes) {
  return multipart("alternative", boundary(r, depth), {text_part(r, bytes / 2), html_part(r, bytes / 2)});
}

// The body of a message of one of five shapes, with its content headers.
std::string body_of_kind(Rng& r, int kind, int depth) {
  switch (kind) {
    case 0:  // plain text
      return "MIME-Version: 1.0\r\n" + text_part(r, 500 + r.below(12000));
    case 1:  // text and HTML
      return "MIME-Version: 1.0\r\n" + alternative(r, depth, 2000 + r.below(20000));
    case 2: {  // text with attachments
      std::vector<std::string> parts{text_part(r, 300 + r.below(3000))};
      for (size_t i = 1 + r.below(3); i > 0; --i) parts.push_back(attachment(r, 5000 + r.below(250000)));
      return "MIME-Version: 1.0\r\n" + multipart("mixed", boundary(r, depth), parts);
    }
    case 3: {  // nested: alternative inside mixed, a related part, an image
      std::string related = multipart("related", boundary(r, depth + 2),
                                      {html_part(r, 3000), "Content-ID: <img" + std::to_string(r.below(99)) +
                                                               "@example.org>\r\n" + attachment(r, 4000 + r.below(20000))});
      std::string alt = multipart("alternative", boundary(r, depth + 1), {text_part(r, 2000), related});
      return "MIME-Version: 1.0\r\n" + multipart("mixed", boundary(r, depth), {alt, attachment(r, 2000 + r.below(60000))});
    }
    default: {  // a forwarded message, itself multipart
      std::string inner = "From: " + address(r) + "\r\nSubject: Fwd: " + words(r, 3) +
                          "\r\nDate: Tue, 7 May 2024 09:00:00 +0000\r\n" + body_of_kind(r, static_cast<int>(r.below(4)), depth + 1);
      return "MIME-Version: 1.0\r\n" + multipart("mixed", boundary(r, depth),
                                                 {text_part(r, 800), "Content-Type: message/rfc822\r\n\r\n" + inner});
    }
  }
}

struct Corpus {
  std::string data;
  std::vector<size_t> starts;  // message i is [starts[i], starts[i+1])
  size_t count() const { return starts.size() - 1; }
};

Corpus make_corpus(size_t target_bytes) {
  Rng r{20240506};
  Corpus c;
  c.data.reserve(target_bytes + (1 << 20));
  // Weights: plain 30, alternative 25, attachments 20, nested 15, forwarded 10.
  static const int kWeights[] = {30, 25, 20, 15, 10};
  int n = 0;
  while (c.data.size() < target_bytes) {
    c.starts.push_back(c.data.size());
    int pick = static_cast<int>(r.below(100)), kind = 0;
    while (pick >= kWeights[kind]) pick -= kWeights[kind++];
    c.data += top_header(r, n++) + body_of_kind(r, kind, 0);
  }
  c.starts.push_back(c.data.size());
  return c;
}

// --- Our parser ----------------------------------------------------------

size_t count_parts(const BodyPart* b) {
  if (!b) return 0;
  size_t n = 1;
  if (b->type == TYPEMULTIPART)
    for (const BodyPartNode* p = b->parts; p; p = p->next) n += count_parts(&p->body);
  if (b->type == TYPEMESSAGE) n += count_parts(b->msg_body);
  return n;
}

// Parser warnings over the last run of parse_ours: a generated corpus
// should give none, or the parser is doing error paths instead of work.
size_t g_warnings = 0;

size_t parse_ours(const Corpus& c) {
  g_warnings = 0;
  std::vector<char> header;
  std::vector<char> work(kRfc822WorkSize);
  size_t parts = 0;
  for (size_t i = 0; i < c.count(); ++i) {
    const char* msg = c.data.data() + c.starts[i];
    size_t size = c.starts[i + 1] - c.starts[i];
    const char* end = static_cast<const char*>(memmem(msg, size, "\r\n\r\n", 4));
    size_t header_size = end ? static_cast<size_t>(end - msg) + 4 : size;
    // The parser folds the header in place, so it gets a copy, as the
    // stores give it one read from the file.
    header.assign(msg, msg + header_size);
    header.push_back('\0');
    StringSource bs{};
    string_init(&bs, &mail_string, const_cast<char*>(msg + header_size), size - header_size);
    Envelope* env = nullptr;
    BodyPart* body = nullptr;
    rfc822_parse_msg(&env, &body, header.data(), header_size, &bs, "example.org", work.data());
    parts += count_parts(body);
    mail_free_envelope(&env);
    mail_free_body(&body);
    g_warnings += mail_env_lines().size();
    mail_env_clear();  // parser warnings would otherwise pile up
  }
  return parts;
}

// --- GMime ---------------------------------------------------------------

// Keeps the values the walk reads from being optimised away.
volatile size_t g_sink = 0;

size_t walk_gmime(GMimeObject* o, int depth);

size_t walk_gmime_message(GMimeMessage* m, int depth) {
  // What an envelope holds: the address lists (parsed), subject, ids.
  size_t touched = 0;
  for (GMimeAddressType t : {GMIME_ADDRESS_TYPE_FROM, GMIME_ADDRESS_TYPE_SENDER, GMIME_ADDRESS_TYPE_REPLY_TO,
                             GMIME_ADDRESS_TYPE_TO, GMIME_ADDRESS_TYPE_CC, GMIME_ADDRESS_TYPE_BCC}) {
    InternetAddressList* l = g_mime_message_get_addresses(m, t);
    touched += l ? static_cast<size_t>(internet_address_list_length(l)) : 0;
  }
  touched += g_mime_message_get_subject(m) ? 1 : 0;
  touched += g_mime_message_get_message_id(m) ? 1 : 0;
  touched += g_mime_object_get_header(GMIME_OBJECT(m), "In-Reply-To") ? 1 : 0;
  touched += g_mime_object_get_header(GMIME_OBJECT(m), "Date") ? 1 : 0;
  g_sink = g_sink + touched;
  GMimeObject* top = g_mime_message_get_mime_part(m);
  return top ? walk_gmime(top, depth + 1) : 0;
}

size_t walk_gmime(GMimeObject* o, int depth) {
  if (depth > kRfc822MaxDepth) return 0;
  size_t parts = 1;
  // What a body record holds: type, subtype, parameters, id, description,
  // encoding, size.
  GMimeContentType* ct = g_mime_object_get_content_type(o);
  if (ct) {
    volatile const char* t = g_mime_content_type_get_media_type(ct);
    volatile const char* s = g_mime_content_type_get_media_subtype(ct);
    (void)t;
    (void)s;
    GMimeParamList* params = g_mime_content_type_get_parameters(ct);
    int n = params ? g_mime_param_list_length(params) : 0;
    for (int i = 0; i < n; ++i) {
      GMimeParam* p = g_mime_param_list_get_parameter_at(params, i);
      volatile const char* v = g_mime_param_get_value(p);
      (void)v;
    }
  }
  volatile const char* id = g_mime_object_get_content_id(o);
  (void)id;
  if (GMIME_IS_MULTIPART(o)) {
    GMimeMultipart* mp = GMIME_MULTIPART(o);
    int n = g_mime_multipart_get_count(mp);
    for (int i = 0; i < n; ++i) parts += walk_gmime(g_mime_multipart_get_part(mp, i), depth + 1);
  } else if (GMIME_IS_MESSAGE_PART(o)) {
    GMimeMessage* m = g_mime_message_part_get_message(GMIME_MESSAGE_PART(o));
    if (m) parts += walk_gmime_message(m, depth + 1);
  } else if (GMIME_IS_PART(o)) {
    GMimePart* p = GMIME_PART(o);
    volatile int enc = g_mime_part_get_content_encoding(p);
    volatile const char* d = g_mime_part_get_content_description(p);
    (void)enc;
    (void)d;
    GMimeDataWrapper* w = g_mime_part_get_content(p);
    if (w) {
      GMimeStream* s = g_mime_data_wrapper_get_stream(w);
      volatile gint64 len = s ? g_mime_stream_length(s) : 0;
      (void)len;
    }
  }
  return parts;
}

size_t parse_gmime(const Corpus& c, GMimeStream* whole) {
  size_t parts = 0;
  for (size_t i = 0; i < c.count(); ++i) {
    // A window on the one memory stream: no copy of the message, as on our side.
    GMimeStream* sub = g_mime_stream_substream(whole, static_cast<gint64>(c.starts[i]), static_cast<gint64>(c.starts[i + 1]));
    GMimeParser* parser = g_mime_parser_new_with_stream(sub);
    g_mime_parser_set_format(parser, GMIME_FORMAT_MESSAGE);
    GMimeMessage* m = g_mime_parser_construct_message(parser, nullptr);
    if (m) {
      parts += walk_gmime_message(m, 0);
      g_object_unref(m);
    }
    g_object_unref(parser);
    g_object_unref(sub);
  }
  return parts;
}

double seconds_of(const std::chrono::steady_clock::time_point& a, const std::chrono::steady_clock::time_point& b) {
  return std::chrono::duration<double>(b - a).count();
}

}  // namespace

int main(int argc, char** argv) {
  size_t megabytes = 200;
  if (argc > 1) {
    char* end = nullptr;
    long v = std::strtol(argv[1], &end, 10);
    if (!end || *end || v <= 0 || v > 100000) {
      std::fprintf(stderr, "usage: parse_bench [MEGABYTES]  (default 200)\n");
      return 2;
    }
    megabytes = static_cast<size_t>(v);
  }
  mail_env_set_echo(-1);
  g_mime_init();

  auto t0 = std::chrono::steady_clock::now();
  Corpus corpus = make_corpus(megabytes * 1000000);
  auto t1 = std::chrono::steady_clock::now();
  double mb = static_cast<double>(corpus.data.size()) / 1e6;
  std::printf("corpus: %zu messages, %.1f MB, built in %.2f s (seed 20240506)\n", corpus.count(), mb, seconds_of(t0, t1));

  GMimeStream* whole = g_mime_stream_mem_new_with_buffer(corpus.data.data(), corpus.data.size());

  double best_ours = 1e300, best_gmime = 1e300;
  size_t parts_ours = 0, parts_gmime = 0;
  for (int run = 1; run <= 3; ++run) {
    auto a = std::chrono::steady_clock::now();
    parts_ours = parse_ours(corpus);
    auto b = std::chrono::steady_clock::now();
    parts_gmime = parse_gmime(corpus, whole);
    auto c = std::chrono::steady_clock::now();
    double ours = seconds_of(a, b), gm = seconds_of(b, c);
    std::printf("run %d: ours %.3f s (%.1f MB/s), GMime %.3f s (%.1f MB/s)\n", run, ours, mb / ours, gm, mb / gm);
    std::fflush(stdout);
    best_ours = std::min(best_ours, ours);
    best_gmime = std::min(best_gmime, gm);
  }
  // Both sides should have seen the same tree; a gap means one of them
  // skipped work and the figures would not be comparable.
  std::printf("parts seen: ours %zu, GMime %zu; parser warnings: %zu\n", parts_ours, parts_gmime, g_warnings);
  double n = static_cast<double>(corpus.count());
  std::printf("best of 3: ours %.1f MB/s (%.0f messages/s), GMime %.1f MB/s (%.0f messages/s), ratio ours/GMime %.2f\n",
              mb / best_ours, n / best_ours, mb / best_gmime, n / best_gmime, best_gmime / best_ours);
  g_object_unref(whole);
  return 0;
}
