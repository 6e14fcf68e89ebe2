// The content codecs on arbitrary bytes: the streaming decoders give what
// the in-memory ones give wherever those accept the input, in blocks no
// larger than promised; encoding then decoding gives back every byte; and
// encoded lines keep their lengths (base64 60, quoted-printable at most 76).
#include <cstdint>
#include <cstring>
#include <string>

#include "c-client/core/env.h"
#include "c-client/core/plain_env.h"
#include "c-client/rfc822/rfc822_write.h"

namespace {

using Codec = unsigned char* (*)(const unsigned char*, unsigned long, unsigned long*);

struct Sink {
  std::string data;
};

long Collect(void* sink, const char* data, unsigned long size) {
  if (size == 0 || size > kDecodeBufferSize) __builtin_trap();
  static_cast<Sink*>(sink)->data.append(data, size);
  return 1;
}

std::string Stream(bool base64, const unsigned char* data, size_t size) {
  static DecodeState st;
  Sink sink;
  if (base64) {
    Base64DecodeInit(&st, Collect, &sink);
    for (size_t i = 0; i < size; ++i) Base64DecodeChar(&st, static_cast<char>(data[i]));
    Base64DecodeEnd(&st);
  } else {
    QPDecodeInit(&st, Collect, &sink);
    for (size_t i = 0; i < size; ++i) QPDecodeChar(&st, static_cast<char>(data[i]));
    QPDecodeEnd(&st);
  }
  return sink.data;
}

// Runs the codec; false when it refuses the input.
bool Apply(Codec codec, const unsigned char* data, size_t size, std::string* out) {
  unsigned long length = 0;
  unsigned char* result = codec(data, size, &length);
  if (!result) return false;
  if (result[length] != '\0') __builtin_trap();
  out->assign(reinterpret_cast<char*>(result), length);
  FS_GIVE(&result);
  return true;
}

void CheckDecoderAgreement(const unsigned char* data, size_t size) {
  std::string memory;
  if (Apply(rfc822_base64, data, size, &memory) && Stream(true, data, size) != memory) __builtin_trap();
  if (Apply(rfc822_qprint, data, size, &memory) && Stream(false, data, size) != memory) __builtin_trap();
}

void CheckRoundTrips(const unsigned char* data, size_t size) {
  const std::string plain(reinterpret_cast<const char*>(data), size);
  unsigned long length = 0;
  unsigned char* b64 = rfc822_binary(data, size, &length);
  // Lines of 60 characters but the last, each ended by one CRLF.
  for (unsigned long i = 0, start = 0; i < length; ++i) {
    if (b64[i] != '\r') continue;
    if (i + 1 >= length || b64[i + 1] != '\n' || i - start > 60 || (i - start < 60 && i + 2 != length)) __builtin_trap();
    start = ++i + 1;
  }
  if (length < 2 || b64[length - 1] != '\n') __builtin_trap();
  std::string back;
  if (!Apply(rfc822_base64, b64, length, &back) || back != plain) __builtin_trap();
  if (Stream(true, b64, length) != plain) __builtin_trap();
  FS_GIVE(&b64);

  std::string qp;
  if (!Apply(rfc822_8bit, data, size, &qp)) __builtin_trap();
  size_t column = 0;
  for (size_t i = 0; i < qp.size(); ++i) {
    const unsigned char c = qp[i];
    if (c == '\r' && i + 1 < qp.size() && qp[i + 1] == '\n') {
      column = 0;
      ++i;
      continue;
    }
    if (c < 0x20 || c >= 0x7f || ++column > 76) __builtin_trap();
  }
  const unsigned char* q = reinterpret_cast<const unsigned char*>(qp.data());
  if (!Apply(rfc822_qprint, q, qp.size(), &back) || back != plain) __builtin_trap();
  if (Stream(false, q, qp.size()) != plain) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  CheckDecoderAgreement(data, size);
  CheckRoundTrips(data, size);
  mail_env_clear();  // the decoders' reports would pile up
  return 0;
}
