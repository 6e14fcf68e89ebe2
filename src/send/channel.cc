// The local channel: line parsing and the Unix-domain socket on both ends.
#include "src/send/channel.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

#include "src/base/trace.h"
#include "xvt/xvt.h"

namespace {

bool IsItemChar(char c) { return c >= 'A' && c <= 'Z'; }
bool IsValueChar(unsigned char c) { return c >= 0x20 && c != 0x7f; }

bool FillAddress(const std::string& path, sockaddr_un* addr) {
  std::memset(addr, 0, sizeof *addr);
  addr->sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof addr->sun_path) return false;
  std::memcpy(addr->sun_path, path.data(), path.size());
  return true;
}

int ConnectTo(const std::string& path) {
  sockaddr_un addr;
  if (!FillAddress(path, &addr)) return -1;
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

bool SendAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      pollfd p{fd, POLLOUT, 0};
      if (::poll(&p, 1, 1000) <= 0) return false;  // a peer that reads nothing is dropped
      continue;
    }
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

bool PeerUid(int fd, uid_t* uid) {
  ucred cred{};
  socklen_t size = sizeof cred;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &size) != 0) return false;
  *uid = cred.uid;
  return true;
}

long NowMs() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

}  // namespace

bool ChannelParseLine(const std::string& line, ChannelLine* out, std::string* why) {
  auto fail = [why](const char* text) {
    if (why) *why = text;
    return false;
  };
  if (line.size() > kChannelMaxLine) return fail("line too long");
  std::string text = line;
  if (!text.empty() && text.back() == '\r') text.pop_back();
  size_t at;
  if (text.compare(0, 8, "REQUEST ") == 0) {
    out->kind = ChannelKind::kRequest;
    at = 8;
  } else if (text.compare(0, 5, "POKE ") == 0) {
    out->kind = ChannelKind::kPoke;
    at = 5;
  } else {
    return fail("not a request or a poke");
  }
  size_t end = at;
  while (end < text.size() && IsItemChar(text[end])) ++end;
  if (end == at) return fail("no item");
  if (end - at > kChannelMaxItem) return fail("item too long");
  out->item = text.substr(at, end - at);
  out->value.clear();
  if (out->kind == ChannelKind::kRequest) {
    if (end != text.size()) return fail("a request takes no value");
    return true;
  }
  if (end == text.size() || text[end] != ' ') return fail("a poke needs a value");
  const std::string value = text.substr(end + 1);
  if (value.size() > kChannelMaxValue) return fail("value too long");
  for (unsigned char c : value)
    if (!IsValueChar(c)) return fail("control character in value");
  out->value = value;
  return true;
}

std::string ChannelFormat(const ChannelLine& line) {
  if (line.item.empty() || line.item.size() > kChannelMaxItem || line.value.size() > kChannelMaxValue) return "";
  for (char c : line.item)
    if (!IsItemChar(c)) return "";
  for (unsigned char c : line.value)
    if (!IsValueChar(c)) return "";
  if (line.kind == ChannelKind::kRequest) return "REQUEST " + line.item + "\n";
  return "POKE " + line.item + " " + line.value + "\n";
}

std::string ChannelPath(const std::string& user_dir, const std::string& service) {
  std::string name;
  for (char c : service) name += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  return user_dir + (user_dir.empty() || user_dir.back() == '/' ? "" : "/") + "." + name + ".sock";
}

bool ChannelPeerAllowed(uid_t peer, uid_t self) { return peer == self; }

// --- The server ---------------------------------------------------------------

bool ChannelServer::Start(const std::string& path, Handler handler, std::string* why) {
  Stop();
  sockaddr_un addr;
  if (!FillAddress(path, &addr)) {
    *why = "socket path too long: " + path;
    return false;
  }
  if (const int other = ConnectTo(path); other >= 0) {
    ::close(other);
    *why = "another program serves " + path;
    return false;
  }
  // No one answers there: what is left is a socket of an ended program.
  struct stat st{};
  if (::lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) {
      *why = path + " exists and is not a socket";
      return false;
    }
    ::unlink(path.c_str());
  }
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    *why = std::string("socket: ") + std::strerror(errno);
    return false;
  }
  // The socket is made 0600 from the start: no moment at which another
  // user could connect.
  const mode_t old = ::umask(0077);
  const int bound = ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  ::umask(old);
  if (bound != 0 || ::chmod(path.c_str(), 0600) != 0 || ::listen(fd, 8) != 0) {
    *why = path + ": " + std::strerror(errno);
    ::close(fd);
    return false;
  }
  listen_fd_ = fd;
  path_ = path;
  handler_ = std::move(handler);
  return true;
}

void ChannelServer::Stop() {
  for (Client& c : clients_) ::close(c.fd);
  clients_.clear();
  if (listen_fd_ >= 0) {
    ::close(listen_fd_);
    ::unlink(path_.c_str());
  }
  listen_fd_ = -1;
}

std::vector<int> ChannelServer::Descriptors() const {
  std::vector<int> out;
  if (listen_fd_ >= 0) out.push_back(listen_fd_);
  for (const Client& c : clients_) out.push_back(c.fd);
  return out;
}

