#include "tools/pgpwrap_core.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "src/base/base64.h"

namespace {

bool IsHex(std::string_view s) {
  if (s.empty()) return false;
  for (char c : s)
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
  return true;
}

// Splits at single blanks, as gpg writes its status arguments.
std::vector<std::string_view> Fields(std::string_view s) {
  std::vector<std::string_view> out;
  size_t at = 0;
  while (at <= s.size()) {
    size_t blank = s.find(' ', at);
    if (blank == std::string_view::npos) blank = s.size();
    out.push_back(s.substr(at, blank - at));
    at = blank + 1;
  }
  return out;
}

// A decimal number of at most 10 digits; false for anything else.
bool Number(std::string_view s, unsigned long* out) {
  if (s.empty() || s.size() > 10) return false;
  unsigned long v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<unsigned long>(c - '0');
  }
  *out = v;
  return true;
}

bool IsOptionWord(const std::string& w) { return !w.empty() && (w[0] == '-' || w[0] == '+'); }

// gpg's error codes, without the source in the high bits.
constexpr unsigned kGpgErrBadPassphrase = 11;
constexpr unsigned kGpgErrNoSecretKey = 17;
constexpr unsigned kGpgErrCancelled = 99;

}  // namespace

bool ParseWrapperArgs(const std::vector<std::string>& argv, WrapperArgs* out, std::string* error) {
  *out = WrapperArgs();
  if (argv.size() < 4) {
    *error = "usage: velmar-pgpwrap count export-file error-file [-pause] [-logging] [-auth] [-included] "
             "[-capture file] [-verify]";
    return false;
  }
  unsigned long count = 0;
  if (!Number(argv[1], &count) || count < 1 || count > kExportMaxWords + 1) {
    *error = "the argument count \"" + argv[1] + "\" is not a number from 1 to 101";
    return false;
  }
  out->count = static_cast<int>(count);
  out->export_file = argv[2];
  out->error_file = argv[3];
  if (out->export_file.empty() || out->error_file.empty()) {
    *error = "empty export or error file name";
    return false;
  }
  for (size_t i = 4; i < argv.size(); ++i) {
    const std::string& a = argv[i];
    if (a == "-pause") out->pause = true;
    else if (a == "-logging") out->logging = true;
    else if (a == "-auth") out->auth = true;
    else if (a == "-included") out->included = true;
    else if (a == "-verify") out->verify = true;
    else if (a == "-capture") {
      if (i + 1 >= argv.size() || argv[i + 1].empty()) {
        *error = "-capture needs a file name";
        return false;
      }
      out->capture_file = argv[++i];
    } else {
      *error = "unknown argument \"" + a + "\"";
      return false;
    }
  }
  if (out->included && out->count < 2) {
    *error = "a pass phrase was announced but the count leaves no room for a command";
    return false;
  }
  return true;
}

bool ParseExportFile(std::string_view text, int count, bool included, ExportContents* out, std::string* error) {
  *out = ExportContents();
  if (text.size() > kExportMaxBytes) {
    *error = "the export file is larger than " + std::to_string(kExportMaxBytes) + " bytes";
    return false;
  }
  std::vector<std::string> lines;
  size_t at = 0;
  while (at < text.size()) {
    size_t nl = text.find('\n', at);
    size_t end = nl == std::string_view::npos ? text.size() : nl;
    std::string_view line = text.substr(at, end - at);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.size() > kExportMaxLine) {
      *error = "line " + std::to_string(lines.size() + 1) + " of the export file is too long";
      return false;
    }
    lines.emplace_back(line);
    at = nl == std::string_view::npos ? text.size() : nl + 1;
  }
  if (lines.empty() || lines[0].empty()) {
    *error = "the export file names no PGP program";
    return false;
  }
  if (count < 1 || static_cast<size_t>(count) != lines.size() - 1) {
    *error = "the export file holds " + std::to_string(lines.size() - 1) + " lines after the program, not " +
             std::to_string(count);
    return false;
  }
  int words = included ? count - 1 : count;
  if (words < 1 || words > kExportMaxWords) {
    *error = "the command has " + std::to_string(words) + " words (1 to 100 allowed)";
    return false;
  }
  out->pgp_path = lines[0];
  out->words.assign(lines.begin() + 1, lines.begin() + 1 + words);
  if (included) {
    const std::string& coded = lines.back();
    if (coded.empty() || !Base64Decode(coded.data(), coded.size(), &out->pass_phrase)) {
      *error = "the pass phrase line is not base64";
      out->pass_phrase.assign(out->pass_phrase.size(), '\0');
      return false;
    }
    if (out->pass_phrase.find_first_of(std::string_view("\n\0", 2)) != std::string::npos) {
      *error = "the pass phrase holds a line end or a zero byte";
      out->pass_phrase.assign(out->pass_phrase.size(), '\0');
      out->pass_phrase.clear();
      return false;
    }
  }
  return true;
}

