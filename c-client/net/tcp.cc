// Blocking TCP for the protocol drivers: resolving, connecting, buffered
// reads of lines and counted blocks, writes. The socket is non-blocking for
// its whole life and every wait is a poll with a time-out, so no server can
// hold the program longer than the time-out, and a server that closes ends
// the stream at once.
#include "c-client/net/tcp.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "c-client/core/env.h"
#include "c-client/net/tcp_internal.h"

long connections = 0;

namespace {

TcpHooks g_hooks = {nullptr, nullptr};
int g_read_timeout = kTcpReadTimeoutSeconds;
int g_write_timeout = kTcpWriteTimeoutSeconds;
int g_connect_timeout = kTcpConnectTimeoutSeconds;

TcpResolver g_resolver = ::getaddrinfo;

void Trace(const std::string& text) { mm_dlog(text.c_str()); }

// One name lookup, shared by the caller and the thread that asks the
// resolver; whichever is left last frees it (and the answer, if the caller
// gave up waiting for it).
struct Lookup {
  std::mutex mutex;
  std::condition_variable done_cv;
  bool done = false;
  bool abandoned = false;
  int code = EAI_AGAIN;
  addrinfo* found = nullptr;
};

// getaddrinfo with a deadline. The system resolver has no time-out of its
// own that the program controls (a dead name server can hold it for half
// a minute or more), so it runs on a thread of its own and the caller
// waits at most the connect time-out; an answer that comes later is freed
// by that thread. A lookup that runs out of time is EAI_AGAIN.
int ResolveWithin(const std::string& name, const addrinfo& hints, addrinfo** found, int seconds) {
  *found = nullptr;
  auto lookup = std::make_shared<Lookup>();
  const TcpResolver resolver = g_resolver;
  try {
    std::thread([lookup, name, hints, resolver] {
      addrinfo* answer = nullptr;
      const int code = resolver(name.c_str(), nullptr, &hints, &answer);
      std::lock_guard<std::mutex> hold(lookup->mutex);
      if (lookup->abandoned) {
        if (code == 0 && answer) freeaddrinfo(answer);
        return;
      }
      lookup->code = code;
      lookup->found = code == 0 ? answer : nullptr;
      lookup->done = true;
      lookup->done_cv.notify_one();
    }).detach();
  } catch (const std::system_error&) {
    // No thread to be had: ask in this one rather than not at all.
    return resolver(name.c_str(), nullptr, &hints, found);
  }
  std::unique_lock<std::mutex> hold(lookup->mutex);
  if (!lookup->done_cv.wait_for(hold, std::chrono::seconds(seconds), [&] { return lookup->done; })) {
    lookup->abandoned = true;
    return EAI_AGAIN;
  }
  *found = lookup->found;
  return lookup->code;
}
void Report(const std::string& text, long level) { mm_log(text.c_str(), level); }

void Outcome(int ok) {
  if (g_hooks.outcome) g_hooks.outcome(ok);
}

// The open failed: the user sees why, and the program remembers it.
TcpStream* Fail(const std::string& text) {
  Report(text, 2);
  Outcome(0);
  return nullptr;
}

// One address to try, with the text the trace shows for it.
struct Target {
  sockaddr_storage addr{};
  socklen_t length = 0;
  std::string shown;
};

std::string AddressText(const sockaddr* sa) {
  char text[INET6_ADDRSTRLEN] = "";
  if (sa->sa_family == AF_INET) {
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(sa)->sin_addr, text, sizeof text);
  } else if (sa->sa_family == AF_INET6) {
    inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(sa)->sin6_addr, text, sizeof text);
  }
  return text;
}

void SetPort(sockaddr_storage* addr, unsigned long port) {
  if (addr->ss_family == AF_INET) {
    reinterpret_cast<sockaddr_in*>(addr)->sin_port = htons(static_cast<uint16_t>(port));
  } else if (addr->ss_family == AF_INET6) {
    reinterpret_cast<sockaddr_in6*>(addr)->sin6_port = htons(static_cast<uint16_t>(port));
  }
}

