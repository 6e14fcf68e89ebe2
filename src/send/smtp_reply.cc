#include "src/send/smtp_reply.h"

#include <cctype>
#include <cstdlib>

namespace {

std::string Upper(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

// Words separated by blanks (or "=" after AUTH, as some old servers wrote).
std::vector<std::string> Words(const std::string& text) {
  std::vector<std::string> words;
  std::string word;
  for (char c : text) {
    if (c == ' ' || c == '\t' || c == '=') {
      if (!word.empty()) words.push_back(word), word.clear();
    } else {
      word += c;
    }
  }
  if (!word.empty()) words.push_back(word);
  return words;
}

}  // namespace

bool smtp_parse_reply_line(const char* line, size_t length, SmtpReplyLine* out) {
  if (!line || length < 3 || length > kSmtpMaxReplyLine) return false;
  for (int i = 0; i < 3; ++i)
    if (!std::isdigit(static_cast<unsigned char>(line[i]))) return false;
  const int code = (line[0] - '0') * 100 + (line[1] - '0') * 10 + (line[2] - '0');
  if (code < 200 || code > 599) return false;
  bool last = true;
  size_t text = 3;
  if (length > 3) {
    if (line[3] == '-') {
      last = false;
    } else if (line[3] != ' ') {
      return false;
    }
    text = 4;
  }
  out->code = code;
  out->last = last;
  out->text.assign(line + text, length - text);
  // A server's text reaches dialogs and traces: no control characters.
  for (char& c : out->text)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
  return true;
}

bool smtp_reply_add(SmtpReply* reply, const char* line, size_t length) {
  if (!reply->error.empty()) return false;
  if (reply->complete) {
    reply->error = "reply continues after its last line";
    return false;
  }
  SmtpReplyLine parsed;
  if (!smtp_parse_reply_line(line, length, &parsed)) {
    reply->error = length > kSmtpMaxReplyLine ? "reply line too long" : "not a reply line";
    return false;
  }
  if (reply->lines.empty()) {
    reply->code = parsed.code;
  } else if (parsed.code != reply->code) {
    reply->error = "reply code changes inside a reply";
    return false;
  }
  if (reply->lines.size() >= kSmtpMaxReplyLines) {
    reply->error = "reply has too many lines";
    return false;
  }
  if (reply->text.size() < kSmtpMaxReplyText) {
    if (!reply->lines.empty()) reply->text += '\n';
    reply->text += parsed.text.substr(0, kSmtpMaxReplyText - reply->text.size());
  }
  reply->lines.push_back(std::move(parsed.text));
  reply->complete = parsed.last;
  return true;
}

void smtp_parse_extensions(const SmtpReply& reply, SmtpExtensions* out) {
  *out = SmtpExtensions{};
  out->esmtp = reply.code == 250;
  if (!out->esmtp) return;
  for (size_t i = 1; i < reply.lines.size(); ++i) {
    const std::vector<std::string> words = Words(reply.lines[i]);
    if (words.empty()) continue;
    const std::string keyword = Upper(words[0]);
    if (keyword == "STARTTLS") {
      out->starttls = true;
    } else if (keyword == "8BITMIME") {
      out->eightbitmime = true;
    } else if (keyword == "PIPELINING") {
      out->pipelining = true;
    } else if (keyword == "SIZE") {
      out->size = true;
      if (words.size() > 1 && words[1].size() <= 18 &&
          words[1].find_first_not_of("0123456789") == std::string::npos)
        out->max_size = std::strtoul(words[1].c_str(), nullptr, 10);
    } else if (keyword == "AUTH") {
      for (size_t w = 1; w < words.size() && out->auth.size() < kSmtpMaxExtensions; ++w)
        if (words[w].size() <= 40) out->auth.push_back(Upper(words[w]));
    }
  }
}
