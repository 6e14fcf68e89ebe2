// Sending: the outgoing message file, its delivery over SMTP, and the
// folders that take a message instead of (or besides) the wire: sent mail,
// drafts and the outbox.
//
// Every outgoing message first becomes a complete message file (CRLF line
// ends, every transfer encoding decided); the same file then goes to the
// SMTP server, the sent-mail folder, the draft folder or the outbox.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "c-client/core/mail.h"

struct SendOptions {
  int16_t save_outgoing = 0;     // keep a copy in the sent-mail folder
  int16_t queued = 0;            // the message goes through the outbox
  int16_t read_receipt = 0;
  int16_t delivery_receipt = 0;
  int16_t draft = 0;             // save to the draft folder, send nothing
  int32_t priority = 1;          // 0 low, 1 normal, 2 high
  int16_t from_outbox = 0;       // the message is already in the outbox
  int16_t null_sender = 0;       // MAIL FROM:<>: a bounce of an automatic answer must not be answered
};

// --- The message file ---------------------------------------------------------

// Writes the whole message to file (created 0600). authenticated, when
// given, adds the X-Mailer and X-Authentication headers (the send path
// gives it; drafts don't). 1 on success; on failure the user has been told
// and no file is left.
int dump_message(Message* message, const char* file, const int* authenticated, const SendOptions* options);
// The same into memory (what dump_message writes, byte for byte).
int write_message(std::string* out, Message* message, const int* authenticated, const SendOptions* options);

// Header values with bytes above 127 become RFC 2047 encoded words (UTF-8,
// base64), folded so that no line passes 78 columns; plain text that is
// too long for one line is folded at blanks. name is the field name.
std::string encode_header_text(const char* name, const char* value);
// A copy of an address list whose personal names are encoded the same way.
MailAddress* encode_address_list(const MailAddress* list);

// The user's addresses; null when there is none (the user was told).
MailAddress* get_from_address(int* authenticated);
MailAddress* get_sender_address(int* authenticated);
std::string get_mail_domain();
std::string get_local_hostname();
// Unique per message: time, process, counter and random bits, and the host.
std::string get_message_id();
std::string get_part_delimiter();
std::string get_date_header();
// For tests: the clock of the date, id and delimiter (0 restores it).
void send_set_clock_for_test(long long seconds);

// --- Delivery ----------------------------------------------------------------

// The single entry: checks and completes the envelope, writes the file,
// delivers or queues it, copies it to sent mail or drafts. 1 or 0.
int send_message(Message* message, SendOptions* options);
// To required; From, Sender, Date and Message-ID replaced. 1 or 0.
int verify_message(Message* message, int* authenticated);
// Delivers now (queued 0) or puts the file in the outbox (queued 1). A
// failed delivery offers the draft folder; a message that can go nowhere
// is kept in the outbox or, failing that, in the user directory, and the
// user is told where. A message sent from the outbox (from_outbox) stays
// there when delivery fails: no other place is offered.
int inject_message(Message* message, const char* file, int queued, int from_outbox = 0, bool null_sender = false);

// Delivery hosts: General.DeliveryHost, then common.delivery.hosts, at
// most kMaxDeliveryHosts; the default mail host when empty. Each entry is
// "host[:port][/ssl|/tls|/notls|/submit|/novalidate-cert]".
constexpr int kMaxDeliveryHosts = 5;
char** get_delivery_hostlist();
void destroy_delivery_hostlist(char*** list);
// Sends the file to the first host of the list that answers. 1 or 0; the
// user has been told of a failure. *cancelled says the user stopped it.
int deliver_message(char** hostlist, Message* message, const char* file, bool* cancelled = nullptr,
                    bool null_sender = false);

int append_message_to_sentmail(const char* file);
int append_message_to_draft(const char* file);
int append_message_to_outbox(const char* file);
// The outbox's service and folder; 0 when none is defined (or the user
// declined to define one).
int outbox_folder_get(int* ms, std::string* folder);
// Compose.QueueOutgoing.
int SendIsQueued();
// A numbered error with its detail (a server's reply, a file's name) shown
// to the user, not only traced.
void SendError(int code, const std::string& detail);
