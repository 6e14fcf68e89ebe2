// Blocking TCP with optional TLS, for the IMAP, IMSP and SMTP clients and
// the password manager client. Every wait has a time-out and a peer that
// closes ends the stream at once.
#pragma once

#include <cstddef>

constexpr size_t kTcpBufferSize = 8192;
constexpr int kTcpReadTimeoutSeconds = 120;
constexpr int kTcpWriteTimeoutSeconds = 120;
constexpr int kTcpShortWriteTimeoutSeconds = 5;
constexpr int kTcpConnectTimeoutSeconds = 30;
// Longest line tcp_getline returns; a longer one ends the stream.
constexpr size_t kTcpMaxLine = 1u << 20;

struct TcpStream {
  char* host;       // the name the server gave, or the bracketed address
  char* localhost;
  int socket;       // -1 once aborted
  long ictr;        // bytes left in the buffer
  char* iptr;       // next byte
  char ibuf[kTcpBufferSize];
  void* tls;        // the TLS session, null for plain
  unsigned long flags;
  bool reply_pending;  // a command is in flight: input before a write is its reply
};

extern long connections;  // open sockets

TcpStream* tcp_open(const char* host, const char* service, unsigned long port);
char* tcp_getline(TcpStream* stream);  // free with FS_GIVE; null at end of stream
long tcp_getbuffer(TcpStream* stream, unsigned long size, char* buffer);
long tcp_getdata(TcpStream* stream);
long tcp_soutr(TcpStream* stream, const char* text);
long tcp_sout(TcpStream* stream, const char* buffer, unsigned long size);
// Says whether the peer owes a reply to something already sent. While it
// does, input waiting when a write starts is that reply, not a sign of a
// dropped connection, so a client may send several commands before it
// reads their replies.
void tcp_set_reply_pending(TcpStream* stream, bool pending);
void tcp_close(TcpStream* stream);
void tcp_abort(int* socket);
const char* tcp_host(TcpStream* stream);
const char* tcp_localhost(TcpStream* stream);

// TLS. Flags of tcp_starttls.
constexpr unsigned long TCP_TLS_NOVALIDATE = 1;  // don't check the certificate or the name
// Performs the handshake on an open stream (STARTTLS, or right after
// tcp_open for implicit TLS). 1 on success; on failure the stream is
// aborted and the reason reported at error level, naming the host.
long tcp_starttls(TcpStream* stream, const char* servername, unsigned long flags);
bool tcp_tls_active(const TcpStream* stream);
// A one-line summary of the peer's certificate, for traces and dialogs.
const char* tcp_tls_peer(TcpStream* stream);
// Certificates to trust besides the system's (a PEM file); for private
// CAs and tests. Null restores the system store alone.
void tcp_tls_set_ca_file(const char* path);

// What the program around the layer wants to know or decide.
struct TcpHooks {
  // Every open's outcome (1 connected, 0 failed): the frame keeps it in
  // General.TCPConnectOk.
  void (*outcome)(int ok);
  // Asked before each write: true once when the next write must not wait
  // long (the short time-out), as after General.SentmailTimeout is set.
  bool (*short_timeout)();
};
void tcp_set_hooks(const TcpHooks* hooks);
// For tests: wrap an already connected descriptor.
TcpStream* tcp_attach_fd(int fd, const char* host);
// For tests: the read, write and connect time-outs in seconds; 0 or less
// restores the standard value. The short write time-out stays as it is.
void tcp_set_timeouts_for_test(int read_seconds, int write_seconds, int connect_seconds);
// For tests: the name lookup (getaddrinfo's shape); null restores it. A
// lookup waits at most the connect time-out.
struct addrinfo;
using TcpResolver = int (*)(const char* node, const char* service, const struct addrinfo* hints,
                            struct addrinfo** result);
void tcp_set_resolver_for_test(TcpResolver resolver);
