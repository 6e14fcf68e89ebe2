// Signing, encryption, decryption, signature checks and keys through the
// PGP wrapper program (velmar-pgpwrap, beside the running program), file to
// file. The pass phrase travels in an export file of mode 0600 in a private
// directory, wiped as soon as the wrapper has run; never on a command line.
//
// Every operation returns 1 on success, or 0 with the last error set
// (pgp_get_last_error); callers show it with pgp_report_error.
#pragma once

#include <string>
#include <vector>

struct Envelope;

// Error codes and their texts (pgp_error_text).
constexpr int kPgpErrKeyGen = 10;
constexpr int kPgpErrNoKeysFound = 12;
constexpr int kPgpErrSignCreate = 20;
constexpr int kPgpErrCorrupt = 31;
constexpr int kPgpErrWrapperArg = 40;
constexpr int kPgpErrWrapperPathArg = 41;
constexpr int kPgpErrEncrypt = 42;
constexpr int kPgpErrNoSignature = 50;
constexpr int kPgpErrBadSignature = 51;
constexpr int kPgpErrNoPublicKey = 52;
constexpr int kPgpErrCorruptFile = 53;
constexpr int kPgpErrBadPassphrase = 54;
constexpr int kPgpErrNoSecretKey = 55;
constexpr int kPgpErrExecute = 56;
constexpr int kPgpErrNoRecipientKey = 57;
constexpr int kPgpErrNotForUs = 58;
constexpr int kPgpErrWrapperUnknown = 59;
constexpr int kPgpErrNotFound = 60;
constexpr int kPgpErrFailed = 61;
constexpr int kPgpErrSetup = 62;
constexpr int kPgpErrResources = 63;
constexpr int kPgpErrTimeout = 64;
constexpr int kPgpErrUnsupported = 65;
constexpr int kPgpErrGeneral = 66;
constexpr int kPgpErrCorruptFile2 = 67;
constexpr int kPgpErrFileType = 68;
constexpr int kPgpErrFileMissing = 69;
constexpr int kPgpErrNotVerified = 70;
constexpr int kPgpErrDecrypt = 71;
constexpr int kPgpErrNoUserId = 72;
constexpr int kPgpErrAborted = 73;
constexpr int kPgpErrCommandTooLong = 74;
constexpr int kPgpErrNoWrapper = 75;
constexpr int kPgpErrWipe = 76;
constexpr int kPgpErrPublish = 77;
constexpr int kPgpErrTooManyLogins = 78;
constexpr int kPgpErrAuth = 79;
constexpr int kPgpErrNoExecutable = 80;

// pgp_get_message_type.
constexpr int kPgpTypeError = -1;
constexpr int kPgpTypeNone = 0;
constexpr int kPgpTypeEncrypted = 1;
constexpr int kPgpTypeSigned = 2;
constexpr int kPgpTypeKey = 3;

// A command of this length or more is refused (code 74).
constexpr size_t kPgpMaxCommand = 128;
constexpr int kPgpMaxArguments = 100;
// What the pass phrase dialog and the viewer accept.
constexpr size_t kPgpMaxPassphrase = 127;
constexpr size_t kPgpMaxUserId = 128;

// Options.
constexpr const char* kPgpPathOption = "Security.Unix.PGPpath";
constexpr const char* kPgpUserIdOption = "Security.PGP.UserID";
constexpr const char* kPgpMimeOption = "Security.PGP.MIME";               // OpenPGP/MIME by default (ON)
constexpr const char* kPgpEncryptToSelfOption = "Security.PGP.EncryptToSelf";  // ON
constexpr const char* kPgpMaxWaitOption = "Security.PGP.MaxWait";         // seconds, 300

// Key ring word of the classic key commands (gpg keeps its own).
constexpr const char* kPgpKeyRing = "pubring.pgp";

// --- Set-up -----------------------------------------------------------------
// 1 when gpg has a home: GNUPGHOME or PGPPATH set, or ~/.gnupg present.
int pgp_is_setup();
// gpg's home directory as above (may not exist).
std::string pgp_get_pgppath();
// Sets the home for this process (GNUPGHOME and PGPPATH).
int pgp_set_pgppath(const char* path);
// The gpg program: the option, else gpg on the PATH, else asked for.
int pgp_get_pgp_binary(std::string* path);

