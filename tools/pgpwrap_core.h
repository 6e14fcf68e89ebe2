// The PGP wrapper's logic, apart from the processes it runs: its argument
// list, the export file, the translation of the classic command words to
// gpg's options, gpg's status lines, and the code the client is given.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// Exit statuses of the wrapper itself (the client maps them like gpg codes).
constexpr int kWrapOk = 0;
constexpr int kWrapBadArguments = 2;  // arguments or export file unusable
constexpr int kWrapNoResources = 7;   // pipe, fork or file creation failed
constexpr int kWrapExecFailed = 56;   // gpg could not be started
constexpr int kWrapInternal = 59;

// Codes written to the error file after gpg ran.
constexpr int kCodeOk = 0;
constexpr int kCodeCancelled = 6;
constexpr int kCodeKeyGenFailed = 10;
constexpr int kCodeNoKeysFound = 12;
constexpr int kCodeSignFailed = 20;
constexpr int kCodeEncryptFailed = 21;
constexpr int kCodeCorrupt = 31;
constexpr int kCodeDecryptFailed = 32;
constexpr int kCodeNoSignature = 50;
constexpr int kCodeBadSignature = 51;
constexpr int kCodeNoPublicKey = 52;
constexpr int kCodeBadPassphrase = 54;
constexpr int kCodeNoSecretKey = 55;
constexpr int kCodeNoRecipientKey = 57;
constexpr int kCodeNotForUs = 58;
constexpr int kCodeFailed = 66;

// Limits on what the wrapper reads: the export file holds a path, at most
// 100 words and a pass phrase; gpg's status output is short lines.
constexpr size_t kExportMaxBytes = 64 * 1024;
constexpr size_t kExportMaxLine = 4096;
constexpr int kExportMaxWords = 100;
constexpr size_t kStatusMaxLine = 4096;      // longer lines are cut there
constexpr size_t kStatusMaxBytes = 1 << 20;  // the rest is ignored
constexpr size_t kStatusMaxKeys = 1000;      // imported fingerprints kept

struct WrapperArgs {
  int count = 0;
  std::string export_file;
  std::string error_file;
  std::string capture_file;
  bool pause = false;
  bool logging = false;
  bool auth = false;
  bool included = false;
  bool verify = false;
};
// argv as the client builds it: program, count, export file, error file,
// then the flags in any order.
bool ParseWrapperArgs(const std::vector<std::string>& argv, WrapperArgs* out, std::string* error);

struct ExportContents {
  std::string pgp_path;
  std::vector<std::string> words;
  std::string pass_phrase;  // decoded; empty when none was included
};
// count is the number of lines after the first, the pass phrase line
// included when `included` is set.
bool ParseExportFile(std::string_view text, int count, bool included, ExportContents* out, std::string* error);

enum class PgpOp { kSign, kDetachSign, kEncrypt, kDecrypt, kVerifyDetached, kImport, kExport, kGenerate };

struct GpgPlan {
  PgpOp op = PgpOp::kDecrypt;
  std::string input;
  std::string output;
  std::string detached_data;  // the signed data of a detached signature
  std::string user;
  std::vector<std::string> recipients;
  bool sign = false;      // encryption also signs
  bool textmode = false;  // clear text with canonical line ends
  bool decrypt_only = false;
  bool passphrase_given = true;  // the run had a pass phrase to give gpg
  // gpg's options for the operation, after the common ones.
  std::vector<std::string> args;
};
// Turns the command words into a plan; false with a reason for words that
// make no operation (unknown words, a missing file name).
bool TranslateCommand(const std::vector<std::string>& words, GpgPlan* plan, std::string* error);

// What gpg said on its status descriptor.
struct GpgStatus {
  bool bad_passphrase = false;
  bool missing_passphrase = false;
  bool need_passphrase = false;  // gpg asked for one (NEED_PASSPHRASE)
  bool invalid_signer = false;
  bool invalid_recipient = false;
  bool no_seckey = false;
  bool decryption_failed = false;
  bool decryption_okay = false;
  bool nodata = false;
  bool cancelled = false;
  bool sig_created = false;
  bool end_encryption = false;
  bool key_created = false;
  bool exported = false;
  int new_signatures = 0;
  int good_signatures = 0;
  int bad_signatures = 0;
  int unknown_signatures = 0;  // ERRSIG, NO_PUBKEY
  long imported = -1;          // IMPORT_RES: processed count, -1 when absent
  std::vector<std::string> import_fprs;  // public keys named by IMPORT_OK
  std::vector<std::pair<std::string, unsigned>> failures;  // FAILURE, ERROR: where and gpg's code
  size_t lines = 0;
  bool truncated = false;  // some input was past a limit
};

// Reads status output in pieces as it arrives.
class StatusParser {
 public:
  void Feed(const char* data, size_t size);
  void Finish();  // a last line without a line end
  const GpgStatus& status() const { return status_; }

 private:
  void Line(std::string_view line);
  GpgStatus status_;
  std::string pending_;
  size_t total_ = 0;
  bool skipping_ = false;  // inside an over-long line
};

// The code for the client, from what gpg said and its exit status.
int CodeFor(const GpgPlan& plan, const GpgStatus& status, int gpg_exit, bool verify);

// The keygrips in `gpg --with-colons --with-keygrip --list-secret-keys`.
std::vector<std::string> KeygripsFromColons(std::string_view listing);