// The inside of a domain literal, IPv4 or IPv6; false when it is neither.
bool ParseLiteral(const std::string& inside, Target* target) {
  auto* v4 = reinterpret_cast<sockaddr_in*>(&target->addr);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&target->addr);
  if (inet_pton(AF_INET, inside.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    target->length = sizeof *v4;
    return true;
  }
  if (inet_pton(AF_INET6, inside.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    target->length = sizeof *v6;
    return true;
  }
  return false;
}

std::string ResolveError(int code, const std::string& name) {
  switch (code) {
    case EAI_NONAME:
      return tcp_format("Failed to resolve hostname '%s' - no such host", name.c_str());
    case EAI_AGAIN:
      return tcp_format("Failed to resolve hostname '%s' - failed to contact name server", name.c_str());
    case EAI_FAIL:
      return tcp_format("Failed to resolve hostname '%s' - name server refused request", name.c_str());
#ifdef EAI_NODATA
    case EAI_NODATA:
#endif
#ifdef EAI_ADDRFAMILY
    case EAI_ADDRFAMILY:
#endif
      return tcp_format("Failed to resolve hostname '%s' - no address record for this host", name.c_str());
    case EAI_SYSTEM:
      return tcp_format("Failed to resolve hostname '%s': %s", name.c_str(), std::strerror(errno));
    default:
      return tcp_format("Failed to resolve hostname '%s': %s", name.c_str(), gai_strerror(code));
  }
}

const char* ConnectError(int code) {
  switch (code) {
    case ENOBUFS:
    case ENOMEM:
      return "insufficient system TCP/IP resources";
    case ETIMEDOUT:
      return "connection timed out -- no response from server";
    case ECONNREFUSED:
      return "connection refused ";
    default:
      return "unknown TCP error";
  }
}

// Connects the non-blocking socket within the connect time-out: 0, or the
// error code.
int ConnectWithin(int fd, const Target& target) {
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&target.addr), target.length) == 0) return 0;
  // After a signal the connection goes on in the background, as after
  // EINPROGRESS; the wait below sees its end either way.
  if (errno != EINPROGRESS && errno != EINTR) return errno;
  int events = tcp_wait(fd, POLLOUT, tcp_deadline(g_connect_timeout));
  if (events == 0) return ETIMEDOUT;
  if (events < 0) return errno;
  int error = 0;
  socklen_t length = sizeof error;
  if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) return errno;
  return error;
}

// The name under which servers know this machine: the host name in its
// canonical form, else the socket's own address, else a fixed word.
std::string LocalName(int fd, bool ask_resolver) {
  char name[256] = "";
  if (ask_resolver && gethostname(name, sizeof name) == 0 && name[0]) {
    name[sizeof name - 1] = '\0';
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_CANONNAME;
    addrinfo* found = nullptr;
    std::string result = name;
    if (ResolveWithin(name, hints, &found, g_connect_timeout) == 0) {
      if (found && found->ai_canonname && found->ai_canonname[0]) result = found->ai_canonname;
      freeaddrinfo(found);
    }
    return result;
  }
  sockaddr_storage own{};
  socklen_t length = sizeof own;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&own), &length) == 0) {
    std::string address = AddressText(reinterpret_cast<sockaddr*>(&own));
    if (!address.empty()) return "[" + address + "]";
  }
  return "muahost";
}

TcpStream* NewStream(int fd, const std::string& host, const std::string& local) {
  auto* stream = static_cast<TcpStream*>(FS_GET(sizeof(TcpStream)));
  stream->host = cpystr(host.c_str());
  stream->localhost = cpystr(local.c_str());
  stream->socket = fd;
  stream->ictr = 0;
  stream->iptr = stream->ibuf;
  stream->tls = nullptr;
  stream->flags = 0;
  stream->reply_pending = false;
  ++connections;
  return stream;
}

// Takes the bytes up to the next buffer refill off the input.
void Consume(TcpStream* stream, long count) {
  stream->iptr += count;
  stream->ictr -= count;
}

char* GiveString(const std::string& text) {
  auto* copy = static_cast<char*>(FS_GET(text.size() + 1));
  std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  return copy;
}

// A line past the limit is a broken or hostile server: growing without
// bound would only trade the connection for the program's memory.
char* LineTooLong(TcpStream* stream) {
  Report(tcp_format("The server %.80s sent a line longer than %lu bytes; the connection is closed",
                    stream->host ? stream->host : "",
                    static_cast<unsigned long>(kTcpMaxLine)),
         2);
  stream->ictr = 0;
  tcp_abort(&stream->socket);
  return nullptr;
}

}  // namespace

std::string tcp_format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  int size = std::vsnprintf(nullptr, 0, format, args);
  va_end(args);
  std::string text(size > 0 ? static_cast<size_t>(size) : 0, '\0');
  if (size > 0) std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  return text;
}

TcpClock::time_point tcp_deadline(int seconds) { return TcpClock::now() + std::chrono::seconds(seconds); }