// --- The user -----------------------------------------------------------------
// The user id and a pass phrase proven to work, asking up to three times.
int pgp_login(std::string* user_id, std::string* pass_phrase);
// The "PGP User Authentication" dialog; 0 on cancel.
int pgp_prompt_info(const char* user_id, std::string* pass_phrase);
// Checks the pass phrase by a signature that the agent cannot answer from
// its memory. *ok tells the answer; 0 when the check itself could not run.
int pgp_auth_user(const char* user_id, const std::string& pass_phrase, int* ok);

// --- Operations, file to file -----------------------------------------------
int pgp_sign(const char* in, const char* out, const char* user_id, const std::string& pass_phrase);
// recipients: blank-separated ids (form_pgp_recip_list); sign adds a signature.
int pgp_encrypt(const char* in, const char* out, const char* recipients, const char* user_id,
                const std::string& pass_phrase, int sign);
// decrypt 1 asks for decryption only; 0 also accepts a signed message.
int pgp_decrypt(const char* in, const char* out, const std::string& pass_phrase, int decrypt);
// Checks a signed (or signed and encrypted) message; out gets its text.
int pgp_verify_signature(const char* in, const char* out, const std::string& pass_phrase);
// Adds the keys of file. With a pass phrase they are also certified locally
// with the user's key, so that mail can be encrypted to them at once.
int pgp_capture_key(const char* file, const char* user_id, const std::string& pass_phrase);
int pgp_display_key(const char* user_id, const char* out);
int pgp_generate_key(const char* user_id);
int pgp_publish_key(const char* user_id, const char* out);

// What gpg said on the last verification or capture (signer, fingerprint,
// validity), for showing beside "Digital Signature verified".
const std::string& pgp_get_last_capture();

// The kind of a message file by its armour lines; kPgpTypeError when the
// file cannot be read.
int pgp_get_message_type(const char* file);

// --- Errors -----------------------------------------------------------------
void pgp_set_last_error(int code);
int pgp_get_last_error();
// The text for a code (75 names the wrapper).
std::string pgp_error_text(int code);
void pgp_report_error(int code);
// Overwrites the file and removes it; a missing file is success.
int pgp_clear_remove_file(const char* path);

// All addresses of To, Cc and Bcc, blank-separated, each once, Bcc ones
// marked "!" (encrypted to without naming their key); the user's
// own id is added unless Security.PGP.EncryptToSelf is off, so that the
// sent copy stays readable.
std::string form_pgp_recip_list(const Envelope* env);

// --- Parts of the machinery, for the OpenPGP/MIME functions and tests ----------
// Splits a command at blanks; double quotes group words and are dropped.
// 0 for more than kPgpMaxArguments words or an unclosed quote.
int pgp_separate_arguments(const char* command, std::vector<std::string>* words);
// Wrapper or gpg status to error code.
int pgp_process_error(int status);

struct PgpRun {
  std::string dir;  // private directory of this operation
  std::string export_file;
  std::string error_file;
  std::string capture_file;
  bool pause = false;
  bool auth = false;
  bool verify = false;
  bool logging = false;
  bool included = false;
  int count = 0;
};
std::vector<std::string> pgp_form_wrapper_arg_list(const std::string& wrapper, const PgpRun& run);
// The export file's text: program, words, base64 pass phrase.
std::string pgp_export_text(const std::string& pgp, const std::vector<std::string>& words,
                            const std::string* pass_phrase, int* count);
// Runs one command through the wrapper (pass_phrase may be null).
int pgp_execute(const char* caller, const std::string& command, const std::string* pass_phrase, int pause,
                int auth, int verify);
// A private directory for temporary files of PGP work (on tmpfs when the
// session has one); empty with code 63 on failure.
std::string pgp_make_private_dir();

// Tests: the wrapper to run (empty: beside the running program).
void pgp_set_wrapper_path(const std::string& path);
std::string pgp_wrapper_path();
// Tests: the arguments of the last wrapper run.
const std::vector<std::string>& pgp_last_wrapper_args();
