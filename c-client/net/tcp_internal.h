// What the plain transport (tcp.cc) and its TLS half (tcp_tls.cc) share.
// Not for the protocol drivers: they use tcp.h.
#pragma once

#include <poll.h>

#include <chrono>
#include <cstddef>
#include <string>

#include "c-client/net/tcp.h"

using TcpClock = std::chrono::steady_clock;

// printf into a std::string, so that host names of any length are safe.
std::string tcp_format(const char* format, ...) __attribute__((format(printf, 1, 2)));

TcpClock::time_point tcp_deadline(int seconds);
// Waits for events on fd until the deadline; signals restart the wait with
// the time that is left. Returns the events seen (> 0), 0 at the deadline,
// -1 on an error (errno set).
int tcp_wait(int fd, short events, TcpClock::time_point deadline);
int tcp_read_timeout();

// OpenSSL writes to the socket with write(2), which raises SIGPIPE when the
// server has gone; left at its default that signal ends the program.
void tcp_ignore_sigpipe();

// The TLS half. Each returns with the stream aborted and the fault traced
// when the connection cannot go on.
// Fills ibuf with at least one byte of application data: 1, or 0 at the end.
long tcp_tls_fill(TcpStream* stream, TcpClock::time_point deadline);
// Writes some of buffer: the count, 0 when OpenSSL must first wait for
// *want (POLLIN or POLLOUT), -1 on a fault.
long tcp_tls_write_some(TcpStream* stream, const char* buffer, size_t size, short* want);
// The socket became readable during a write: true when that was only TLS
// protocol records (session tickets, key updates), which are now consumed;
// false when the server has sent data or closed.
bool tcp_tls_only_records(TcpStream* stream);
// Sends close_notify when the socket is still open (bounded) and frees the
// session. The socket itself is left to tcp_close.
void tcp_tls_end(TcpStream* stream);