bool TranslateCommand(const std::vector<std::string>& words, GpgPlan* plan, std::string* error) {
  *plan = GpgPlan();
  std::string op;
  std::vector<std::string> positional;
  auto next = [&](size_t* i, std::string* into, const char* what) {
    if (*i + 1 >= words.size() || IsOptionWord(words[*i + 1]) || words[*i + 1].empty()) {
      *error = std::string(what) + " needs a value";
      return false;
    }
    *into = words[++*i];
    return true;
  };
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& w = words[i];
    if (w == "+for") {
      if (!next(&i, &plan->input, "+for")) return false;
    } else if (w == "+bat" || w == "+force" || w == "+batchmode") {
      // gpg always runs in batch mode here and overwrites its output.
    } else if (w == "-o") {
      if (!next(&i, &plan->output, "-o")) return false;
    } else if (w == "-u") {
      if (!next(&i, &plan->user, "-u")) return false;
    } else if (w == "-sta" || w == "-sab" || w == "-eat" || w == "-ea" || w == "-esat" || w == "-esa" ||
               w == "-d" || w == "-ka" || w == "-kg" || w == "-kxa") {
      if (!op.empty()) {
        *error = "two operations: " + op + " and " + w;
        return false;
      }
      op = w;
      if (w[1] == 'e')
        while (i + 1 < words.size() && !IsOptionWord(words[i + 1]) && !words[i + 1].empty())
          plan->recipients.push_back(words[++i]);
    } else if (IsOptionWord(w)) {
      *error = "unknown command word \"" + w + "\"";
      return false;
    } else {
      positional.push_back(w);
    }
  }
  auto need = [&](const std::string& value, const char* what) {
    if (value.empty()) *error = std::string("the command names no ") + what;
    return !value.empty();
  };
  auto no_positional = [&]() {
    if (!positional.empty()) *error = "unexpected word \"" + positional[0] + "\"";
    return positional.empty();
  };
  std::vector<std::string>& a = plan->args;
  if (op == "-sta" || op == "-sab") {
    if (!need(plan->input, "input file") || !need(plan->output, "output file") || !need(plan->user, "user id") ||
        !no_positional())
      return false;
    a = {"--local-user", plan->user, "--output", plan->output};
    if (op == "-sta") {
      plan->op = PgpOp::kSign;
      plan->textmode = true;
      a.insert(a.end(), {"--textmode", "--clearsign", "--", plan->input});
    } else {
      // A fixed digest, so that the signed part can name it before signing.
      plan->op = PgpOp::kDetachSign;
      a.insert(a.end(), {"--digest-algo", "SHA256", "--armor", "--detach-sign", "--", plan->input});
    }
  } else if (op == "-eat" || op == "-ea" || op == "-esat" || op == "-esa") {
    plan->op = PgpOp::kEncrypt;
    plan->sign = op[2] == 's';
    plan->textmode = op.back() == 't';
    if (!need(plan->input, "input file") || !need(plan->output, "output file") || !no_positional()) return false;
    if (plan->recipients.empty()) {
      *error = "the command names no recipient";
      return false;
    }
    if (plan->sign && !need(plan->user, "user id")) return false;
    a = {"--armor"};
    if (plan->textmode) a.push_back("--textmode");
    if (plan->sign) a.insert(a.end(), {"--local-user", plan->user, "--sign"});
    // A Bcc recipient ("!id") gets no key id in the message, so the others
    // cannot tell that someone else can read it.
    for (const std::string& r : plan->recipients) {
      if (r[0] == '!' && r.size() > 1) a.insert(a.end(), {"--hidden-recipient", r.substr(1)});
      else a.insert(a.end(), {"--recipient", r});
    }
    a.insert(a.end(), {"--output", plan->output, "--encrypt", "--", plan->input});
  } else if (op == "-d" || op.empty()) {
    if (!need(plan->input, "input file")) return false;
    if (op.empty() && positional.size() == 1 && plan->output.empty()) {
      plan->op = PgpOp::kVerifyDetached;
      plan->detached_data = positional[0];
      a = {"--verify", "--", plan->input, plan->detached_data};
      return true;
    }
    if (!need(plan->output, "output file") || !no_positional()) return false;
    plan->op = PgpOp::kDecrypt;
    plan->decrypt_only = op == "-d";
    a = {"--output", plan->output, "--decrypt", "--", plan->input};
  } else if (op == "-ka") {
    // The key ring word of the classic command is ignored: gpg keeps one.
    if (!need(plan->input, "key file") || positional.size() > 1) {
      if (error->empty()) *error = "unexpected word \"" + positional[1] + "\"";
      return false;
    }
    plan->op = PgpOp::kImport;
    a = {"--import", "--", plan->input};
  } else if (op == "-kxa") {
    if (positional.size() < 2 || positional.size() > 3) {
      *error = "key export needs a user id and an output file";
      return false;
    }
    plan->op = PgpOp::kExport;
    plan->user = positional[0];
    plan->output = positional[1];
    a = {"--armor", "--output", plan->output, "--export", "--", plan->user};
  } else if (op == "-kg") {
    plan->op = PgpOp::kGenerate;
    if (!plan->input.empty()) plan->user = plan->input;
    a = {"--full-generate-key"};
  }
  return true;
}

