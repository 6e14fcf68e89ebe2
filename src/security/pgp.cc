#include "src/security/pgp.h"

#include <fcntl.h>
#include <signal.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "rclib/safe_file.h"
#include "src/base/base64.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "xvt/xvt.h"

namespace {

constexpr uint32_t kTracePgp = kTraceCompose;
constexpr size_t kCommandBuffer = 3000;

int g_last_error = 0;
std::string g_wrapper_override;
std::vector<std::string> g_last_args;
std::string g_last_capture;

void Wipe(std::string* s) {
  if (!s->empty()) explicit_bzero(s->data(), s->size());
  s->clear();
}

bool IsFile(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool IsDir(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int Fail(int code) {
  pgp_set_last_error(code);
  return 0;
}

std::string FindOnPath(const char* name) {
  const char* path = std::getenv("PATH");
  std::string dirs = path ? path : "/usr/bin:/bin";
  size_t at = 0;
  while (at <= dirs.size()) {
    size_t colon = dirs.find(':', at);
    if (colon == std::string::npos) colon = dirs.size();
    std::string dir = dirs.substr(at, colon - at);
    at = colon + 1;
    if (dir.empty()) continue;
    std::string full = JoinPath(dir, name);
    if (IsFile(full) && access(full.c_str(), X_OK) == 0) return full;
  }
  return "";
}

// Reads a whole small file; false when it cannot be opened.
bool ReadSmall(const std::string& path, size_t limit, std::string* out) {
  FILE* f = safe_fopen_read(path.c_str());
  if (!f) return false;
  out->clear();
  char buf[4096];
  size_t n;
  while (out->size() < limit && (n = std::fread(buf, 1, sizeof buf, f)) > 0) out->append(buf, n);
  if (out->size() > limit) out->resize(limit);
  std::fclose(f);
  return true;
}

// Formats a command in the fixed buffer and refuses one that is too long.
bool Command(const char* caller, std::string* command, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
bool Command(const char* caller, std::string* command, const char* fmt, ...) {
  char buffer[kCommandBuffer];
  va_list ap;
  va_start(ap, fmt);
  int n = std::vsnprintf(buffer, sizeof buffer, fmt, ap);
  va_end(ap);
  if (n < 0 || static_cast<size_t>(n) >= kPgpMaxCommand) {
    Trace(kTracePgp, kTraceCritical, "%s: PGP command too long [%d]\n", caller, n);
    pgp_set_last_error(kPgpErrCommandTooLong);
    return false;
  }
  *command = buffer;
  return true;
}

void ClearTarget(const char* caller, const char* path) {
  if (!pgp_clear_remove_file(path))
    Trace(kTracePgp, kTraceMedium, "%s: could not wipe the old \"%s\"\n", caller, path);
}

// Waits for the wrapper, at most max_wait seconds (0: no limit).
int WaitFor(pid_t pid, long max_wait, int* status) {
  struct timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  for (;;) {
    int w = 0;
    pid_t got = waitpid(pid, &w, WNOHANG);
    if (got == pid) {
      *status = WIFEXITED(w) ? WEXITSTATUS(w) : kPgpErrWrapperUnknown;
      return 1;
    }
    if (got < 0 && errno != EINTR) {
      // The process is gone without a status for us: counts as success.
      *status = 0;
      return 1;
    }
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (max_wait > 0 && now.tv_sec - start.tv_sec >= max_wait) {
      kill(-pid, SIGKILL);
      kill(pid, SIGKILL);
      while (waitpid(pid, &w, 0) < 0 && errno == EINTR) {
      }
      return 0;
    }
    usleep(10000);
  }
}

}  // namespace

// --- Errors -------------------------------------------------------------------

void pgp_set_last_error(int code) { g_last_error = code; }
int pgp_get_last_error() { return g_last_error; }
const std::string& pgp_get_last_capture() { return g_last_capture; }

std::string pgp_error_text(int code) {
  switch (code) {
    case 10: return "Public/private key generation failed.";
    case 12: return "No public keys found in message.";
    case 20: return "Digital signature creation failed.";
    case 31: return "The message is corrupt.";
    case 40: return "PGP wrapper file argument not found.";
    case 41: return "Path to PGP wrapper file argument not found.";
    case 42: return "The message could not be encrypted.";
    case 50: return "No signature found.";
    case 51: return "Bad signature found.";
    case 52: return "Could not find the correct public key.";
    case 53:
    case 67: return "PGP has found a corrupted file.";
    case 54: return "Incorrect pass phrase.";
    case 55: return "No secret key found for user.";
    case 56: return "Error executing PGP command.";
    case 57: return "Could not find the recipient's public key.";
    case 58: return "You do not have the secret key to decrypt this message.";
    case 59: return "Unknown error occurred in PGP wrapper.";
    case 60:
      return "Velmar was unable to locate PGP.  Check to ensure PGP is in the path and the PGPPATH environment "
             "variable is set.";
    case 61: return "PGP has failed.";
    case 62: return "The setup, prior to calling PGP, failed.";
    case 63:
      return "The Operating System has insufficient resources to start PGP.  Please shutdown some applications and "
             "try again.";
    case 64: return "The PGP maximum wait time has been exceeded.  The PGP operation has been aborted.";
    case 65: return "The selected feature is not currently supported.";
    case 66: return "PGP operation failed.";
    case 68: return "PGP could not determine the type of a file.";
    case 69: return "The PGP operation could not be completed because a file could not be located.";
    case 70: return "The signature could not be verified.";
    case 71: return "The message could not be decrypted.";
    case 72:
      return "The Tools|Options|Edit - PGP UserID is empty.  Velmar requires this information to continue.  "
             "Aborting.";
    case 73: return "User aborted PGP operation.";
    case 74: return "PGP command too long.  Please select fewer recipients and try again.";
    case 75:
      return "The PGP wrapper binary \"" + pgp_wrapper_path() + "\" could not be located.  PGP operation failed.";
    case 77: return "PGP key publication failed.";
    case 78: return "Too many login failures.  Aborting PGP user authentication.";
    case 79: return "A PGP error occurred while attempting to authenticate.  Aborting.";
    case 80: return "Executable could not be found.";
    default: return "Unknown error in pgp_report_error.";
  }
}

void pgp_report_error(int code) { xvt_dm_post_error("%s", pgp_error_text(code).c_str()); }

int pgp_process_error(int status) {
  switch (status) {
    case 1: return 67;
    case 2: return 40;
    case 3:
    case 53: return 53;
    case 6: return 73;
    case 7: return 63;
    case 10: return 10;
    case 12: return 12;
    case 20: return 20;
    case 21:
    case 22:
    case 23: return 42;
    case 31: return 31;
    case 32:
    case 33: return 71;
    case 50: return 50;
    case 51: return 51;
    case 52: return 52;
    default: return status >= 54 && status <= 60 ? status : 66;
  }
}

int pgp_clear_remove_file(const char* path) {
  int fd = open(path, O_WRONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    if (errno == ENOENT) return 1;
    return Fail(kPgpErrWipe);
  }
  struct stat st;
  bool ok = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  if (ok) {
    char zeros[4096] = {};
    for (off_t at = 0; ok && at < st.st_size;) {
      size_t n = static_cast<size_t>(std::min<off_t>(sizeof zeros, st.st_size - at));
      ok = safe_pwrite_all(fd, zeros, n, at);
      at += static_cast<off_t>(n);
    }
    ok = ok && safe_fsync(fd);
  }
  close(fd);
  if (!ok || unlink(path) != 0) return Fail(kPgpErrWipe);
  return 1;
}

// --- Set-up -------------------------------------------------------------------

std::string pgp_get_pgppath() {
  for (const char* name : {"GNUPGHOME", "PGPPATH"}) {
    const char* v = std::getenv(name);
    if (v && *v) return v;
  }
  const char* home = std::getenv("HOME");
  return JoinPath(home ? home : "", ".gnupg");
}

int pgp_is_setup() {
  for (const char* name : {"GNUPGHOME", "PGPPATH"}) {
    const char* v = std::getenv(name);
    if (v && *v) return 1;
  }
  if (IsDir(pgp_get_pgppath())) return 1;
  Trace(kTracePgp, kTraceHigh, "pgp_is_setup: PGPPATH variable is not set\n");
  return 0;
}

int pgp_set_pgppath(const char* path) {
  if (!path || !*path) return Fail(kPgpErrNotFound);
  setenv("GNUPGHOME", path, 1);
  setenv("PGPPATH", path, 1);
  return 1;
}

int pgp_get_pgp_binary(std::string* path) {
  std::string chosen = Opt_LookupText(kPgpPathOption, kOptSession);
  if (!chosen.empty() && IsFile(chosen)) {
    *path = chosen;
    return 1;
  }
  if (!chosen.empty()) {
    xvt_dm_post_error("PGP executable \"%s\" does not exist.", chosen.c_str());
  } else {
    chosen = FindOnPath("gpg");
    if (!chosen.empty()) {
      *path = chosen;
      return 1;
    }
  }
  char buf[4096] = "";
  if (!xvt_dm_post_file_open("Locate PGP executable", buf, sizeof buf) || !IsFile(buf))
    return Fail(kPgpErrNoExecutable);
  Opt_AssignString(kPgpPathOption, buf, kOptPermanent, 0);
  *path = buf;
  return 1;
}

void pgp_set_wrapper_path(const std::string& path) { g_wrapper_override = path; }

std::string pgp_wrapper_path() {
  if (!g_wrapper_override.empty()) return g_wrapper_override;
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return "velmar-pgpwrap";
  self[n] = '\0';
  return JoinPath(safe_dir_of(self), "velmar-pgpwrap");
}

const std::vector<std::string>& pgp_last_wrapper_args() { return g_last_args; }

std::string pgp_make_private_dir() {
  // Plain text and pass phrases never reach a disk when the session has a
  // memory file system of its own.
  std::string base;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime && *runtime && IsDir(runtime) && access(runtime, W_OK) == 0) base = runtime;
  else if (!GetTempDir().empty() && IsDir(GetTempDir())) base = GetTempDir();
  else base = "/tmp";
  std::string templ = JoinPath(base, "vpgp-XXXXXX");
  if (!mkdtemp(templ.data())) {
    Trace(kTracePgp, kTraceCritical, "pgp_make_private_dir: %s: %s\n", templ.c_str(), std::strerror(errno));
    pgp_set_last_error(kPgpErrResources);
    return "";
  }
  return templ;
}

// --- Running the wrapper --------------------------------------------------------

int pgp_separate_arguments(const char* command, std::vector<std::string>* words) {
  words->clear();
  const char* p = command;
  for (;;) {
    while (*p == ' ' || *p == '\t') ++p;
    if (!*p) return 1;
    std::string word;
    while (*p && *p != ' ' && *p != '\t') {
      if (*p == '"') {
        const char* close = std::strchr(p + 1, '"');
        if (!close) return 0;
        word.append(p + 1, close);
        p = close + 1;
      } else {
        word.push_back(*p++);
      }
    }
    if (words->size() >= static_cast<size_t>(kPgpMaxArguments)) return 0;
    words->push_back(word);
  }
}

std::string pgp_export_text(const std::string& pgp, const std::vector<std::string>& words,
                            const std::string* pass_phrase, int* count) {
  std::string text = pgp + "\n";
  for (const std::string& w : words) text += w + "\n";
  *count = static_cast<int>(words.size());
  if (pass_phrase) {
    std::string coded = Base64Encode(*pass_phrase, false);
    for (char c : coded)
      if (c != '\r' && c != '\n') text.push_back(c);
    text.push_back('\n');
    Wipe(&coded);
    ++*count;
  }
  return text;
}

std::vector<std::string> pgp_form_wrapper_arg_list(const std::string& wrapper, const PgpRun& run) {
  std::vector<std::string> a = {wrapper, std::to_string(run.count), run.export_file, run.error_file};
  if (run.pause) a.push_back("-pause");
  if (run.logging) a.push_back("-logging");
  if (run.auth) a.push_back("-auth");
  if (run.included) a.push_back("-included");
  if (run.auth || run.verify) a.insert(a.end(), {"-capture", run.capture_file});
  if (run.verify) a.push_back("-verify");
  return a;
}

namespace {

int pgp_init(PgpRun* run, int auth, int verify) {
  std::string wrapper = pgp_wrapper_path();
  if (!IsFile(wrapper) || access(wrapper.c_str(), X_OK) != 0) {
    Trace(kTracePgp, kTraceCritical, "pgp_init: no wrapper at \"%s\"\n", wrapper.c_str());
    return Fail(kPgpErrNoWrapper);
  }
  run->dir = pgp_make_private_dir();
  if (run->dir.empty()) return Fail(kPgpErrResources);
  run->export_file = JoinPath(run->dir, "export");
  run->error_file = JoinPath(run->dir, "error");
  if (auth || verify) run->capture_file = JoinPath(run->dir, "capture");
  return 1;
}

int pgp_export(const PgpRun& run, const std::string& pgp, const std::vector<std::string>& words,
               const std::string* pass_phrase, int* count) {
  std::string text = pgp_export_text(pgp, words, pass_phrase, count);
  SafeFileError err;
  int fd = safe_create_exclusive(run.export_file.c_str(), 0600, &err);
  bool ok = fd >= 0 && safe_write_all(fd, text.data(), text.size(), &err);
  if (fd >= 0) close(fd);
  Wipe(&text);
  if (!ok) {
    Trace(kTracePgp, kTraceCritical, "pgp_export: %s: %s\n", run.export_file.c_str(), err.text().c_str());
    return Fail(kPgpErrSetup);
  }
  return 1;
}

void pgp_destroy(const PgpRun& run) {
  if (run.dir.empty()) return;
  if (!pgp_clear_remove_file(run.export_file.c_str()))
    xvt_dm_post_error("Velmar could not wipe the export file \"%s\".  You may want to delete this file yourself.",
                      run.export_file.c_str());
  unlink(run.error_file.c_str());
  if (!run.capture_file.empty()) pgp_clear_remove_file(run.capture_file.c_str());
  rmdir(run.dir.c_str());
}

// Starts the wrapper in a process group of its own, so that a time-out
// stops gpg with it. With pause, in a terminal window the user can answer.
int pgp_exec_native(const std::vector<std::string>& args, bool pause, int* status) {
  std::vector<std::string> argv;
  if (pause) argv = {"x-terminal-emulator", "-T", "Velmar Security", "-e"};
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> c;
  for (std::string& a : argv) c.push_back(a.data());
  c.push_back(nullptr);
  xvt_win_set_cursor(TASK_WIN, CURSOR_WAIT);
  pid_t pid = fork();
  if (pid < 0) {
    xvt_win_set_cursor(TASK_WIN, CURSOR_ARROW);
    *status = kPgpErrExecute;
    return 1;
  }
  if (pid == 0) {
    setpgid(0, 0);
    if (!pause) {
      int null_fd = open("/dev/null", O_RDWR);
      if (null_fd >= 0) dup2(null_fd, 0);
    }
    execvp(c[0], c.data());
    _exit(kPgpErrExecute);
  }
  setpgid(pid, pid);
  int max_wait = 300;
  Opt_LookupInt(kPgpMaxWaitOption, &max_wait, kOptSession);
  int ok = WaitFor(pid, pause ? 0 : max_wait, status);
  xvt_win_set_cursor(TASK_WIN, CURSOR_ARROW);
  return ok;
}

int pgp_get_wrapper_error(const PgpRun& run, int* code) {
  FILE* f = safe_fopen_read(run.error_file.c_str());
  char buf[11] = "";
  size_t n = f ? std::fread(buf, 1, 10, f) : 0;
  if (f) std::fclose(f);
  buf[n] = '\0';
  char* end = nullptr;
  long v = std::strtol(buf, &end, 10);
  if (!f || n == 0 || end == buf) {
    Trace(kTracePgp, kTraceCritical,
          "pgp_get_wrapper_error: Failed to read from wrapper error file \"%s\".  %s\n", run.error_file.c_str(),
          f ? "No code in the file." : std::strerror(errno));
    return 0;
  }
  *code = static_cast<int>(v);
  return 1;
}

}  // namespace

int pgp_execute(const char* caller, const std::string& command, const std::string* pass_phrase, int pause, int auth,
                int verify) {
  Trace(kTracePgp, kTraceAll, "pgp_execute: function entry - %s\n", caller);
  g_last_capture.clear();
  // An empty phrase is no phrase: gpg then needs none or fails for want of it.
  if (pass_phrase && pass_phrase->empty()) pass_phrase = nullptr;
  std::string pgp;
  if (!pgp_get_pgp_binary(&pgp)) return 0;
  std::vector<std::string> words;
  if (!pgp_separate_arguments(command.c_str(), &words)) {
    Trace(kTracePgp, kTraceCritical, "%s: the command cannot be split: %s\n", caller, command.c_str());
    return Fail(kPgpErrSetup);
  }
  PgpRun run;
  if (!pgp_init(&run, auth, verify)) {
    pgp_destroy(run);
    return 0;
  }
  run.pause = pause != 0;
  run.auth = auth != 0;
  run.verify = verify != 0;
  run.included = pass_phrase != nullptr;
  run.logging = TraceWanted(kTracePgp, kTraceAll);
  int result = 1;
  if (!pgp_export(run, pgp, words, pass_phrase, &run.count)) {
    result = 0;
  } else {
    g_last_args = pgp_form_wrapper_arg_list(pgp_wrapper_path(), run);
    int status = 0, code = 0;
    if (!pgp_exec_native(g_last_args, run.pause, &status)) {
      result = Fail(kPgpErrTimeout);
    } else if (status != 0) {
      Trace(kTracePgp, kTraceHigh, "%s: the wrapper ended with %d\n", caller, status);
      result = Fail(pgp_process_error(status));
    } else if (!pgp_get_wrapper_error(run, &code)) {
      result = Fail(kPgpErrFailed);
    } else if (code != 0) {
      Trace(kTracePgp, kTraceHigh, "%s: PGP answered %d\n", caller, code);
      result = Fail(pgp_process_error(code));
    }
    if (!run.capture_file.empty()) ReadSmall(run.capture_file, 64 * 1024, &g_last_capture);
  }
  pgp_destroy(run);
  if (result) pgp_set_last_error(0);
  return result;
}

// --- Operations -------------------------------------------------------------------

int pgp_sign(const char* in, const char* out, const char* user_id, const std::string& pass_phrase) {
  std::string command;
  if (!Command("pgp_sign", &command, "+for \"%s\" -o \"%s\" -sta -u \"%s\" +bat", in, out, user_id)) return 0;
  ClearTarget("pgp_sign", out);
  if (!pgp_execute("pgp_sign", command, &pass_phrase, 0, 0, 0)) return 0;
  if (!IsFile(out)) {
    Trace(kTracePgp, kTraceCritical, "pgp_sign: Digitally signed file does not exist.\n");
    return Fail(kPgpErrSignCreate);
  }
  return 1;
}

int pgp_encrypt(const char* in, const char* out, const char* recipients, const char* user_id,
                const std::string& pass_phrase, int sign) {
  std::string command;
  bool ok = sign ? Command("pgp_encrypt", &command, "+for \"%s\" -o \"%s\" -esat %s -u \"%s\" +bat", in, out,
                           recipients, user_id)
                 : Command("pgp_encrypt", &command, "+for \"%s\" -o \"%s\" -eat %s +bat", in, out, recipients);
  if (!ok) return 0;
  ClearTarget("pgp_encrypt", out);
  if (!pgp_execute("pgp_encrypt", command, sign ? &pass_phrase : nullptr, 0, 0, 0)) {
    if (pgp_get_last_error() == kPgpErrGeneral) pgp_set_last_error(kPgpErrEncrypt);
    return 0;
  }
  if (!IsFile(out)) return Fail(kPgpErrEncrypt);
  return 1;
}

int pgp_decrypt(const char* in, const char* out, const std::string& pass_phrase, int decrypt) {
  std::string command;
  if (!Command("pgp_decrypt", &command, "+for \"%s\" -o \"%s\"%s +bat", in, out, decrypt ? " -d" : "")) return 0;
  ClearTarget("pgp_decrypt", out);
  if (!pgp_execute("pgp_decrypt", command, &pass_phrase, 0, 0, 0)) {
    if (pgp_get_last_error() == kPgpErrGeneral) pgp_set_last_error(kPgpErrDecrypt);
    return 0;
  }
  if (!IsFile(out)) return Fail(kPgpErrDecrypt);
  return 1;
}

int pgp_verify_signature(const char* in, const char* out, const std::string& pass_phrase) {
  std::string command;
  if (!Command("pgp_verify_signature", &command, "+for \"%s\" -o \"%s\" +bat", in, out)) return 0;
  ClearTarget("pgp_verify_signature", out);
  return pgp_execute("pgp_verify_signature", command, pass_phrase.empty() ? nullptr : &pass_phrase, 0, 0, 1);
}

int pgp_capture_key(const char* file, const char* user_id, const std::string& pass_phrase) {
  std::string command;
  bool certify = !pass_phrase.empty() && user_id && *user_id;
  bool ok = certify ? Command("pgp_capture_key", &command, "-ka +for \"%s\" %s -u \"%s\"", file, kPgpKeyRing, user_id)
                    : Command("pgp_capture_key", &command, "-ka +for \"%s\" %s", file, kPgpKeyRing);
  if (!ok) return 0;
  return pgp_execute("pgp_capture_key", command, certify ? &pass_phrase : nullptr, 0, 0, 0);
}

namespace {

int ExportKey(const char* caller, const char* user_id, const char* out, int failure) {
  std::string command;
  std::string ring = pgp_get_pgppath() + "/" + kPgpKeyRing;
  if (!Command(caller, &command, "\"%s\" \"%s\" \"%s\" -kxa", user_id, out, ring.c_str())) return 0;
  ClearTarget(caller, out);
  if (!pgp_execute(caller, command, nullptr, 0, 0, 0)) {
    if (pgp_get_last_error() == kPgpErrGeneral) pgp_set_last_error(failure);
    return 0;
  }
  return 1;
}

}  // namespace

int pgp_display_key(const char* user_id, const char* out) {
  return ExportKey("pgp_display_key", user_id, out, kPgpErrGeneral);
}

int pgp_publish_key(const char* user_id, const char* out) {
  return ExportKey("pgp_publish_key", user_id, out, kPgpErrPublish);
}

int pgp_generate_key(const char* user_id) {
  std::string command;
  if (!Command("pgp_generate_key", &command, "-kg +for \"%s\"", user_id)) return 0;
  return pgp_execute("pgp_generate_key", command, nullptr, 1, 0, 0);
}

int pgp_get_message_type(const char* file) {
  FILE* f = safe_fopen_read(file);
  if (!f) {
    pgp_set_last_error(kPgpErrFileType);
    return kPgpTypeError;
  }
  int type = kPgpTypeNone;
  char line[256];
  bool line_start = true;
  while (type == kPgpTypeNone && std::fgets(line, sizeof line, f)) {
    size_t n = std::strlen(line);
    bool whole = n > 0 && line[n - 1] == '\n';
    bool was_start = line_start;
    line_start = whole;
    if (!was_start) continue;  // the rest of a long line
    while (n > 0 && (line[n - 1] == '\n' || line[n - 1] == '\r' || line[n - 1] == ' ' || line[n - 1] == '\t'))
      line[--n] = '\0';
    if (std::strcmp(line, "-----BEGIN PGP MESSAGE-----") == 0) type = kPgpTypeEncrypted;
    else if (std::strcmp(line, "-----BEGIN PGP PUBLIC KEY BLOCK-----") == 0) type = kPgpTypeKey;
    else if (std::strcmp(line, "-----BEGIN PGP SIGNED MESSAGE-----") == 0) type = kPgpTypeSigned;
  }
  bool failed = std::ferror(f);
  std::fclose(f);
  if (failed) {
    pgp_set_last_error(kPgpErrFileType);
    return kPgpTypeError;
  }
  return type;
}

// --- The user ---------------------------------------------------------------------

namespace {

constexpr int kPassDialogRid = 3130;
constexpr int kPassDialogLabel = 3131;
constexpr int kPassDialogPhrase = 3132;
constexpr int kPassDialogOk = 3133;
constexpr int kPassDialogCancel = 3134;

const WIN_DEF kPassDef[] = {
    {W_MODAL, {0, 0, 380, 150}, "PGP User Authentication", 0, 0},
    {WC_TEXT, {12, 12, 368, 32}, "", kPassDialogLabel, 0},
    {WC_TEXT, {12, 50, 110, 70}, "~Pass phrase:", 3135, 0},
    {WC_EDIT, {115, 48, 368, 72}, "", kPassDialogPhrase, CTL_FLAG_PASSWORD},
    {WC_PUSHBUTTON, {80, 100, 170, 130}, "OK", kPassDialogOk, CTL_FLAG_DEFAULT},
    {WC_PUSHBUTTON, {210, 100, 300, 130}, "Cancel", kPassDialogCancel, 0},
    {W_NONE, {}, nullptr, 0, 0},
};

struct PassAsk {
  const char* user_id;
  std::string* phrase;
  bool ok = false;
};

long pass_eh(WINDOW win, EVENT* ev) {
  auto* ask = reinterpret_cast<PassAsk*>(xvt_vobj_get_data(win));
  if (ev->type == E_CREATE) {
    std::string label = std::string("Pass phrase for ") + ask->user_id;
    xvt_vobj_set_title(xvt_win_get_ctl(win, kPassDialogLabel), label.c_str());
    xvt_scr_set_focus_vobj(xvt_win_get_ctl(win, kPassDialogPhrase));
  } else if (ev->type == E_CONTROL && ev->v.ctl.id == kPassDialogOk) {
    char buf[kPgpMaxPassphrase + 2] = "";
    xvt_vobj_get_title(xvt_win_get_ctl(win, kPassDialogPhrase), buf, sizeof buf);
    if (std::strlen(buf) > kPgpMaxPassphrase) {
      explicit_bzero(buf, sizeof buf);
      xvt_dm_post_error("The pass phrase is longer than %zu characters.", kPgpMaxPassphrase);
      return 0;
    }
    if (buf[strspn(buf, " \t")] == '\0') {
      xvt_dm_post_error("PGP pass phrase is blank");
      return 0;
    }
    *ask->phrase = buf;
    explicit_bzero(buf, sizeof buf);
    ask->ok = true;
    xvt_vobj_destroy(win);
  } else if ((ev->type == E_CONTROL && ev->v.ctl.id == kPassDialogCancel) || ev->type == E_CLOSE) {
    xvt_vobj_destroy(win);
  }
  return 0;
}

}  // namespace

int pgp_prompt_info(const char* user_id, std::string* pass_phrase) {
  Wipe(pass_phrase);
  xvt_res_register_dialog(kPassDialogRid, kPassDef);
  PassAsk ask{user_id, pass_phrase};
  if (!xvt_dlg_create_res(W_MODAL, kPassDialogRid, EM_ALL, pass_eh, reinterpret_cast<intptr_t>(&ask))) {
    xvt_dm_post_error("Unable to create PGP authentication dialog");
    return 0;
  }
  if (!ask.ok) {
    Wipe(pass_phrase);
    return Fail(kPgpErrAborted);
  }
  return 1;
}

int pgp_auth_user(const char* user_id, const std::string& pass_phrase, int* ok) {
  *ok = 0;
  std::string dir = pgp_make_private_dir();
  if (dir.empty()) return 0;
  std::string in = JoinPath(dir, "a.txt"), out = JoinPath(dir, "a.asc");
  int result = 1;
  if (!safe_replace_file(in, "pass phrase check\n", 0600)) {
    result = Fail(kPgpErrSetup);
  } else {
    std::string command;
    if (!Command("pgp_auth_user", &command, "+for \"%s\" -o \"%s\" -sta -u \"%s\" +bat", in.c_str(), out.c_str(),
                 user_id)) {
      result = 0;
    } else if (pgp_execute("pgp_auth_user", command, &pass_phrase, 0, 1, 0)) {
      *ok = 1;
    } else if (pgp_get_last_error() != kPgpErrBadPassphrase) {
      result = 0;
    }
  }
  pgp_clear_remove_file(out.c_str());
  pgp_clear_remove_file(in.c_str());
  rmdir(dir.c_str());
  if (result) pgp_set_last_error(*ok ? 0 : kPgpErrBadPassphrase);
  return result;
}

int pgp_login(std::string* user_id, std::string* pass_phrase) {
  *user_id = Opt_LookupText(kPgpUserIdOption, kOptSession);
  if (user_id->empty()) {
    *user_id = Opt_LookupText("General.MailAddress", kOptSession);
    if (user_id->empty()) return Fail(kPgpErrNoUserId);
    Opt_AssignString(kPgpUserIdOption, user_id->c_str(), kOptPermanent, 0);
  }
  if (user_id->size() > kPgpMaxUserId) return Fail(kPgpErrNoUserId);
  for (int round = 0; round < 3; ++round) {
    if (!pgp_prompt_info(user_id->c_str(), pass_phrase)) return 0;
    int ok = 0;
    if (!pgp_auth_user(user_id->c_str(), *pass_phrase, &ok)) {
      Wipe(pass_phrase);
      int code = pgp_get_last_error();
      pgp_report_error(code);
      return Fail(kPgpErrAuth);
    }
    if (ok) return 1;
    Wipe(pass_phrase);
    pgp_report_error(kPgpErrBadPassphrase);
  }
  return Fail(kPgpErrTooManyLogins);
}

std::string form_pgp_recip_list(const Envelope* env) {
  std::vector<std::string> seen;
  std::string list;
  auto add = [&](const std::string& id, bool hidden) {
    if (id.empty()) return;
    for (const std::string& s : seen)
      if (strcasecmp(s.c_str(), id.c_str()) == 0) return;
    seen.push_back(id);
    if (!list.empty()) list += ' ';
    if (hidden) list += '!';
    // Ids with blanks or quotes must stay one word of the command.
    if (id.find_first_of(" \t\"") != std::string::npos) {
      std::string clean;
      for (char c : id)
        if (c != '"') clean.push_back(c);
      list += "\"" + clean + "\"";
    } else {
      list += id;
    }
  };
  if (env) {
    for (const MailAddress* group : {env->to, env->cc, env->bcc})
      for (const MailAddress* a = group; a; a = a->next)
        if (a->mailbox && a->host && !a->error) add(std::string(a->mailbox) + "@" + a->host, group == env->bcc);
  }
  short self = 1;
  Opt_LookupBoolean(kPgpEncryptToSelfOption, &self, kOptSession);
  if (self && !list.empty()) {
    std::string me = Opt_LookupText(kPgpUserIdOption, kOptSession);
    if (me.empty()) me = Opt_LookupText("General.MailAddress", kOptSession);
    add(me, false);
  }
  return list;
}
