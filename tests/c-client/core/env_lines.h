// Shared by the mail layer's tests: what the environment's callbacks were
// told since the last mail_env_clear.
#pragma once

#include <string>
#include <vector>

#include "c-client/core/plain_env.h"

// What one callback was told, in order: each text (its number where it has
// none), as "text @level" when asked.
inline std::vector<std::string> EnvLines(const std::string& callback, bool with_level = false) {
  std::vector<std::string> out;
  for (const MailEnvLine& l : mail_env_lines())
    if (l.callback == callback)
      out.push_back((l.text.empty() ? std::to_string(l.number) : l.text) +
                    (with_level ? " @" + std::to_string(l.level) : ""));
  return out;
}

// The "log" texts of one level, each ended by a line feed.
inline std::string EnvLogs(long level) {
  std::string out;
  for (const MailEnvLine& l : mail_env_lines())
    if (l.callback == "log" && l.level == level) out += l.text + "\n";
  return out;
}

// Whether a callback was told this text (at this level, unless -1).
inline bool EnvSaid(const std::string& callback, const std::string& text, long level = -1) {
  for (const MailEnvLine& l : mail_env_lines())
    if (l.callback == callback && l.text == text && (level == -1 || l.level == level)) return true;
  return false;
}

// Everything the callbacks were told, a line each; the debug lines left out
// when asked.
inline std::string EnvAll(bool with_debug = true) {
  std::string out;
  for (const MailEnvLine& l : mail_env_lines())
    if (with_debug || l.callback != "dlog")
      out += l.callback + "(" + std::to_string(l.level) + "): " + l.text + "\n";
  return out;
}
