// Writing RFC 822 and MIME (addresses, headers, part headers, whole
// messages) and the content transfer codecs, in memory and streaming.
#pragma once

#include "c-client/core/mail.h"

// Writers append to buffer (which must be large enough: callers size it;
// the limited form stops before size and says so).
char* rfc822_write_address(char* buffer, MailAddress* list);
char* rfc822_write_address_limited(char* buffer, size_t size, MailAddress* list);
void rfc822_write_one_address(char* buffer, MailAddress* address);
void rfc822_header(char* buffer, Envelope* env, BodyPart* body);
void rfc822_output_header_line(char* buffer, const char* name, const char* text);
void rfc822_address_line(char* buffer, const char* name, MailAddress* list);
void rfc822_write_body_header(char* buffer, BodyPart* body);

// Gives every multipart a boundary and leaves no 8BIT/BINARY leaf.
void rfc822_encode_body(Envelope* env, BodyPart* body);
// Writes a whole message through f(stream, text); 0 if f fails.
typedef long (*soutr_t)(void* stream, const char* text);
long rfc822_output(char* buffer, Envelope* env, BodyPart* body, soutr_t f, void* stream);
long rfc822_output_body(BodyPart* body, soutr_t f, void* stream);

// Codecs in memory: results in free storage (FS_GIVE), null on bad input.
unsigned char* rfc822_binary(const void* source, unsigned long size, unsigned long* length);  // to base64
unsigned char* rfc822_base64(const unsigned char* source, unsigned long size, unsigned long* length);  // from base64
unsigned char* rfc822_8bit(const unsigned char* source, unsigned long size, unsigned long* length);  // to QP
unsigned char* rfc822_qprint(const unsigned char* source, unsigned long size, unsigned long* length);  // from QP

// Streaming decoders: feed one character at a time; decoded bytes go
// through the output function in blocks of at most kDecodeBufferSize.
constexpr size_t kDecodeBufferSize = 8093;
typedef long (*decode_out_t)(void* sink, const char* data, unsigned long size);
struct DecodeState {
  decode_out_t out;
  void* sink;
  char buffer[kDecodeBufferSize];
  unsigned long used;
  int state;
  unsigned int quantum;
  int position;
  char pending[200];  // quoted-printable: blanks waiting for what follows
  int pending_count;
  int hex;
  long errors;
};
void Base64DecodeInit(DecodeState* st, decode_out_t out, void* sink);
void Base64DecodeChar(DecodeState* st, char c);
void Base64DecodeEnd(DecodeState* st);
void QPDecodeInit(DecodeState* st, decode_out_t out, void* sink);
void QPDecodeChar(DecodeState* st, char c);
void QPDecodeEnd(DecodeState* st);
