// Fixed-length record files and B-tree index files.
//
// A data file holds one 312-byte header, a user area, then records of one
// length numbered from 1. An index file holds one header per index (room for
// them all is kept at the head), then nodes of each index at absolute
// offsets, which serve as node numbers. Every count and offset read from a
// file is checked against the file's size before use: books are user files
// and can be damaged or planted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <unordered_map>
#include <vector>

constexpr int kLioHeadSize = 312;
constexpr int kLioMagic = 310;
constexpr int kLioClean = 42;
constexpr int kLioDirty = 38;
constexpr int kLioMaxIndex = 10;
constexpr int kLioMaxDepth = 10;
constexpr int kLioMaxKey = 256;
constexpr int kLioNodeLimit = 1800;
constexpr int kLioMinRecord = 9;  // room for the free link at byte 5

// Open modes, shared by all layers.
enum LioMode {
  kModeReadWrite = 1,
  kModeReadOnly = 2,
  kModeWriteThrough = 4,
  kModeWriteHeader = 8,
  kModeSingleUser = 64,
  kModeNoDirtyMark = 128,
};

// Key type: the low 4 bits, then the flag bits.
enum LioKeyFlag {
  kKeyString = 1,
  kKeyFloat = 2,
  kKeyInt16 = 3,
  kKeyInt32 = 4,
  kKeyStringNoCase = 5,
  kKeySerialHead = 16,
  kKeyContinue = 32,
  kKeyDescending = 64,
  kKeyDuplicates = 128,
};

enum LioFileType { kLioData = 1, kLioIndex = 2 };

struct LioHead {
  int32_t magic = kLioMagic;
  int32_t first = 0;
  int32_t n_files = 0;
  int32_t eof = 0;
  uint16_t stash_len = 0;
  int16_t state = kLioClean;
  int16_t n_max = 0;
  int32_t n_used = 0;
  int32_t n_free = 0;
  int32_t free_head = 0;
  int32_t n_keys = 0;
  int32_t root = 0;
  int32_t serial = 0;
  int16_t dup = 0;
  int16_t direction = 1;
  uint16_t key_len = 0;
  int16_t key_type = 0;
  int16_t order = 0;
  uint16_t rec_len = 0;
  uint16_t stamp = 0;
};

// The 312 bytes of a header, and back.
void lioPackHead(const LioHead& h, uint8_t out[kLioHeadSize]);
LioHead lioUnpackHead(const uint8_t in[kLioHeadSize]);

// How the key part of an index compares: one segment per piece of the
// caller's definition, all of the index's type. Without segments the key
// part is one segment.
struct LioSegment {
  int length = 0;
};

struct LioNodeEntry {
  std::vector<uint8_t> key;
  uint32_t child = 0;
  uint32_t rec = 0;
};

struct LioNode {
  uint32_t off = 0;
  uint32_t child0 = 0;
  std::vector<LioNodeEntry> e;
};

struct LioCachePage {
  LioNode node;
  int index = 0;
  bool dirty = false;
  std::list<uint32_t>::iterator lru;
};

struct LioFile {
  int fd = -1;
  std::string name;
  int mode = 0;
  int type = kLioData;
  std::vector<LioHead> heads;  // 1 for data; one per index made so far
  std::vector<std::vector<LioSegment>> segs;
  int64_t size = 0;            // bytes in the file
  bool head_dirty = false;
  // The node cache.
  size_t cache_cap = 5;
  std::unordered_map<uint32_t, LioCachePage> cache;
  std::list<uint32_t> lru;  // front: most recent
};

// Comparison of key types other than the built-in ones: a, b point at key
// parts of len bytes; returns <0, 0 or >0.
using IsamCompareHook = int (*)(const uint8_t* a, const uint8_t* b, int len, int type);
void isamSetCompareHook(IsamCompareHook hook);
IsamCompareHook isamCompareHook();