void StatusParser::Feed(const char* data, size_t size) {
  for (size_t i = 0; i < size; ++i) {
    if (total_ >= kStatusMaxBytes) {
      status_.truncated = true;
      return;
    }
    ++total_;
    char c = data[i];
    if (c == '\n') {
      if (!skipping_) Line(pending_);
      pending_.clear();
      skipping_ = false;
    } else if (!skipping_) {
      if (pending_.size() >= kStatusMaxLine) {
        // An over-long line is read up to the limit and the rest dropped.
        Line(pending_);
        pending_.clear();
        skipping_ = true;
        status_.truncated = true;
      } else {
        pending_.push_back(c);
      }
    }
  }
}

void StatusParser::Finish() {
  if (!skipping_ && !pending_.empty()) Line(pending_);
  pending_.clear();
  skipping_ = false;
}

void StatusParser::Line(std::string_view line) {
  constexpr std::string_view kPrefix = "[GNUPG:] ";
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  if (line.substr(0, kPrefix.size()) != kPrefix) return;
  ++status_.lines;
  std::vector<std::string_view> f = Fields(line.substr(kPrefix.size()));
  std::string_view key = f[0];
  GpgStatus& s = status_;
  if (key == "BAD_PASSPHRASE") s.bad_passphrase = true;
  else if (key == "MISSING_PASSPHRASE") s.missing_passphrase = true;
  else if (key == "NEED_PASSPHRASE") s.need_passphrase = true;
  else if (key == "INV_SGNR") s.invalid_signer = true;
  else if (key == "INV_RECP") s.invalid_recipient = true;
  else if (key == "NO_SECKEY") s.no_seckey = true;
  else if (key == "DECRYPTION_FAILED") s.decryption_failed = true;
  else if (key == "DECRYPTION_OKAY") s.decryption_okay = true;
  else if (key == "NODATA") s.nodata = true;
  else if (key == "SIG_CREATED") s.sig_created = true;
  else if (key == "END_ENCRYPTION") s.end_encryption = true;
  else if (key == "KEY_CREATED") s.key_created = true;
  else if (key == "EXPORTED") s.exported = true;
  else if (key == "NEWSIG") ++s.new_signatures;
  else if (key == "GOODSIG" || key == "EXPSIG" || key == "EXPKEYSIG" || key == "REVKEYSIG") ++s.good_signatures;
  else if (key == "BADSIG") ++s.bad_signatures;
  else if (key == "ERRSIG" || key == "NO_PUBKEY") ++s.unknown_signatures;
  else if (key == "IMPORT_RES") {
    unsigned long n = 0;
    if (f.size() > 1 && Number(f[1], &n)) s.imported = static_cast<long>(n);
  } else if (key == "IMPORT_OK") {
    unsigned long reason = 0;
    // Bit 16 marks a secret key: one's own keys need no certification.
    if (f.size() > 2 && Number(f[1], &reason) && !(reason & 16) && IsHex(f[2]) && f[2].size() <= 64 &&
        s.import_fprs.size() < kStatusMaxKeys)
      s.import_fprs.emplace_back(f[2]);
  } else if (key == "FAILURE" || key == "ERROR") {
    unsigned long code = 0;
    if (f.size() > 2 && Number(f[2], &code)) {
      unsigned c = static_cast<unsigned>(code & 0xFFFF);
      if (s.failures.size() < 100) s.failures.emplace_back(std::string(f[1]), c);
      if (c == kGpgErrBadPassphrase) s.bad_passphrase = true;
      if (c == kGpgErrCancelled) s.cancelled = true;
      if (c == kGpgErrNoSecretKey && key == "FAILURE" && f[1] == "sign") s.invalid_signer = true;
    }
  }
}

