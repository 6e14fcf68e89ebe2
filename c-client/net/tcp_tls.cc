// TLS on a transport stream: one client context for the process, the
// handshake (implicit TLS or STARTTLS), and the reads and writes that the
// plain transport hands over once a stream is encrypted. Every wait is the
// transport's poll with its time-outs; the socket stays non-blocking, so
// OpenSSL's "want read/write" answers are the points where we wait.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

#include "c-client/core/env.h"
#include "c-client/net/tcp.h"
#include "c-client/net/tcp_internal.h"

namespace {

// What stream->tls points to.
struct TlsSession {
  SSL* ssl = nullptr;
  std::string peer;  // tcp_tls_peer's summary
};

SSL_CTX* g_context = nullptr;
std::string g_ca_file;

TlsSession* Session(const TcpStream* stream) { return static_cast<TlsSession*>(stream->tls); }

// The newest queued OpenSSL error as text, and the queue emptied.
std::string QueuedError() {
  unsigned long code = ERR_peek_last_error();
  std::string text;
  if (code) {
    const char* reason = ERR_reason_error_string(code);
    if (reason) {
      text = reason;
    } else {
      char buffer[256];
      ERR_error_string_n(code, buffer, sizeof buffer);
      text = buffer;
    }
  }
  ERR_clear_error();
  return text;
}

// A server that just closes, without close_notify, is the usual way an
// IMAP or SMTP connection ends; OpenSSL 3 calls that an error.
bool IsPlainEof(int error) {
  if (error == SSL_ERROR_SYSCALL) return ERR_peek_error() == 0 && errno == 0;
  if (error == SSL_ERROR_SSL) {
    unsigned long code = ERR_peek_error();
    return ERR_GET_LIB(code) == ERR_LIB_SSL && ERR_GET_REASON(code) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
  }
  return false;
}

SSL_CTX* Context(std::string* why) {
  if (g_context) return g_context;
  SSL_CTX* context = SSL_CTX_new(TLS_client_method());
  if (!context) {
    *why = "cannot set up TLS: " + QueuedError();
    return nullptr;
  }
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  // A machine without a system store still works with a CA file of its own.
  SSL_CTX_set_default_verify_paths(context);
  ERR_clear_error();
  if (!g_ca_file.empty() && SSL_CTX_load_verify_locations(context, g_ca_file.c_str(), nullptr) != 1) {
    *why = "cannot load the certificates in " + g_ca_file + ": " + QueuedError();
    SSL_CTX_free(context);
    return nullptr;
  }
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  // Writes resume where a full socket stopped them, like plain send().
  SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  g_context = context;
  return context;
}

bool IsAddress(const std::string& name) {
  unsigned char address[sizeof(in6_addr)];
  return inet_pton(AF_INET, name.c_str(), address) == 1 || inet_pton(AF_INET6, name.c_str(), address) == 1;
}

std::string NameText(X509_NAME* name) {
  if (!name) return "?";
  BIO* out = BIO_new(BIO_s_mem());
  if (!out) return "?";
  X509_NAME_print_ex(out, name, 0, XN_FLAG_RFC2253);
  char* data = nullptr;
  long size = BIO_get_mem_data(out, &data);
  std::string text(data ? data : "", size > 0 ? static_cast<size_t>(size) : 0);
  BIO_free(out);
  return text;
}

std::string PeerSummary(SSL* ssl, bool verified) {
  std::string summary;
  if (X509* cert = SSL_get1_peer_certificate(ssl)) {
    summary = NameText(X509_get_subject_name(cert)) + ", issued by " + NameText(X509_get_issuer_name(cert));
    X509_free(cert);
  } else {
    summary = "no certificate";
  }
  summary += tcp_format(", %s %s", SSL_get_version(ssl), SSL_get_cipher_name(ssl));
  if (!verified) summary += ", not verified";
  return summary;
}

std::string HandshakeError(SSL* ssl, int error) {
  long verify = SSL_get_verify_result(ssl);
  if (verify != X509_V_OK) {
    ERR_clear_error();
    return tcp_format("certificate verify failed (%s)", X509_verify_cert_error_string(verify));
  }
  if (IsPlainEof(error)) {
    ERR_clear_error();
    return "the server closed the connection";
  }
  if (error == SSL_ERROR_SYSCALL && ERR_peek_error() == 0) return std::strerror(errno);
  std::string text = QueuedError();
  return text.empty() ? tcp_format("TLS error %d", error) : text;
}

// The wait that an OpenSSL answer asks for: POLLIN, POLLOUT, or 0 when the
// answer is not a wait.
short WantOf(int error) {
  if (error == SSL_ERROR_WANT_READ) return POLLIN;
  if (error == SSL_ERROR_WANT_WRITE) return POLLOUT;
  return 0;
}

}  // namespace