void ChannelServer::Accept() {
  for (;;) {
    const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) return;
    uid_t peer = 0;
    if (!PeerUid(fd, &peer) || !ChannelPeerAllowed(peer, ::geteuid())) {
      Trace(kTraceFrame, kTraceCritical, "channel: refused a client of uid %u.\n", static_cast<unsigned>(peer));
      ::close(fd);
      continue;
    }
    if (clients_.size() >= 16) {  // a runaway client cannot take every descriptor
      ::close(fd);
      continue;
    }
    clients_.push_back(Client{fd, {}});
  }
}

bool ChannelServer::Serve(Client* client) {
  char block[512];
  for (;;) {
    const ssize_t n = ::recv(client->fd, block, sizeof block, 0);
    if (n == 0) return false;
    if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
    client->buffer.append(block, static_cast<size_t>(n));
    for (size_t nl; (nl = client->buffer.find('\n')) != std::string::npos;) {
      const std::string text = client->buffer.substr(0, nl);
      client->buffer.erase(0, nl + 1);
      ChannelLine line;
      std::string why, answer;
      std::string reply;
      if (text.size() > kChannelMaxLine) {
        SendAll(client->fd, "NO line too long\n");
        return false;
      }
      if (!ChannelParseLine(text, &line, &why)) {
        Trace(kTraceFrame, kTraceLow, "channel: bad line (%s).\n", why.c_str());
        reply = "NO " + why + "\n";
      } else if (handler_ && handler_(line, &answer) && answer.find('\n') == std::string::npos) {
        reply = answer.empty() ? "OK\n" : "OK " + answer + "\n";
      } else {
        reply = "NO\n";
      }
      if (!SendAll(client->fd, reply)) return false;
      if (listen_fd_ < 0) return false;  // the handler stopped the server
    }
    if (client->buffer.size() > kChannelMaxLine) {
      SendAll(client->fd, "NO line too long\n");
      return false;
    }
  }
}

void ChannelServer::Pump(int timeout_ms) {
  if (listen_fd_ < 0) return;
  std::vector<pollfd> fds;
  for (int fd : Descriptors()) fds.push_back(pollfd{fd, POLLIN, 0});
  if (::poll(fds.data(), fds.size(), timeout_ms) <= 0) return;
  if (fds[0].revents) Accept();
  // Serve by descriptor: a handler may add or drop clients.
  for (size_t i = 1; i < fds.size(); ++i) {
    if (!fds[i].revents) continue;
    for (size_t c = 0; c < clients_.size(); ++c) {
      if (clients_[c].fd != fds[i].fd) continue;
      Client client = clients_[c];
      const bool keep = Serve(&client);
      // The handler may have stopped the server, or served another pump.
      for (size_t k = 0; k < clients_.size(); ++k) {
        if (clients_[k].fd != client.fd) continue;
        if (keep) {
          clients_[k].buffer = client.buffer;
        } else {
          ::close(client.fd);
          clients_.erase(clients_.begin() + static_cast<long>(k));
        }
        break;
      }
      break;
    }
  }
}

// --- The client ---------------------------------------------------------------

bool ChannelClient::Connect(const std::string& path) {
  Close();
  fd_ = ConnectTo(path);
  return fd_ >= 0;
}

void ChannelClient::Close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  buffer_.clear();
}

bool ChannelClient::Transact(const ChannelLine& line, std::string* value, int timeout_ms,
                             const std::function<void()>& wait) {
  const std::string text = ChannelFormat(line);
  if (fd_ < 0 || text.empty() || !SendAll(fd_, text)) return false;
  const long deadline = NowMs() + timeout_ms;
  for (;;) {
    if (size_t nl = buffer_.find('\n'); nl != std::string::npos) {
      std::string answer = buffer_.substr(0, nl);
      buffer_.erase(0, nl + 1);
      if (answer == "OK" || answer.compare(0, 3, "OK ") == 0) {
        if (value) *value = answer.size() > 3 ? answer.substr(3) : "";
        return true;
      }
      return false;
    }
    if (buffer_.size() > kChannelMaxLine) {
      Close();
      return false;
    }
    const long left = deadline - NowMs();
    if (left <= 0) return false;
    pollfd p{fd_, POLLIN, 0};
    const int ready = ::poll(&p, 1, static_cast<int>(left < 50 ? left : 50));
    if (ready > 0) {
      char block[512];
      const ssize_t n = ::recv(fd_, block, sizeof block, 0);
      if (n <= 0) {
        Close();
        return false;
      }
      buffer_.append(block, static_cast<size_t>(n));
    } else if (wait) {
      wait();
    }
  }
}

void ChannelSyncWatches(ChannelServer* server, std::map<int, long>* watches, void (*on_readable)(int, void*)) {
  std::map<int, long> now;
  for (int fd : server->Descriptors()) {
    auto it = watches->find(fd);
    if (it != watches->end()) {
      now[fd] = it->second;
      watches->erase(it);
    } else {
      now[fd] = xvt_fd_watch(fd, on_readable, nullptr);
    }
  }
  for (const auto& entry : *watches) xvt_fd_unwatch(entry.second);
  *watches = std::move(now);
}
