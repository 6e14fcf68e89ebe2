// The content codecs on arbitrary bytes: the streaming decoders give what
// the in-memory ones give wherever those accept the input, in blocks no
// larger than promised; and encoding then decoding gives back every byte.
#include <cstdint>
#include <string>

#include "c-client/core/env.h"
#include "c-client/core/plain_env.h"
#include "c-client/rfc822/rfc822_write.h"

namespace {

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

using Codec = unsigned char* (*)(const unsigned char*, unsigned long, unsigned long*);

std::string Stream(bool base64, const std::string& in) {
  static DecodeState st;
  std::string out;
  auto collect = [](void* sink, const char* data, unsigned long size) -> long {
    Check(size > 0 && size <= kDecodeBufferSize);
    static_cast<std::string*>(sink)->append(data, size);
    return 1;
  };
  (base64 ? Base64DecodeInit : QPDecodeInit)(&st, collect, &out);
  for (char c : in) (base64 ? Base64DecodeChar : QPDecodeChar)(&st, c);
  (base64 ? Base64DecodeEnd : QPDecodeEnd)(&st);
  return out;
}

// Runs the codec; false when it refuses the input.
bool Apply(Codec codec, const std::string& in, std::string* out) {
  unsigned long length = 0;
  unsigned char* result = codec(reinterpret_cast<const unsigned char*>(in.data()), in.size(), &length);
  if (!result) return false;
  Check(result[length] == '\0');
  out->assign(reinterpret_cast<char*>(result), length);
  FS_GIVE(&result);
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string plain(reinterpret_cast<const char*>(data), size);
  std::string out, b64, qp;
  // The decoders agree.
  if (Apply(rfc822_base64, plain, &out)) Check(Stream(true, plain) == out);
  if (Apply(rfc822_qprint, plain, &out)) Check(Stream(false, plain) == out);

  // Round trips, and quoted-printable lines are short and printable.
  Check(Apply([](const unsigned char* s, unsigned long n, unsigned long* l) { return rfc822_binary(s, n, l); }, plain,
              &b64));
  Check(Apply(rfc822_base64, b64, &out) && out == plain && Stream(true, b64) == plain);
  Check(Apply(rfc822_8bit, plain, &qp));
  for (size_t i = 0, column = 0; i < qp.size(); ++i) {
    const unsigned char c = qp[i];
    if (c == '\r' && i + 1 < qp.size() && qp[i + 1] == '\n') {
      column = 0;
      ++i;
    } else {
      Check(c >= 0x20 && c < 0x7f && ++column <= 76);
    }
  }
  Check(Apply(rfc822_qprint, qp, &out) && out == plain && Stream(false, qp) == plain);
  mail_env_clear();  // the decoders' reports would pile up
  return 0;
}