void tcp_tls_set_ca_file(const char* path) {
  g_ca_file = path ? path : "";
  // Sessions keep their own reference: the context goes when the last does.
  if (g_context) SSL_CTX_free(g_context);
  g_context = nullptr;
}

bool tcp_tls_active(const TcpStream* stream) { return stream && stream->tls; }

const char* tcp_tls_peer(TcpStream* stream) {
  if (!stream || !stream->tls) return "";
  return Session(stream)->peer.c_str();
}

long tcp_starttls(TcpStream* stream, const char* servername, unsigned long flags) {
  if (!stream) return 0;
  std::string host = servername && *servername ? servername : (stream->host ? stream->host : "");
  auto fail = [&](const std::string& why) {
    mm_log(tcp_format("TLS connection to %s failed: %s", host.c_str(), why.c_str()).c_str(), 2);
    return 0L;
  };
  if (stream->tls) return fail("TLS is already active on this connection");
  if (stream->socket < 0) return fail("the connection is closed");
  // Bytes that came before the handshake were sent in the clear but would
  // be read as if they came through TLS: an attacker's way to slip in a
  // reply. Nothing may be pending at this point of any protocol.
  if (stream->ictr > 0) {
    stream->ictr = 0;
    tcp_abort(&stream->socket);
    return fail("the server sent data before the TLS handshake");
  }
  tcp_ignore_sigpipe();
  ERR_clear_error();
  std::string why;
  SSL_CTX* context = Context(&why);
  if (!context) {
    tcp_abort(&stream->socket);
    return fail(why);
  }
  SSL* ssl = SSL_new(context);
  if (!ssl || SSL_set_fd(ssl, stream->socket) != 1) {
    SSL_free(ssl);
    tcp_abort(&stream->socket);
    return fail("cannot set up TLS: " + QueuedError());
  }
  // The certificate must name what the user asked for, not the resolver's
  // canonical name; a domain literal is checked as an address.
  std::string name = host;
  if (name.size() > 2 && name.front() == '[' && name.back() == ']') name = name.substr(1, name.size() - 2);
  bool address = IsAddress(name);
  if (!address) SSL_set_tlsext_host_name(ssl, name.c_str());
  bool validate = !(flags & TCP_TLS_NOVALIDATE);
  if (!validate) {
    SSL_set_verify(ssl, SSL_VERIFY_NONE, nullptr);
  } else if (address) {
    X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), name.c_str());
  } else {
    SSL_set1_host(ssl, name.c_str());
  }

  auto deadline = tcp_deadline(tcp_read_timeout());
  for (;;) {
    ERR_clear_error();
    errno = 0;
    int result = SSL_connect(ssl);
    if (result == 1) break;
    int error = SSL_get_error(ssl, result);
    short want = WantOf(error);
    int events = want ? tcp_wait(stream->socket, want, deadline) : 0;
    if (!want || events <= 0) {
      if (want && events == 0) {
        why = tcp_format("no answer from the server within %d seconds", tcp_read_timeout());
      } else if (want) {
        why = std::strerror(errno);
      } else {
        why = HandshakeError(ssl, error);
      }
      SSL_free(ssl);
      tcp_abort(&stream->socket);
      return fail(why);
    }
  }
  auto* session = new TlsSession;
  session->ssl = ssl;
  session->peer = PeerSummary(ssl, validate);
  stream->tls = session;
  stream->flags = flags;
  mm_dlog(tcp_format("tcp_starttls(): %s: %s\n", host.c_str(), session->peer.c_str()).c_str());
  return 1;
}