int tcp_wait(int fd, short events, TcpClock::time_point deadline) {
  for (;;) {
    // Checked first, so that a loop which keeps finding the socket ready
    // without getting what it waits for (records that carry no data) still
    // ends at the deadline.
    if (TcpClock::now() >= deadline) return 0;
    auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - TcpClock::now()).count();
    if (left < 0) left = 0;
    pollfd entry{fd, events, 0};
    int ready = ::poll(&entry, 1, static_cast<int>(std::min<long long>(left, 1 << 30)));
    if (ready < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (ready == 0) continue;
    if (entry.revents & POLLNVAL) {
      errno = EBADF;
      return -1;
    }
    return entry.revents;
  }
}

int tcp_read_timeout() { return g_read_timeout; }

void tcp_ignore_sigpipe() {
  static bool done = false;
  if (done) return;
  done = true;
  // A program that handles the signal itself keeps its handler.
  struct sigaction current {};
  if (sigaction(SIGPIPE, nullptr, &current) == 0 && !(current.sa_flags & SA_SIGINFO) &&
      current.sa_handler == SIG_DFL) {
    signal(SIGPIPE, SIG_IGN);
  }
}

void tcp_set_hooks(const TcpHooks* hooks) { g_hooks = hooks ? *hooks : TcpHooks{nullptr, nullptr}; }

void tcp_set_resolver_for_test(TcpResolver resolver) { g_resolver = resolver ? resolver : ::getaddrinfo; }

void tcp_set_timeouts_for_test(int read_seconds, int write_seconds, int connect_seconds) {
  g_read_timeout = read_seconds > 0 ? read_seconds : kTcpReadTimeoutSeconds;
  g_write_timeout = write_seconds > 0 ? write_seconds : kTcpWriteTimeoutSeconds;
  g_connect_timeout = connect_seconds > 0 ? connect_seconds : kTcpConnectTimeoutSeconds;
}