namespace {

int Verdict(const GpgPlan& plan, const GpgStatus& s, int gpg_exit, bool verify);

}  // namespace

int CodeFor(const GpgPlan& plan, const GpgStatus& s, int gpg_exit, bool verify) {
  int code = Verdict(plan, s, gpg_exit, verify);
  // gpg in batch mode cannot ask: a key that needed a phrase nobody gave
  // fails in ways that name no pass phrase.
  if (code != kCodeOk && !plan.passphrase_given && s.need_passphrase) return kCodeBadPassphrase;
  return code;
}

namespace {

int Verdict(const GpgPlan& plan, const GpgStatus& s, int gpg_exit, bool verify) {
  if (s.cancelled) return kCodeCancelled;
  switch (plan.op) {
    case PgpOp::kSign:
    case PgpOp::kDetachSign:
      if (s.bad_passphrase || s.missing_passphrase) return kCodeBadPassphrase;
      if (s.invalid_signer) return kCodeNoSecretKey;
      return gpg_exit == 0 && s.sig_created ? kCodeOk : kCodeSignFailed;
    case PgpOp::kEncrypt:
      if (s.invalid_recipient) return kCodeNoRecipientKey;
      if (s.bad_passphrase || s.missing_passphrase) return kCodeBadPassphrase;
      if (s.invalid_signer) return kCodeNoSecretKey;
      return gpg_exit == 0 && s.end_encryption ? kCodeOk : kCodeEncryptFailed;
    case PgpOp::kDecrypt:
      if (s.bad_passphrase || s.missing_passphrase) return kCodeBadPassphrase;
      if (s.decryption_failed) return s.no_seckey ? kCodeNotForUs : kCodeDecryptFailed;
      if (s.bad_signatures) return kCodeBadSignature;
      if (s.unknown_signatures) return kCodeNoPublicKey;
      if (verify && s.good_signatures == 0) return kCodeNoSignature;
      if (s.nodata && !s.decryption_okay && s.good_signatures == 0) return kCodeCorrupt;
      if (gpg_exit != 0) return kCodeDecryptFailed;
      return kCodeOk;
    case PgpOp::kVerifyDetached:
      if (s.bad_signatures) return kCodeBadSignature;
      if (s.unknown_signatures) return kCodeNoPublicKey;
      if (s.good_signatures == 0) return kCodeNoSignature;
      return gpg_exit == 0 ? kCodeOk : kCodeNoSignature;
    case PgpOp::kImport:
      return s.imported > 0 && gpg_exit == 0 ? kCodeOk : kCodeNoKeysFound;
    case PgpOp::kExport:
      if (gpg_exit != 0) return kCodeFailed;
      return s.exported ? kCodeOk : kCodeNoSecretKey;
    case PgpOp::kGenerate:
      return s.key_created ? kCodeOk : kCodeKeyGenFailed;
  }
  return kCodeFailed;
}

}  // namespace

std::vector<std::string> KeygripsFromColons(std::string_view listing) {
  std::vector<std::string> out;
  size_t at = 0;
  while (at < listing.size() && out.size() < 64) {
    size_t nl = listing.find('\n', at);
    if (nl == std::string_view::npos) nl = listing.size();
    std::string_view line = listing.substr(at, nl - at);
    at = nl + 1;
    if (line.substr(0, 4) != "grp:") continue;
    size_t field = 0, start = 0;
    for (size_t i = 0; i <= line.size(); ++i) {
      if (i == line.size() || line[i] == ':') {
        if (field == 9) {
          std::string_view grip = line.substr(start, i - start);
          if (grip.size() == 40 && IsHex(grip)) out.emplace_back(grip);
          break;
        }
        ++field;
        start = i + 1;
      }
    }
  }
  return out;
}
