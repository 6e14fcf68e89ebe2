// The files of a local MH folder, byte for byte: the index (a 16-byte
// header and 52-byte records), the update queue (bare records) and the
// structure records of mh_cache.dat. All integers are 32-bit little-endian
// and nothing is padded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "c-client/core/mail.h"

// 4103: structure records carry each part's Content-Disposition. An index of
// an older version is rebuilt (keeping its flags), so its cache, which has
// no dispositions, is never read as if the parts had none.
constexpr uint32_t kMhIndexVersion = 4103;
constexpr size_t kMhHeaderSize = 16;
constexpr size_t kMhRecordSize = 52;

// Flag bits of an index record.
constexpr uint32_t kMhSeen = 1;
constexpr uint32_t kMhDeleted = 2;
constexpr uint32_t kMhFlagged = 4;
constexpr uint32_t kMhAnswered = 16;
constexpr uint32_t kMhDraft = 64;

// Limits on what a structure record may hold: a reader refuses more.
constexpr uint32_t kMhMaxString = 1u << 20;
constexpr uint32_t kMhMaxStructure = 64u << 20;
constexpr int kMhMaxDepth = 64;

struct MhIndexHeader {
  uint32_t version;
  uint32_t nmsgs;
  uint32_t recent;
  uint32_t last_seen;
};

struct MhIndexRecord {
  uint32_t number;
  uint32_t mtime;
  uint32_t size;
  uint32_t header_size;
  uint32_t cache_offset;  // 0: not parsed yet
  uint32_t envelope_size;
  uint32_t body_size;
  uint32_t changed;
  uint32_t flags;
  uint32_t user_flags;
  uint8_t reserved[12];
};

void mh_encode_header(const MhIndexHeader& header, uint8_t out[kMhHeaderSize]);
// False when size is short.
bool mh_decode_header(const uint8_t* data, size_t size, MhIndexHeader* header);
void mh_encode_record(const MhIndexRecord& record, uint8_t out[kMhRecordSize]);
void mh_decode_record(const uint8_t data[kMhRecordSize], MhIndexRecord* record);

// Structure records: the envelope part and the body part, as written after
// the record's number. Null envelope or body fields are simply absent.
// The result is empty when the structure is beyond what the readers accept
// (a limit below, a type or encoding out of range, a size above 32 bits):
// such a message is left uncached rather than cached as corruption.
std::string mh_encode_envelope(const Envelope* env);
std::string mh_encode_body(const BodyPart* body);
// Readers over [*p, end): advance *p; on a bad tag, an out-of-range value,
// a limit or a short buffer they free what they built, set the result to
// null, leave *p alone and return false.
// Lists come back in reverse order (the reader prepends), as the format
// has always done; the parts of a multipart and the disposition's
// parameters keep their order.
bool mh_decode_envelope(const uint8_t** p, const uint8_t* end, Envelope** env);
bool mh_decode_body(const uint8_t** p, const uint8_t* end, BodyPart** body);