TcpStream* tcp_open(const char* host, const char* service, unsigned long port) {
  std::string requested = host ? host : "";
  Trace(tcp_format("tcp_open(): host = %s, service = %s\n", requested.c_str(), service ? service : ""));
  tcp_ignore_sigpipe();

  // "name:port" puts the port in the name; in "[literal]:port" the colons
  // of an IPv6 address are inside the brackets.
  std::string name = requested;
  size_t colon = std::string::npos;
  if (!name.empty() && name[0] == '[') {
    size_t close = name.find(']');
    if (close == std::string::npos) {
      return Fail(tcp_format("Illegal format for domain-literal hostname: %.80s", requested.c_str()));
    }
    colon = name.find(':', close);
  } else {
    colon = name.find(':');
  }
  if (colon != std::string::npos) {
    const char* digits = name.c_str() + colon + 1;
    const char* end = digits;
    unsigned long value = 0;
    while (*end >= '0' && *end <= '9' && value <= 65535) value = value * 10 + static_cast<unsigned long>(*end++ - '0');
    // A port in the name is something the user typed, so a bad one is an
    // error to show, not the broken invariant that port 0 from a caller is.
    if (end == digits || *end || value == 0 || value > 65535) {
      return Fail(tcp_format("Invalid string after port number in host specification: %.80s", requested.c_str()));
    }
    port = value;
    name.erase(colon);
  }
  if (port == 0 || port > 65535) fatal("Bad port argument to tcp_open");

  std::vector<Target> targets;
  std::string shown_host;
  if (!name.empty() && name[0] == '[') {
    Trace("tcp_open(): using literal IP address\n");
    Target target;
    if (name.back() != ']' || !ParseLiteral(name.substr(1, name.size() - 2), &target)) {
      return Fail(tcp_format("Illegal format for domain-literal hostname: %.80s", requested.c_str()));
    }
    target.shown = name;
    targets.push_back(target);
    shown_host = name;
  } else {
    for (char& c : name) {
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    Trace(tcp_format("tcp_open(): resolving hostname %s to IP address\n", name.c_str()));
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_CANONNAME;
    addrinfo* found = nullptr;
    int code = ResolveWithin(name, hints, &found, g_connect_timeout);
    if (code != 0) return Fail(ResolveError(code, name));
    shown_host = found && found->ai_canonname && found->ai_canonname[0] ? found->ai_canonname : name;
    for (addrinfo* a = found; a; a = a->ai_next) {
      if ((a->ai_family != AF_INET && a->ai_family != AF_INET6) || a->ai_addrlen > sizeof(sockaddr_storage)) continue;
      Target target;
      std::memcpy(&target.addr, a->ai_addr, a->ai_addrlen);
      target.length = a->ai_addrlen;
      target.shown = name + " (" + AddressText(a->ai_addr) + ")";
      targets.push_back(target);
    }
    freeaddrinfo(found);
    if (targets.empty()) return Fail(ResolveError(EAI_NODATA, name));
  }

  // The addresses in the resolver's order; each has the whole connect
  // time-out, so an unreachable first address still leaves the others a
  // chance. The last failure is the one reported.
  int fd = -1;
  int error = 0;
  bool no_socket = false;
  for (Target& target : targets) {
    SetPort(&target.addr, port);
    Trace(tcp_format("tcp_open(): connecting to host: %s", target.shown.c_str()));
    fd = ::socket(target.addr.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
      error = errno;
      no_socket = true;
      continue;
    }
    no_socket = false;
    error = ConnectWithin(fd, target);
    if (error == 0) break;
    Trace(tcp_format("tcp_open(): %s: %s\n", target.shown.c_str(), std::strerror(error)));
    ::close(fd);
    fd = -1;
  }
  if (fd < 0) {
    if (no_socket) return Fail(tcp_format("Failed to create TCP socket (%d)", error));
    return Fail(tcp_format("Failed to connect to %s: %s", name.c_str(), ConnectError(error)));
  }

  // Commands are single small writes, each answered before the next: no
  // point in holding them back for coalescing.
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  Trace("tcp_open(): connected.");
  std::string local = LocalName(fd, true);
  TcpStream* stream = NewStream(fd, shown_host, local);
  Trace(tcp_format("Local hostname: %s", local.c_str()));
  Outcome(1);
  return stream;
}

TcpStream* tcp_attach_fd(int fd, const char* host) {
  if (fd < 0) return nullptr;
  int flags = fcntl(fd, F_GETFL);
  if (flags >= 0) fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  // The descriptor may be a socket pair: asking the resolver for this
  // machine's name would be slow and mean nothing.
  return NewStream(fd, host ? host : "", LocalName(fd, false));
}

long tcp_getdata(TcpStream* stream) {
  if (!stream) return 0;
  // What arrived before the server closed is still served.
  if (stream->ictr > 0) return 1;
  if (stream->socket < 0) return 0;
  auto deadline = tcp_deadline(g_read_timeout);
  if (stream->tls) return tcp_tls_fill(stream, deadline);
  for (;;) {
    int events = tcp_wait(stream->socket, POLLIN, deadline);
    if (events < 0) {
      Report(tcp_format("tcp_getdata: socket error during select: %d", errno), 0);
      tcp_abort(&stream->socket);
      return 0;
    }
    if (events == 0) {
      Report("tcp_getdata: timeout during select on read.", 0);
      tcp_abort(&stream->socket);
      return 0;
    }
    ssize_t got = ::recv(stream->socket, stream->ibuf, sizeof stream->ibuf, 0);
    if (got > 0) {
      stream->iptr = stream->ibuf;
      stream->ictr = got;
      return 1;
    }
    if (got == 0) {
      // The peer closed: nothing more will come, so waiting again would
      // only turn the end of the stream into a time-out.
      Trace("tcp_getdata: the server closed the connection.\n");
      tcp_abort(&stream->socket);
      return 0;
    }
    if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
    Report(tcp_format("tcp_getdata: socket error during recv: %d", errno), 0);
    tcp_abort(&stream->socket);
    return 0;
  }
}

char* tcp_getline(TcpStream* stream) {
  std::string line;
  for (;;) {
    if (!tcp_getdata(stream)) {
      if (!line.empty()) Trace(tcp_format("tcp_getline: the stream ended inside a line (%zu bytes).\n", line.size()));
      return nullptr;
    }
    const char* start = stream->iptr;
    const char* end = start + stream->ictr;
    // A CR that ended the previous read and the LF that starts this one.
    if (!line.empty() && line.back() == '\r' && *start == '\n') {
      line.pop_back();
      Consume(stream, 1);
      return GiveString(line);
    }
    const char* crlf = nullptr;
    for (const char* p = start; p < end;) {
      p = static_cast<const char*>(std::memchr(p, '\r', static_cast<size_t>(end - p)));
      if (!p || p + 1 == end) break;
      if (p[1] == '\n') {
        crlf = p;
        break;
      }
      ++p;
    }
    if (crlf) {
      size_t length = static_cast<size_t>(crlf - start);
      if (line.size() + length > kTcpMaxLine) return LineTooLong(stream);
      line.append(start, length);
      Consume(stream, static_cast<long>(length + 2));
      return GiveString(line);
    }
    // No end in this read: keep the piece and read on. A CR at the very
    // end may yet be half of the CRLF, so it does not count.
    size_t length = static_cast<size_t>(end - start);
    if (line.size() + length - (end[-1] == '\r' ? 1 : 0) > kTcpMaxLine) return LineTooLong(stream);
    line.append(start, length);
    Consume(stream, static_cast<long>(length));
  }
}

long tcp_getbuffer(TcpStream* stream, unsigned long size, char* buffer) {
  unsigned long done = 0;
  while (done < size) {
    if (!tcp_getdata(stream)) {
      buffer[done] = '\0';
      return 0;
    }
    unsigned long count = std::min(size - done, static_cast<unsigned long>(stream->ictr));
    std::memcpy(buffer + done, stream->iptr, count);
    Consume(stream, static_cast<long>(count));
    done += count;
  }
  buffer[size] = '\0';
  return 1;
}

long tcp_soutr(TcpStream* stream, const char* text) {
  if (!text) return 0;
  return tcp_sout(stream, text, std::strlen(text));
}

long tcp_sout(TcpStream* stream, const char* buffer, unsigned long size) {
  if (!stream || stream->socket < 0) return 0;
  if (size == 0) return 1;
  int seconds = g_write_timeout;
  if (g_hooks.short_timeout && g_hooks.short_timeout()) seconds = kTcpShortWriteTimeoutSeconds;
  // The time-out bounds a wait without progress: a slow server that keeps
  // taking bytes is not cut off in the middle of a long message.
  auto deadline = tcp_deadline(seconds);
  short want = POLLOUT;
  while (size > 0) {
    // With a reply pending, input is expected: waiting for it as well would
    // only find it again and again without the socket being writable.
    const short in = stream->reply_pending && want == POLLOUT ? 0 : POLLIN;
    int events = tcp_wait(stream->socket, static_cast<short>(in | want), deadline);
    if (events < 0) {
      Trace(tcp_format("tcp_sout: socket error during select: %d", errno));
      tcp_abort(&stream->socket);
      return 0;
    }
    if (events == 0) {
      Trace(tcp_format("tcp_sout: socket timeout during select: %d", seconds));
      tcp_abort(&stream->socket);
      return 0;
    }
    // With no reply pending the server has nothing to say before a command,
    // so input now means it has dropped the connection (an idle time-out)
    // or is about to. Under TLS the input may be protocol records only,
    // which say nothing of the sort. With a reply pending, a hang-up or an
    // error stops the write but keeps the socket, so that the replies that
    // came before it are still read.
    if (stream->reply_pending && (events & (POLLHUP | POLLERR))) {
      Trace("tcp_sout: the server closed the connection while replies were pending; send() stopped.\n");
      return 0;
    }
    if (!stream->reply_pending && (events & (POLLIN | POLLHUP | POLLERR))) {
      if (!stream->tls || !tcp_tls_only_records(stream)) {
        Trace("tcp_sout: this socket stream is 'closed' - abnormally or via server idle timeout. send() aborted.\n");
        tcp_abort(&stream->socket);
        return 0;
      }
      want = POLLOUT;
      continue;
    }
    long sent = 0;
    if (stream->tls) {
      sent = tcp_tls_write_some(stream, buffer, size, &want);
      if (sent < 0) {
        tcp_abort(&stream->socket);
        return 0;
      }
    } else {
      sent = ::send(stream->socket, buffer, size, MSG_NOSIGNAL);
      if (sent < 0) {
        if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) {
          Trace(tcp_format("tcp_sout: socket error during send: %d", errno));
          tcp_abort(&stream->socket);
          return 0;
        }
        sent = 0;
      }
    }
    if (sent > 0) {
      buffer += sent;
      size -= static_cast<unsigned long>(sent);
      deadline = tcp_deadline(seconds);
    }
  }
  return 1;
}

void tcp_set_reply_pending(TcpStream* stream, bool pending) {
  if (stream) stream->reply_pending = pending;
}

void tcp_abort(int* socket) {
  mm_dlog("tcp_abort called.\n");
  if (socket && *socket >= 0) {
    ::close(*socket);
    *socket = -1;
    --connections;
  }
}

void tcp_close(TcpStream* stream) {
  if (!stream) return;
  if (stream->tls) tcp_tls_end(stream);
  tcp_abort(&stream->socket);
  FS_GIVE(&stream->host);
  FS_GIVE(&stream->localhost);
  FS_GIVE(&stream);
}

const char* tcp_host(TcpStream* stream) { return stream ? stream->host : nullptr; }

const char* tcp_localhost(TcpStream* stream) { return stream ? stream->localhost : nullptr; }