long tcp_tls_fill(TcpStream* stream, TcpClock::time_point deadline) {
  SSL* ssl = Session(stream)->ssl;
  for (;;) {
    ERR_clear_error();
    errno = 0;
    int got = SSL_read(ssl, stream->ibuf, static_cast<int>(sizeof stream->ibuf));
    if (got > 0) {
      stream->iptr = stream->ibuf;
      stream->ictr = got;
      return 1;
    }
    int error = SSL_get_error(ssl, got);
    if (short want = WantOf(error)) {
      int events = tcp_wait(stream->socket, want, deadline);
      if (events > 0) continue;
      if (events == 0) {
        mm_log("tcp_getdata: timeout during select on read.", 0);
      } else {
        mm_log(tcp_format("tcp_getdata: socket error during select: %d", errno).c_str(), 0);
      }
    } else if (error == SSL_ERROR_ZERO_RETURN || IsPlainEof(error)) {
      ERR_clear_error();
      mm_dlog("tcp_getdata: the server closed the connection.\n");
    } else if (error == SSL_ERROR_SYSCALL && ERR_peek_error() == 0) {
      mm_log(tcp_format("tcp_getdata: socket error during recv: %d", errno).c_str(), 0);
    } else {
      mm_log(tcp_format("tcp_getdata: TLS error during recv: %s", QueuedError().c_str()).c_str(), 0);
    }
    tcp_abort(&stream->socket);
    return 0;
  }
}

long tcp_tls_write_some(TcpStream* stream, const char* buffer, size_t size, short* want) {
  SSL* ssl = Session(stream)->ssl;
  ERR_clear_error();
  errno = 0;
  // After a "want" answer OpenSSL needs the same call again; the length
  // only depends on what is left, so it is the same.
  int wrote = SSL_write(ssl, buffer, static_cast<int>(size < INT_MAX / 2 ? size : INT_MAX / 2));
  if (wrote > 0) return wrote;
  int error = SSL_get_error(ssl, wrote);
  if (short wait = WantOf(error)) {
    *want = wait;
    return 0;
  }
  if (error == SSL_ERROR_SYSCALL && ERR_peek_error() == 0) {
    mm_dlog(tcp_format("tcp_sout: socket error during send: %d", errno).c_str());
  } else {
    mm_dlog(tcp_format("tcp_sout: TLS error during send: %s", QueuedError().c_str()).c_str());
  }
  return -1;
}

bool tcp_tls_only_records(TcpStream* stream) {
  SSL* ssl = Session(stream)->ssl;
  // A peek processes whatever records are waiting and leaves application
  // data where it is; with nothing but protocol records it asks to wait.
  char byte;
  ERR_clear_error();
  errno = 0;
  int got = SSL_peek(ssl, &byte, 1);
  if (got > 0) return false;
  int error = SSL_get_error(ssl, got);
  ERR_clear_error();
  return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
}

void tcp_tls_end(TcpStream* stream) {
  TlsSession* session = Session(stream);
  stream->tls = nullptr;
  if (!session) return;
  // Tell the server that the end is deliberate (a truncation attack looks
  // like a plain close). Only our half: the server's answer is not awaited,
  // and a server that does not take it within the short time-out is left.
  if (stream->socket >= 0) {
    auto deadline = tcp_deadline(kTcpShortWriteTimeoutSeconds);
    for (;;) {
      ERR_clear_error();
      int result = SSL_shutdown(session->ssl);
      if (result >= 0) break;
      int error = SSL_get_error(session->ssl, result);
      // Application data still unread makes the shutdown ask to read: our
      // close_notify is out by then, which is all that is wanted.
      if (error != SSL_ERROR_WANT_WRITE || tcp_wait(stream->socket, POLLOUT, deadline) <= 0) break;
    }
    ERR_clear_error();
  }
  SSL_free(session->ssl);
  delete session;
}
