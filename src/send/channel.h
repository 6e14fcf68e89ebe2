// The local channel between the program and its background sender: a
// Unix-domain socket in the user directory (mode 0600, the peer's uid
// checked), one request or poke per line, one answer line each.
//
//   REQUEST <ITEM>            ->  "OK <value>" or "NO"
//   POKE <ITEM> <value>       ->  "OK" or "NO"
//
// Lines end with "\n" and are at most kChannelMaxLine bytes; a longer one
// is answered "NO line too long" and the connection is closed.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

constexpr size_t kChannelMaxLine = 1024;
constexpr size_t kChannelMaxItem = 32;
constexpr size_t kChannelMaxValue = 512;

enum class ChannelKind { kRequest, kPoke };

struct ChannelLine {
  ChannelKind kind = ChannelKind::kRequest;
  std::string item;   // upper-case letters
  std::string value;  // pokes only; printable, no line ends
};

// Reads one line (without its "\n"). False, with *why, for anything that is
// not a well-formed request or poke.
bool ChannelParseLine(const std::string& line, ChannelLine* out, std::string* why);
// The line for a request or a poke, "\n" included; empty when the value
// cannot travel (too long, or holding a line end).
std::string ChannelFormat(const ChannelLine& line);

// The socket's path for a service ("VELMAR", "SUBMIT") in the user dir.
std::string ChannelPath(const std::string& user_dir, const std::string& service);
// Only a client of our own uid may talk to us.
bool ChannelPeerAllowed(uid_t peer, uid_t self);

struct ChannelServer {
  // Returns false for "NO"; otherwise the answer is "OK", followed by a
  // blank and *answer when that is not empty.
  using Handler = std::function<bool(const ChannelLine& line, std::string* answer)>;

  ~ChannelServer() { Stop(); }
  // Binds the socket (an old socket file with no server behind it is
  // replaced). False, with *why, when another server answers there or the
  // socket cannot be made.
  bool Start(const std::string& path, Handler handler, std::string* why);
  void Stop();
  bool Running() const { return listen_fd_ >= 0; }
  // Accepts and serves what is ready within timeout_ms (0: only what is
  // ready now). The program's event loop calls it through a descriptor
  // watcher; waits call it so that the other side is never kept waiting.
  void Pump(int timeout_ms);
  const std::string& Path() const { return path_; }
  // The descriptors to watch (the listening one and each client's).
  std::vector<int> Descriptors() const;

 private:
  struct Client {
    int fd;
    std::string buffer;
  };
  void Accept();
  // False when the client is to be dropped.
  bool Serve(Client* client);

  int listen_fd_ = -1;
  std::string path_;
  Handler handler_;
  std::vector<Client> clients_;
};

// The client side: one connection to a service, one line at a time.
struct ChannelClient {
  ~ChannelClient() { Close(); }
  bool Connect(const std::string& path);
  void Close();
  bool Connected() const { return fd_ >= 0; }
  // Sends the line and waits up to timeout_ms for the answer, calling
  // `wait` between short polls (so the caller's own server stays served).
  // False for "NO", a time-out or a broken link; *value gets what follows
  // "OK".
  bool Transact(const ChannelLine& line, std::string* value, int timeout_ms,
                const std::function<void()>& wait = nullptr);

 private:
  int fd_ = -1;
  std::string buffer_;
};

// Keeps one toolkit watch on each descriptor the server has now (the
// listening socket and each client's), on_readable called when one can be
// read; watches is the descriptor -> watch map it keeps. Call it after each
// Pump and after Stop (which leaves no descriptor, so every watch ends).
void ChannelSyncWatches(ChannelServer* server, std::map<int, long>* watches, void (*on_readable)(int, void*));
