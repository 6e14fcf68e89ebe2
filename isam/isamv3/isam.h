// ISAM files: records with up to 10 indexes. A fixed file keeps its
// records in name.dt, a variable one in name.mp and name.st; both keep
// their indexes in name.nx. Each record carries a 4-byte serial at its
// head, ahead of the caller's bytes.
//
// Every call returns -1 (or null) on failure and leaves a trace on the
// error stack (isam/isam_error.h). Buffers given to the calls come from
// bt3GetBuff, which knows their size, so a read never runs past one.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "isam/flen3/lio.h"
#include "isam/vlen3/vl.h"

constexpr int kIsamMaxKeys = 10;
constexpr int kIsamStash = 1024;
constexpr int kIsamBuffHead = 8;

enum IsamKind { kIsamNone = 0, kIsamFixed = 1, kIsamVariable = 2 };

// bt3Find's `how`.
enum IsamHow {
  kFindBelow = 1,
  kFindAbove = 2,
  kFindAtOrBelow = 3,
  kFindAtOrAbove = 4,
  kFindExact = 5,
  kFindInverted = 6,
  kFindAny = 7,
  kFindNoRead = 64,
};

// One key as the library keeps it: its flags and its segments in the
// caller's record.
struct IsamKeyDef {
  int flags = 0;
  std::vector<std::pair<int, int>> segs;  // (offset, length)
  int part_len = 0;                       // key bytes without the serial
  int key_len() const { return part_len + ((flags & kKeyDuplicates) ? 4 : 0); }
};

struct ISAM {
  std::string name;
  int kind = kIsamNone;
  int mode = 0;
  LioFile* dt = nullptr;
  VlFile* vl = nullptr;
  LioFile* nx = nullptr;
  std::vector<IsamKeyDef> keys;
  int rec_size = 0;  // the caller's record size (fixed) or largest record (variable)
  int cur_index = 0;
  uint32_t cur_rec = 0;
  int cur_valid = 0;                 // 2 after a read, -3 when found but not read
  std::vector<uint8_t> cur_key;      // the current key in the current index
  std::vector<uint8_t> rec;          // serial + the caller's bytes of the current record
  int rec_len = 0;                   // bytes of rec in use
};

constexpr int kCurRead = 2;
constexpr int kCurFound = -3;

// Key definitions: int16 triples (offset, length, flags) ended by offset -1.
int keyDefine(const int16_t* keydefs, int rec_size, std::vector<IsamKeyDef>* out);
// The compact form kept in the user area, and back.
std::vector<uint8_t> isamPackKeys(const std::vector<IsamKeyDef>& keys);
int isamUnpackKeys(const uint8_t* data, int len, std::vector<IsamKeyDef>* out);

int bt3Creat(const char* name, int rec_size, const int16_t* keydefs);
int bt3InxCreate(const char* name, const int16_t* keydefs, int stash, int rec_size);
int bt3VlCreate(const char* name, const int16_t* keydefs, int min, int max, int grain);
ISAM* bt3Open(const char* name, int mode);
int bt3Close(ISAM*& h);
int bt3Sync(ISAM* h);
int bt3Exist(const char* name);
int bt3Unlink(const char* name);

// Returns the new record's number.
int bt3Add(ISAM* h, const char* buf);
int bt3VlAdd(ISAM* h, const char* buf, int len);
int bt3Write(ISAM* h, const char* buf);
int bt3VlWrite(ISAM* h, const char* buf, int len);
int bt3Delete(ISAM* h);

// Each returns the record's length, 0 when none qualifies.
int bt3Find(ISAM* h, char* buf, int how);
int bt3FindRel(ISAM* h, char* buf, int how, int count);
int bt3Start(ISAM* h, char* buf);
int bt3End(ISAM* h, char* buf);
int bt3Next(ISAM* h, char* buf);
int bt3Prev(ISAM* h, char* buf);
int bt3Move(ISAM* h, char* buf, int count);
int bt3DataRead(ISAM* h, int n, char* buf);

int bt3SetCur(ISAM* h, int n);
int bt3GetCur(ISAM* h);
int bt3GetLen(ISAM* h);
int bt3Select(ISAM* h, int index);
int bt3Check(ISAM* h, int index);
int bt3AddInx(ISAM* h, const int16_t* keydef);
int bt3DelInx(ISAM* h, int index);
int bt3SetMode(ISAM* h, int mode);
int bt3SetCache(ISAM* h, int a, int b);

char* bt3GetBuff(ISAM* h, int size);
int bt3FreeBuff(char*& buf);
int buffValidate(const char* buf, int size);
int bt3BuffCopy(char* dst, const char* src);
int bt3BuffSize(const char* buf);

// Shared use is not supported: these succeed and do nothing.
int bt3Lock(ISAM* h, int how);
int isamLockUp(ISAM* h);
int isamUnLock(ISAM* h);

// A list of record numbers in the order of the current index.
struct IsamList {
  int max = 0;
  std::vector<uint32_t> recs;
};
IsamList* bt3MakeList(ISAM* h, int max);
int bt3FillList(ISAM* h, IsamList* list);
int bt3FreeList(IsamList*& list);
