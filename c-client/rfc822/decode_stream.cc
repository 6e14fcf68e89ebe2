// Streaming content decoders, for text that goes to a file a byte at a time
// (the fetch hook spools parts this way). They follow the rules of the
// in-memory decoders in codecs.cc and give the same bytes wherever those
// accept the input; where those give up, these report and go on, so that a
// damaged part still reaches the user with everything that could be read.
#include <cstdio>
#include <cstring>

#include "c-client/core/charvalue.h"
#include "c-client/core/env.h"
#include "c-client/rfc822/rfc822_write.h"

namespace {

// A corrupt part would otherwise flood the log with one line per fault:
// the first few are reported, all are counted in DecodeState::errors.
constexpr long kMaxReports = 20;

// Base64 states.
constexpr int kB64Data = 0;
constexpr int kB64WantPad = 1;  // after "=" in quantum position 2

// Quoted-printable states.
constexpr int kQPPlain = 0;
constexpr int kQPEquals = 1;      // after "="
constexpr int kQPHex = 2;         // after "=" and the first hex digit
constexpr int kQPBlanks = 3;      // after a blank: blanks wait in `pending`
constexpr int kQPEqualsCR = 4;    // after "=" and CR
// While in kQPBlanks, `hex` says the run outgrew `pending` and was partly
// written: such a run is text, kept whole even before a line end.

constexpr unsigned long kPendingSize = sizeof(DecodeState::pending);



void Flush(DecodeState* st) {
  if (!st->used) return;
  // A sink that fails keeps its own account of it; the decoder counts it
  // with the faults so that the caller sees that bytes went missing.
  if (st->out && !st->out(st->sink, st->buffer, st->used)) ++st->errors;
  st->used = 0;
}

void Put(DecodeState* st, char c) {
  st->buffer[st->used++] = c;
  if (st->used == kDecodeBufferSize) Flush(st);
}

void Fault(DecodeState* st, const char* text) {
  if (++st->errors <= kMaxReports) mm_log(text, 1);
}

void Init(DecodeState* st, decode_out_t out, void* sink) {
  std::memset(st, 0, sizeof(*st));
  st->out = out;
  st->sink = sink;
}

void FlushBlanks(DecodeState* st) {
  for (int i = 0; i < st->pending_count; ++i) Put(st, st->pending[i]);
  st->pending_count = 0;
}

}  // namespace

void Base64DecodeInit(DecodeState* st, decode_out_t out, void* sink) { Init(st, out, sink); }

void Base64DecodeChar(DecodeState* st, char ch) {
  const unsigned char c = static_cast<unsigned char>(ch);
  if (c == '\r' || c == '\n') return;
  if (st->state == kB64WantPad) {
    st->state = kB64Data;
    if (c == '=') return;
    Fault(st, "Base64 encoded message data is corrupt.  Invalid character after '=' in encoded data.");
    // The character starts over as data.
  }
  const int v = base64_value(c);
  if (v >= 0) {
    st->quantum = (st->quantum << 6) | static_cast<unsigned int>(v);
    if (++st->position == 4) {
      Put(st, static_cast<char>(st->quantum >> 16));
      Put(st, static_cast<char>(st->quantum >> 8));
      Put(st, static_cast<char>(st->quantum));
      st->quantum = 0;
      st->position = 0;
    }
    return;
  }
  if (c == '=') {
    if (st->position == 2) {
      Put(st, static_cast<char>(st->quantum >> 4));
      st->state = kB64WantPad;
    } else if (st->position == 3) {
      Put(st, static_cast<char>(st->quantum >> 10));
      Put(st, static_cast<char>(st->quantum >> 2));
    } else {
      Fault(st, "Base64 encoded message data is corrupt.  Bad quantum position for '=' in encoded data.");
      return;
    }
    st->quantum = 0;
    st->position = 0;
    return;
  }
  if (++st->errors <= kMaxReports) {
    char text[96];
    std::snprintf(text, sizeof text, "Base64DecodeChar: bogus character in encoded data stream: %c\n", ch);
    mm_dlog(text);
  }
}

