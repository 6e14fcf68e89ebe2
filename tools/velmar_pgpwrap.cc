// velmar-pgpwrap: runs gpg for the mail program, file to file.
//
//   velmar-pgpwrap count export-file error-file [-pause] [-logging] [-auth]
//                  [-included] [-capture file] [-verify]
//
// The export file holds gpg's path, the command words and, with -included,
// the pass phrase in base64. The pass phrase reaches gpg through a pipe and
// nowhere else. gpg's verdict, read from its status output, goes into the
// error file as a decimal code; gpg's messages go to the capture file.
// The exit status is 0 when gpg ran, whatever it decided.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "rclib/safe_file.h"
#include "tools/pgpwrap_core.h"

namespace {

bool g_logging = false;

void Wipe(std::string* s) {
  if (!s->empty()) explicit_bzero(s->data(), s->size());
  s->clear();
}

struct RunResult {
  int wrap_status = kWrapOk;  // non-zero when gpg could not be run
  int exit = -1;
  GpgStatus status;
  std::string out;  // gpg's standard output, when asked for
};

// A tool of gpg's own: beside it, else wherever the PATH has it.
std::string Sibling(const std::string& program, const char* name) {
  size_t slash = program.rfind('/');
  if (slash == std::string::npos) return name;
  std::string beside = program.substr(0, slash + 1) + name;
  return access(beside.c_str(), X_OK) == 0 ? beside : name;
}

// Runs argv[0] with the arguments. `status_fd_slot` and `pass_fd_slot`
// are indexes in argv whose text becomes the descriptor of the status pipe
// and of the pass phrase pipe (-1: none).
RunResult Run(std::vector<std::string> argv, int status_fd_slot, int pass_fd_slot, const std::string* phrase,
              int capture_fd, bool want_out, bool interactive) {
  RunResult r;
  int status_pipe[2] = {-1, -1}, pass_pipe[2] = {-1, -1}, out_pipe[2] = {-1, -1};
  auto close_all = [&]() {
    for (int* p : {status_pipe, pass_pipe, out_pipe})
      for (int i = 0; i < 2; ++i)
        if (p[i] >= 0) close(p[i]), p[i] = -1;
  };
  if (pipe2(status_pipe, O_CLOEXEC) != 0 || (phrase && pipe2(pass_pipe, O_CLOEXEC) != 0) ||
      (want_out && pipe2(out_pipe, O_CLOEXEC) != 0)) {
    std::fprintf(stderr, "velmar-pgpwrap: pipe: %s\n", std::strerror(errno));
    close_all();
    r.wrap_status = kWrapNoResources;
    return r;
  }
  if (status_fd_slot >= 0) argv[status_fd_slot] = std::to_string(status_pipe[1]);
  if (pass_fd_slot >= 0 && phrase) argv[pass_fd_slot] = std::to_string(pass_pipe[0]);
  if (phrase) {
    // A pass phrase is far smaller than a pipe's buffer: write it all now.
    std::string line = *phrase + "\n";
    bool ok = safe_write_all(pass_pipe[1], line.data(), line.size());
    Wipe(&line);
    close(pass_pipe[1]);
    pass_pipe[1] = -1;
    if (!ok) {
      close_all();
      r.wrap_status = kWrapNoResources;
      return r;
    }
  }
  if (g_logging) {
    std::fprintf(stderr, "velmar-pgpwrap: running");
    for (const std::string& a : argv) std::fprintf(stderr, " %s", a.c_str());
    std::fprintf(stderr, "\n");
  }
  std::vector<char*> cargv;
  for (std::string& a : argv) cargv.push_back(a.data());
  cargv.push_back(nullptr);
  pid_t pid = fork();
  if (pid < 0) {
    close_all();
    r.wrap_status = kWrapNoResources;
    return r;
  }
  if (pid == 0) {
    int null_fd = open("/dev/null", O_RDWR);
    if (!interactive) {
      dup2(null_fd, 0);
      dup2(want_out ? out_pipe[1] : null_fd, 1);
      dup2(capture_fd >= 0 ? capture_fd : (g_logging ? 2 : null_fd), 2);
    } else if (capture_fd >= 0) {
      dup2(capture_fd, 2);
    }
    fcntl(status_pipe[1], F_SETFD, 0);
    if (phrase) fcntl(pass_pipe[0], F_SETFD, 0);
    execvp(cargv[0], cargv.data());
    std::fprintf(stderr, "velmar-pgpwrap: cannot run %s: %s\n", cargv[0], std::strerror(errno));
    _exit(127);
  }
  close(status_pipe[1]);
  status_pipe[1] = -1;
  if (phrase) close(pass_pipe[0]), pass_pipe[0] = -1;
  if (want_out) close(out_pipe[1]), out_pipe[1] = -1;

  StatusParser parser;
  std::vector<pollfd> fds = {{status_pipe[0], POLLIN, 0}};
  if (want_out) fds.push_back({out_pipe[0], POLLIN, 0});
  char buf[4096];
  size_t open_fds = fds.size();
  while (open_fds > 0) {
    if (poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (pollfd& p : fds) {
      if (p.fd < 0 || !(p.revents & (POLLIN | POLLHUP | POLLERR))) continue;
      ssize_t n = read(p.fd, buf, sizeof buf);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        p.fd = -1;
        --open_fds;
        continue;
      }
      if (p.fd == status_pipe[0]) {
        parser.Feed(buf, static_cast<size_t>(n));
        if (g_logging) (void)!write(2, buf, static_cast<size_t>(n));
      } else if (r.out.size() < kStatusMaxBytes) {
        r.out.append(buf, static_cast<size_t>(n));
      }
    }
  }
  parser.Finish();
  close_all();
  int wstatus = 0;
  while (waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == 127 && parser.status().lines == 0) {
    r.wrap_status = kWrapExecFailed;
    return r;
  }
  r.exit = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
  r.status = parser.status();
  return r;
}

// gpg with the options every run needs: no questions, no network look-ups,
// the pass phrase from our pipe (never from an agent's dialog).
RunResult RunGpg(const std::string& gpg, const std::vector<std::string>& args, const std::string* phrase,
                 int capture_fd, bool want_out, bool interactive) {
  std::vector<std::string> argv = {gpg};
  if (!interactive) argv.insert(argv.end(), {"--batch", "--no-tty", "--yes", "--pinentry-mode", "loopback"});
  argv.insert(argv.end(), {"--auto-key-locate", "local", "--no-auto-key-retrieve", "--status-fd"});
  int status_slot = static_cast<int>(argv.size());
  argv.push_back("");
  int pass_slot = -1;
  if (phrase) {
    argv.push_back("--passphrase-fd");
    pass_slot = static_cast<int>(argv.size());
    argv.push_back("");
  }
  argv.insert(argv.end(), args.begin(), args.end());
  return Run(argv, status_slot, pass_slot, phrase, capture_fd, want_out, interactive);
}

// The agent keeps a pass phrase for a while after a good one; a check of a
// typed pass phrase must not be answered from that memory.
void ForgetCachedPassphrase(const std::string& gpg, const std::string& user) {
  RunResult list = RunGpg(gpg, {"--with-colons", "--with-keygrip", "--list-secret-keys", "--", user}, nullptr, -1,
                          true, false);
  std::vector<std::string> grips = KeygripsFromColons(list.out);
  if (grips.empty()) {
    Run({Sibling(gpg, "gpgconf"), "--reload", "gpg-agent"}, -1, -1, nullptr, -1, false, false);
    return;
  }
  for (const std::string& grip : grips)
    Run({Sibling(gpg, "gpg-connect-agent"), "--no-autostart", "clear_passphrase --mode=normal " + grip, "/bye"}, -1,
        -1, nullptr, -1, false, false);
}

bool ReadExportFile(const std::string& path, std::string* text) {
  SafeFileError err;
  struct stat st;
  int fd = safe_open_read(path.c_str(), &err, &st);
  if (fd < 0) {
    std::fprintf(stderr, "velmar-pgpwrap: export file %s: %s\n", path.c_str(), err.text().c_str());
    return false;
  }
  if (static_cast<size_t>(st.st_size) > kExportMaxBytes) {
    close(fd);
    std::fprintf(stderr, "velmar-pgpwrap: export file %s is too large\n", path.c_str());
    return false;
  }
  text->resize(kExportMaxBytes + 1);
  size_t got = 0;
  while (got < text->size()) {
    ssize_t n = read(fd, text->data() + got, text->size() - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  close(fd);
  text->resize(got);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  std::vector<std::string> args(argv, argv + argc);
  WrapperArgs wa;
  std::string error;
  if (!ParseWrapperArgs(args, &wa, &error)) {
    std::fprintf(stderr, "velmar-pgpwrap: %s\n", error.c_str());
    return kWrapBadArguments;
  }
  g_logging = wa.logging;
  std::string text;
  if (!ReadExportFile(wa.export_file, &text)) return kWrapBadArguments;
  ExportContents ex;
  bool parsed = ParseExportFile(text, wa.count, wa.included, &ex, &error);
  Wipe(&text);
  if (!parsed) {
    std::fprintf(stderr, "velmar-pgpwrap: %s: %s\n", wa.export_file.c_str(), error.c_str());
    return kWrapBadArguments;
  }
  GpgPlan plan;
  if (!TranslateCommand(ex.words, &plan, &error)) {
    Wipe(&ex.pass_phrase);
    std::fprintf(stderr, "velmar-pgpwrap: %s\n", error.c_str());
    return kWrapBadArguments;
  }
  int capture_fd = -1;
  if (!wa.capture_file.empty()) {
    capture_fd = safe_open(wa.capture_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, 0600);
    if (capture_fd < 0) {
      Wipe(&ex.pass_phrase);
      std::fprintf(stderr, "velmar-pgpwrap: capture file %s: %s\n", wa.capture_file.c_str(), std::strerror(errno));
      return kWrapNoResources;
    }
  }
  if (wa.auth && !plan.user.empty()) ForgetCachedPassphrase(ex.pgp_path, plan.user);

  const std::string* phrase = wa.included ? &ex.pass_phrase : nullptr;
  plan.passphrase_given = phrase != nullptr;
  RunResult r = RunGpg(ex.pgp_path, plan.args, phrase, capture_fd, false, plan.op == PgpOp::kGenerate);
  int code = kCodeFailed;
  if (r.wrap_status == kWrapOk) {
    code = CodeFor(plan, r.status, r.exit, wa.verify);
    // A captured key is certified locally with the user's own key, so that
    // mail can be encrypted to it without a question.
    if (code == kCodeOk && plan.op == PgpOp::kImport && phrase && !plan.user.empty()) {
      for (const std::string& fpr : r.status.import_fprs) {
        RunResult s = RunGpg(ex.pgp_path, {"--local-user", plan.user, "--quick-lsign-key", "--", fpr}, phrase,
                             capture_fd, false, false);
        if (s.wrap_status != kWrapOk) {
          r.wrap_status = s.wrap_status;
          break;
        }
        if (s.status.bad_passphrase || s.status.missing_passphrase) code = kCodeBadPassphrase;
        else if (s.status.invalid_signer) code = kCodeNoSecretKey;
        else if (s.exit != 0) code = kCodeSignFailed;
        if (code != kCodeOk) break;
      }
    }
  }
  Wipe(&ex.pass_phrase);
  if (capture_fd >= 0) close(capture_fd);
  if (r.wrap_status != kWrapOk) return r.wrap_status;
  std::string code_text = std::to_string(code);
  SafeFileError err;
  if (!safe_replace_file(wa.error_file, code_text, 0600, &err)) {
    std::fprintf(stderr, "velmar-pgpwrap: error file %s: %s\n", wa.error_file.c_str(), err.text().c_str());
    return kWrapNoResources;
  }
  if (wa.pause) {
    std::fprintf(stdout, "\nPress Enter to close this window.");
    std::fflush(stdout);
    (void)std::getchar();
  }
  return kWrapOk;
}