// The node order an index of this key length gets (4 bytes more for a
// duplicate key), or the forced order of lioSetOrder.
int lioChooseOrder(int key_len, bool dup);
// Forces the order of indexes made from now on (tests use small orders to
// split with a few keys); 0 goes back to the rule. Returns the old value.
int lioSetOrder(int order);

// Files. lioCreat makes a data file (key_or_rec_len = record length) or an
// index file with room for n_index headers and no index yet.
LioFile* lioCreat(const char* name, int key_or_rec_len, int type, int stash_len, int n_index);
LioFile* lioOpen(const char* name, int mode);
int lioClose(LioFile*& f);
int lioFlush(LioFile* f);
// Adds an index to an index file; returns its number.
int lioInxCreat(LioFile* f, int key_len, int flags);
int lioSetCache(LioFile* f, int a, int b);
int writeHead(LioFile* f, int state);
int readHead(LioFile* f);
// Records of a data file.
int lioAvl(LioFile* f);
int lioRead(LioFile* f, int n, void* buf);
int lioWrite(LioFile* f, int n, const void* buf);
int lioFree(LioFile* f, int n);
// Highest record number (data) or bytes (index).
int lioSize(LioFile* f);
int lioWStash(LioFile* f, const void* buf, int len);
int lioRStash(LioFile* f, void* buf, int len);
// Marks the file open for change before its first change.
int lioMarkDirty(LioFile* f);
int lioWritable(LioFile* f, int function);

// The B-tree of index idx. Keys are key_len bytes, serial included.
// Compares two full keys (part_only: the key parts alone). Returns <0,0,>0.
int lioCompare(LioFile* f, int idx, const uint8_t* a, const uint8_t* b, bool part_only);
// Checks that the index's key type can be compared (239, 143).
int lioKeyUsable(LioFile* f, int idx, int function);
void lioSetSegments(LioFile* f, int idx, const std::vector<LioSegment>& segs);

enum LioBound { kFirstGE, kFirstGT, kLastLT, kLastLE };
// The key at the bound of key, comparing whole keys or key parts; copies
// it to key_out and its record to rec. 1 found, 0 none, -1 error.
int lioBound(LioFile* f, int idx, const uint8_t* key, LioBound how, bool part_only, uint8_t* key_out,
             uint32_t* rec);
// Exactly key (whole key): 1 found, 0 not.
int lioSearch(LioFile* f, int idx, const uint8_t* key, uint32_t* rec);
// First key whose key part is above key's: the partial-key search.
int lioSrPrtl(LioFile* f, int idx, const uint8_t* key, uint8_t* key_out, uint32_t* rec);
int lioInsert(LioFile* f, int idx, uint8_t* key, uint32_t rec);
int lioDelete(LioFile* f, int idx, const uint8_t* key, uint32_t rec);
int lioFirst(LioFile* f, int idx, uint8_t* key_out, uint32_t* rec);
int lioLast(LioFile* f, int idx, uint8_t* key_out, uint32_t* rec);
int lioNext(LioFile* f, int idx, const uint8_t* key, uint8_t* key_out, uint32_t* rec);
int lioPrev(LioFile* f, int idx, const uint8_t* key, uint8_t* key_out, uint32_t* rec);
// The next serial of a duplicate index (counted).
int32_t lioSerNum(LioFile* f, int idx);
// Where a duplicate key keeps its serial (offset in the key).
int lioSerialAt(LioFile* f, int idx);
// Walks the whole index: order, key counts, node fill, equal depth, the
// count in the header. 0 or -1.
int lioCheck(LioFile* f, int idx);

// Node cache and node allocation (used by the tree).
int readPage(LioFile* f, int idx, uint32_t off, LioNode* out);
int writePage(LioFile* f, int idx, const LioNode& node);
int flAllCache(LioFile* f);
int nodAlloc(LioFile* f, int idx, uint32_t* off);
int nodFree(LioFile* f, int idx, uint32_t off);

// Little-endian helpers, the files' byte order.
inline void put16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}
inline void put32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
inline uint16_t get16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
inline uint32_t get32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
         (static_cast<uint32_t>(p[3]) << 24);
}