void Base64DecodeEnd(DecodeState* st) {
  // A partial quantum gives the whole bytes it holds.
  if (st->state == kB64Data && st->position == 2) {
    Put(st, static_cast<char>(st->quantum >> 4));
  } else if (st->state == kB64Data && st->position == 3) {
    Put(st, static_cast<char>(st->quantum >> 10));
    Put(st, static_cast<char>(st->quantum >> 2));
  }
  st->quantum = 0;
  st->position = 0;
  st->state = kB64Data;
  Flush(st);
}

void QPDecodeInit(DecodeState* st, decode_out_t out, void* sink) { Init(st, out, sink); }

void QPDecodeChar(DecodeState* st, char ch) {
  const unsigned char c = static_cast<unsigned char>(ch);
  // A fault writes back what was held and hands the character to the plain
  // state, so nothing of the text is lost.
  for (;;) {
    switch (st->state) {
      case kQPPlain:
        if (c == '=') {
          st->state = kQPEquals;
        } else if (c == ' ' || c == '\t') {
          st->pending[0] = ch;
          st->pending_count = 1;
          st->hex = 0;
          st->state = kQPBlanks;
        } else {
          Put(st, ch);
        }
        return;
      case kQPBlanks:
        if (c == ' ' || c == '\t') {
          if (static_cast<unsigned long>(st->pending_count) == kPendingSize) {
            FlushBlanks(st);
            st->hex = 1;
          }
          st->pending[st->pending_count++] = ch;
          return;
        }
        if (c == '\r' || c == '\n') {
          if (st->hex) FlushBlanks(st);
          st->pending_count = 0;
          st->state = kQPPlain;
          Put(st, ch);
          return;
        }
        FlushBlanks(st);
        st->state = kQPPlain;
        continue;
      case kQPEquals:
        if (hex_value(c) >= 0) {
          st->hex = c;
          st->state = kQPHex;
          return;
        }
        if (c == '\r') {
          st->state = kQPEqualsCR;
          return;
        }
        if (c == '\n') {  // soft break with a bare LF
          st->state = kQPPlain;
          return;
        }
        Fault(st, "Invalid quote sequence in quoted printable text");
        Put(st, '=');
        st->state = kQPPlain;
        continue;
      case kQPHex:
        if (hex_value(c) >= 0) {
          Put(st, static_cast<char>((hex_value(static_cast<unsigned char>(st->hex)) << 4) | hex_value(c)));
          st->state = kQPPlain;
          return;
        }
        Fault(st, "Invalid hex sequence in quoted printable text");
        Put(st, '=');
        Put(st, static_cast<char>(st->hex));
        st->state = kQPPlain;
        continue;
      case kQPEqualsCR:
        st->state = kQPPlain;
        if (c == '\n') return;
        // "=" CR without LF: still a soft break.
        Fault(st, "Incomplete NL sequence in quoted printable text");
        continue;
      default:
        st->state = kQPPlain;
        continue;
    }
  }
}

void QPDecodeEnd(DecodeState* st) {
  switch (st->state) {
    case kQPEquals:
      Fault(st, "Invalid quote sequence in quoted printable text");
      Put(st, '=');
      break;
    case kQPHex:
      Fault(st, "Invalid hex sequence in quoted printable text");
      Put(st, '=');
      Put(st, static_cast<char>(st->hex));
      break;
    case kQPBlanks:  // the end of the text is a line end
      if (st->hex) FlushBlanks(st);
      break;
    case kQPEqualsCR:
      Fault(st, "Incomplete NL sequence in quoted printable text");
      break;
    default:
      break;
  }
  st->pending_count = 0;
  st->state = kQPPlain;
  Flush(st);
}
