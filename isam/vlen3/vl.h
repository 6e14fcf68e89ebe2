// Variable-length record files: a map (name.mp) of record numbers to slots
// in a store (name.st). Slots come in size classes, from min to max by
// grain; a freed slot goes on the list of its class and is only reused for
// a record of exactly that class.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

constexpr int kVlHeadSize = 300;
constexpr int kVlStoreHead = 6;

struct VlHead {
  int32_t magic = 310;
  int32_t n_recs = 0;
  int32_t free_head = 0;
  int32_t n_free = 0;
  int32_t eof = 0;
  int32_t heap = 0;
  int16_t state = 42;
  int16_t min = 0;
  int16_t max = 0;
  int16_t grain = 0;
  int32_t map_start = 0;
  uint16_t stash_len = 0;
};

struct VlFile {
  int mp = -1;
  int st = -1;
  std::string name;
  int mode = 0;
  VlHead h;
  std::vector<int32_t> class_head;
  int64_t mp_size = 0;
  int64_t st_size = 0;
  bool dirty = false;
};

struct VlStats {
  int records = 0;   // numbers in use
  int free = 0;      // numbers on the free list
  int eof = 0;       // store size
  int heap = 0;      // bytes in freed slots
  int min = 0, max = 0, grain = 0;
};

// The sizes a file is made with, after the defaults and rounding.
void vlSizes(int* min, int* max, int* grain);
// The slot a record of len data bytes takes (the size word counted in).
int vlRound(const VlHead& h, int len);

VlFile* vlCreat(const char* name, int min, int max, int grain, int stash_len);
VlFile* vlOpen(const char* name, int mode);
int vlRead(VlFile* f, int n, void* buf, int limit);
int vlWrite(VlFile* f, int n, const void* buf, int len);
int vlFree(VlFile* f, int n);
int vlClose(VlFile*& f);
int vlFlush(VlFile* f);
int vlAvl(VlFile* f);
int vlStats(VlFile* f, VlStats* out);
int vlRStash(VlFile* f, void* buf, int len);
int vlWStash(VlFile* f, const void* buf, int len);
int vlSetMode(VlFile* f, int mode);

void vlPackHead(const VlHead& h, uint8_t out[kVlHeadSize]);
VlHead vlUnpackHead(const uint8_t in[kVlHeadSize]);
