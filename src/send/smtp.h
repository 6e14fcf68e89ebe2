// A small SMTP client for submitting one message: EHLO (HELO for old
// servers), STARTTLS, AUTH, MAIL, RCPT, DATA with dot-stuffing, RSET, QUIT.
#pragma once

#include <string>

#include "c-client/core/mail.h"
#include "c-client/net/tcp.h"
#include "src/send/smtp_reply.h"

// Codes made up here, as a server would have answered.
constexpr int kSmtpGone = 421;     // the connection went away
constexpr int kSmtpFailed = 554;   // a recipient failed

struct SmtpStream {
  TcpStream* tcp = nullptr;
  int code = 0;
  std::string reply;  // "%d %s": the last reply, or the fake one
  bool debug = false;
  SmtpExtensions ext;
  SmtpReply last;     // the last whole reply, lines and all
  std::string host;   // the host entry that answered
  // Dot-stuffing state of the DATA phase.
  bool line_start = true;
  bool cr = false;
};

// One entry of the delivery host list: "host[:port][/switch...]", switches
// /ssl (TLS from the first byte, port 465), /tls (STARTTLS required),
// /notls, /submit (port 587), /novalidate-cert.
struct SmtpHost {
  std::string name;
  unsigned long port = 0;
  bool ssl = false, tls = false, notls = false, submit = false, novalidate = false;
};
// False with *why for an entry that can't be read.
bool smtp_parse_host(const std::string& entry, SmtpHost* out, std::string* why);

// Opens the first host of the list that answers and is ready for MAIL
// (greeting, EHLO or HELO, STARTTLS, AUTH). port (Send.TCPPort) counts when
// the entry names none; 0 takes the standard one. Null with *why.
SmtpStream* smtp_open(char** hostlist, unsigned long port, bool debug, std::string* why);
void smtp_close(SmtpStream** stream);  // QUIT, then close
void smtp_abort(SmtpStream** stream);  // no QUIT
// Sends "command[ arguments]" and reads the reply; its code.
int smtp_send(SmtpStream* stream, const char* command, const char* arguments);
int smtp_reply(SmtpStream* stream);
void smtp_fake(SmtpStream* stream, int code, const char* text);
// RCPT TO for each address of the list that has a host; a refused address
// keeps the reply in its error. All are sent; 1 when every one passed.
int smtp_rcpt(SmtpStream* stream, MailAddress* list, bool* failed);
// Writes DATA text: a dot that begins a line is doubled, a bare LF becomes
// CRLF; the state carries over from one call to the next. 1 or 0.
int smtp_soutr(SmtpStream* stream, const char* data, size_t size);

// Takes every Bcc (and Resent-Bcc) field out of a header block, with the
// continuation lines of its folds, so no blind copy reaches the wire.
void smtp_strip_bcc(std::string* header);
