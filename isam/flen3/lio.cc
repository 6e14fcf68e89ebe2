// Fixed-length files: headers, records, free lists, the user area and the
// node cache. The tree itself is in btreev33.cc.
#include "isam/flen3/lio.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "isam/isam_error.h"
#include "rclib/safe_file.h"

#define LIO_ERR(fn, err) isam_error("flen3", fn, err, __LINE__)

namespace {

bool ReadAt(LioFile* f, void* buf, size_t len, int64_t at) {
  if (at < 0 || at + static_cast<int64_t>(len) > f->size) return false;
  auto* p = static_cast<uint8_t*>(buf);
  size_t done = 0;
  while (done < len) {
    ssize_t n = pread(f->fd, p + done, len - done, static_cast<off_t>(at + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

bool WriteAt(LioFile* f, const void* buf, size_t len, int64_t at) {
  if (!safe_pwrite_all(f->fd, buf, len, static_cast<off_t>(at))) return false;
  f->size = std::max<int64_t>(f->size, at + static_cast<int64_t>(len));
  return true;
}

int64_t RecordOffset(const LioHead& h, int n) {
  return static_cast<int64_t>(kLioHeadSize) + h.stash_len + static_cast<int64_t>(h.rec_len) * (n - 1);
}

int NodeLength(int key_len, int order) { return (key_len + 8) * order * 2 + 6; }

int g_forced_order = 0;

// A header read from an index file must describe a tree that fits the file.
bool IndexHeadSane(const LioHead& h, const LioHead& first, int64_t size) {
  if (h.key_len < 1 || h.key_len > kLioMaxKey + 4) return false;
  if (h.order < 1 || h.order > 12) return false;
  if (h.rec_len != NodeLength(h.key_len, h.order)) return false;
  if (h.dup != 0 && h.dup != 1) return false;
  if (h.direction != 1 && h.direction != -1) return false;
  if ((h.key_type & 0x0F) == kKeyFloat) return false;
  int64_t space = first.eof - first.first;
  if (h.n_used < 0 || h.n_free < 0 || h.n_keys < 0) return false;
  if ((static_cast<int64_t>(h.n_used) + h.n_free) * h.rec_len > space) return false;
  // Each node holds at most 2 * order keys.
  if (static_cast<int64_t>(h.n_keys) > static_cast<int64_t>(h.n_used) * 2 * h.order) return false;
  auto node_ok = [&](int32_t off) {
    return off == 0 || (off >= first.first && static_cast<int64_t>(off) + h.rec_len <= first.eof &&
                        static_cast<int64_t>(off) + h.rec_len <= size);
  };
  if (!node_ok(h.root) || !node_ok(h.free_head)) return false;
  if ((h.free_head == 0) != (h.n_free == 0)) return false;
  if ((h.root == 0) != (h.n_keys == 0)) return false;
  return true;
}

bool DataHeadSane(const LioHead& h, int64_t size) {
  if (h.first != kLioHeadSize || h.n_files != 1 || h.n_max != 1) return false;
  if (h.rec_len < kLioMinRecord) return false;
  if (h.n_used < 0 || h.n_free < 0) return false;
  int64_t records = static_cast<int64_t>(h.n_used) + h.n_free;
  if (kLioHeadSize + h.stash_len + records * h.rec_len > size) return false;
  if (h.free_head < 0 || h.free_head > records) return false;
  if ((h.free_head == 0) != (h.n_free == 0)) return false;
  return true;
}

void DropCache(LioFile* f) {
  f->cache.clear();
  f->lru.clear();
}

}  // namespace

void lioPackHead(const LioHead& h, uint8_t out[kLioHeadSize]) {
  std::memset(out, 0, kLioHeadSize);
  put32(out + 0, static_cast<uint32_t>(h.magic));
  put32(out + 4, static_cast<uint32_t>(h.first));
  put32(out + 8, static_cast<uint32_t>(h.n_files));
  put32(out + 12, static_cast<uint32_t>(h.eof));
  put16(out + 16, h.stash_len);
  put16(out + 18, static_cast<uint16_t>(h.state));
  put16(out + 20, static_cast<uint16_t>(h.n_max));
  put32(out + 24, static_cast<uint32_t>(h.n_used));
  put32(out + 28, static_cast<uint32_t>(h.n_free));
  put32(out + 32, static_cast<uint32_t>(h.free_head));
  put32(out + 36, static_cast<uint32_t>(h.n_keys));
  put32(out + 40, static_cast<uint32_t>(h.root));
  put32(out + 44, static_cast<uint32_t>(h.serial));
  put16(out + 48, static_cast<uint16_t>(h.dup));
  put16(out + 50, static_cast<uint16_t>(h.direction));
  put16(out + 52, h.key_len);
  put16(out + 54, static_cast<uint16_t>(h.key_type));
  put16(out + 56, static_cast<uint16_t>(h.order));
  put16(out + 58, h.rec_len);
  put16(out + 60, h.stamp);
}

LioHead lioUnpackHead(const uint8_t in[kLioHeadSize]) {
  LioHead h;
  h.magic = static_cast<int32_t>(get32(in + 0));
  h.first = static_cast<int32_t>(get32(in + 4));
  h.n_files = static_cast<int32_t>(get32(in + 8));
  h.eof = static_cast<int32_t>(get32(in + 12));
  h.stash_len = get16(in + 16);
  h.state = static_cast<int16_t>(get16(in + 18));
  h.n_max = static_cast<int16_t>(get16(in + 20));
  h.n_used = static_cast<int32_t>(get32(in + 24));
  h.n_free = static_cast<int32_t>(get32(in + 28));
  h.free_head = static_cast<int32_t>(get32(in + 32));
  h.n_keys = static_cast<int32_t>(get32(in + 36));
  h.root = static_cast<int32_t>(get32(in + 40));
  h.serial = static_cast<int32_t>(get32(in + 44));
  h.dup = static_cast<int16_t>(get16(in + 48));
  h.direction = static_cast<int16_t>(get16(in + 50));
  h.key_len = get16(in + 52);
  h.key_type = static_cast<int16_t>(get16(in + 54));
  h.order = static_cast<int16_t>(get16(in + 56));
  h.rec_len = get16(in + 58);
  h.stamp = get16(in + 60);
  return h;
}

int lioSetOrder(int order) {
  int old = g_forced_order;
  g_forced_order = (order >= 1 && order <= 12) ? order : 0;
  return old;
}

int lioChooseOrder(int key_len, bool dup) {
  if (g_forced_order) return g_forced_order;
  if (dup) key_len += 4;
  int order = 5;
  while (order < 12 && NodeLength(key_len, order) <= kLioNodeLimit) ++order;
  return order - 1;
}

LioFile* lioCreat(const char* name, int key_or_rec_len, int type, int stash_len, int n_index) {
  if (!name || (type != kLioData && type != kLioIndex) || stash_len < 0 || stash_len > 0xFFFF) {
    LIO_ERR(100, kIsBadArgs);
    return nullptr;
  }
  if (type == kLioData && (key_or_rec_len < kLioMinRecord || key_or_rec_len > 0xFFFF)) {
    LIO_ERR(100, kIsMinSize);
    return nullptr;
  }
  if (type == kLioIndex && (n_index < 1 || n_index > kLioMaxIndex)) {
    LIO_ERR(100, 131);
    return nullptr;
  }
  SafeFileError err;
  int fd = safe_open(name, O_RDWR | O_CREAT | O_EXCL, 0600, &err);
  if (fd < 0) {
    LIO_ERR(100, errno == EEXIST ? 10 : 7);
    return nullptr;
  }
  auto* f = new LioFile;
  f->fd = fd;
  f->name = name;
  f->mode = kModeReadWrite;
  f->type = type;
  LioHead h;
  h.magic = kLioMagic;
  h.state = kLioClean;
  if (type == kLioData) {
    h.first = kLioHeadSize;
    h.n_files = 1;
    h.n_max = 1;
    h.stash_len = static_cast<uint16_t>(stash_len);
    h.eof = kLioHeadSize + stash_len;
    h.key_type = 6;
    h.rec_len = static_cast<uint16_t>(key_or_rec_len);
    f->heads.push_back(h);
  } else {
    h.first = kLioHeadSize * n_index;
    h.n_files = 0;
    h.n_max = kLioMaxIndex;
    h.eof = h.first;
    f->heads.push_back(h);  // a placeholder until the first index is made
  }
  // The whole head of the file exists from the start, zeros in the user area.
  std::vector<uint8_t> zero(static_cast<size_t>(h.eof), 0);
  if (!WriteAt(f, zero.data(), zero.size(), 0) || writeHead(f, kLioClean) < 0 || !safe_fsync(f->fd)) {
    LIO_ERR(100, 5);
    close(fd);
    unlink(name);
    delete f;
    return nullptr;
  }
  safe_sync_dir(safe_dir_of(name));
  return f;
}

int lioInxCreat(LioFile* f, int key_len, int flags) {
  if (!f || f->type != kLioIndex) return LIO_ERR(104, 128);
  if (lioWritable(f, 104) < 0) return -1;
  if (key_len < 1 || key_len > kLioMaxKey) return LIO_ERR(104, 135);
  if ((flags & 0x0F) == kKeyFloat) return LIO_ERR(104, kIsFloat);
  LioHead& first = f->heads[0];
  int n = first.n_files;
  if (n >= first.first / kLioHeadSize) return LIO_ERR(104, 131);
  bool dup = (flags & kKeyDuplicates) != 0;
  LioHead h = first;
  h.n_used = h.n_free = h.free_head = h.n_keys = h.root = h.serial = 0;
  h.dup = dup ? 1 : 0;
  h.direction = (flags & kKeyDescending) ? -1 : 1;
  h.key_len = static_cast<uint16_t>(key_len + (dup ? 4 : 0));
  h.key_type = static_cast<int16_t>(flags);
  h.order = static_cast<int16_t>(lioChooseOrder(key_len, dup));
  h.rec_len = static_cast<uint16_t>(NodeLength(h.key_len, h.order));
  h.stamp = 0;
  if (n == 0)
    f->heads[0] = h;
  else
    f->heads.push_back(h);
  for (auto& each : f->heads) each.n_files = n + 1;
  f->segs.resize(f->heads.size());
  if (lioMarkDirty(f) < 0 || writeHead(f, f->heads[0].state) < 0) return -1;
  return n;
}

LioFile* lioOpen(const char* name, int mode) {
  if (!name) {
    LIO_ERR(103, kIsBadArgs);
    return nullptr;
  }
  if (!(mode & (kModeReadWrite | kModeReadOnly))) mode |= kModeReadOnly;
  bool rw = (mode & kModeReadWrite) && !(mode & kModeReadOnly);
  struct stat st;
  SafeFileError err;
  int fd = safe_open(name, rw ? O_RDWR : O_RDONLY, 0, &err, &st);
  if (fd < 0) {
    LIO_ERR(103, errno == ENOENT ? kIsNoFile : 8);
    return nullptr;
  }
  auto* f = new LioFile;
  f->fd = fd;
  f->name = name;
  f->mode = rw ? mode & ~kModeReadOnly : (mode & ~kModeReadWrite) | kModeReadOnly;
  f->size = st.st_size;
  if (readHead(f) < 0) {
    close(fd);
    delete f;
    LIO_ERR(103, 8);
    return nullptr;
  }
  if (f->heads[0].state != kLioClean) {
    // Not closed cleanly: what is there is read, nothing is changed.
    LIO_ERR(103, kIsCorrupt);
    f->mode = (f->mode & ~kModeReadWrite) | kModeReadOnly | kModeNoDirtyMark;
  }
  return f;
}

int readHead(LioFile* f) {
  uint8_t raw[kLioHeadSize];
  if (f->size < kLioHeadSize || !ReadAt(f, raw, kLioHeadSize, 0)) return LIO_ERR(116, 137);
  LioHead first = lioUnpackHead(raw);
  if (first.magic != kLioMagic) return LIO_ERR(116, kIsVersion);
  f->heads.clear();
  if (first.n_max == 1) {
    f->type = kLioData;
    if (!DataHeadSane(first, f->size)) return LIO_ERR(116, kIsCorrupt);
    f->heads.push_back(first);
    return 0;
  }
  f->type = kLioIndex;
  if (first.n_max != kLioMaxIndex || first.first < kLioHeadSize || first.first % kLioHeadSize ||
      first.first > kLioHeadSize * kLioMaxIndex || first.n_files < 1 ||
      first.n_files > first.first / kLioHeadSize || first.eof < first.first || first.eof > f->size)
    return LIO_ERR(116, kIsCorrupt);
  f->heads.push_back(first);
  for (int i = 1; i < first.n_files; ++i) {
    if (!ReadAt(f, raw, kLioHeadSize, static_cast<int64_t>(i) * kLioHeadSize)) return LIO_ERR(116, 139);
    LioHead h = lioUnpackHead(raw);
    if (h.magic != kLioMagic) return LIO_ERR(116, kIsVersion);
    f->heads.push_back(h);
  }
  for (auto& h : f->heads)
    if (!IndexHeadSane(h, first, f->size)) return LIO_ERR(116, kIsCorrupt);
  f->segs.assign(f->heads.size(), {});
  return 0;
}

int writeHead(LioFile* f, int state) {
  if (!f || f->fd < 0) return LIO_ERR(115, 127);
  if (f->mode & kModeReadOnly) return LIO_ERR(115, kIsReadOnly);
  f->heads[0].state = static_cast<int16_t>(state);
  std::vector<uint8_t> raw(f->heads.size() * kLioHeadSize);
  for (size_t i = 0; i < f->heads.size(); ++i) {
    LioHead& h = f->heads[i];
    h.eof = f->heads[0].eof;
    h.state = f->heads[0].state;
    ++h.stamp;
    lioPackHead(h, raw.data() + i * kLioHeadSize);
  }
  if (!WriteAt(f, raw.data(), raw.size(), 0)) return LIO_ERR(115, 4);
  f->head_dirty = false;
  return 0;
}

int lioWritable(LioFile* f, int function) {
  if (!f || f->fd < 0) return LIO_ERR(function, 127);
  if (f->mode & kModeReadOnly) return LIO_ERR(function, kIsReadOnly);
  return 0;
}

int lioMarkDirty(LioFile* f) {
  if (lioWritable(f, 118) < 0) return -1;
  f->head_dirty = true;
  if (f->heads[0].state == kLioDirty) return 0;
  f->heads[0].state = kLioDirty;
  if (f->mode & kModeNoDirtyMark) return 0;
  return writeHead(f, kLioDirty);
}

int lioFlush(LioFile* f) {
  if (!f || f->fd < 0) return LIO_ERR(111, 127);
  if (f->mode & kModeReadOnly) return 0;
  if (flAllCache(f) < 0) return -1;
  if (f->heads[0].state == kLioClean && !f->head_dirty) return 0;
  // The content reaches the disk before the header says it is whole, and
  // the clean header reaches it before the call returns.
  if (writeHead(f, kLioDirty) < 0) return -1;
  if (!safe_fsync(f->fd)) return LIO_ERR(111, 134);
  if (writeHead(f, kLioClean) < 0) return -1;
  if (!safe_fsync(f->fd)) return LIO_ERR(111, 134);
  return 0;
}

int lioClose(LioFile*& f) {
  if (!f) return LIO_ERR(110, 127);
  int rc = lioFlush(f);
  if (close(f->fd) < 0 && rc == 0) rc = LIO_ERR(110, 9);
  delete f;
  f = nullptr;
  return rc;
}

int lioSetCache(LioFile* f, int a, int b) {
  if (!f || a < 1 || b < 1 || a * b > 4096) return LIO_ERR(105, kIsBadArgs);
  if (flAllCache(f) < 0) return -1;
  f->cache_cap = static_cast<size_t>(a) * static_cast<size_t>(b);
  DropCache(f);
  return 0;
}

int lioSize(LioFile* f) {
  if (!f) return LIO_ERR(112, 127);
  if (f->type == kLioIndex) return f->heads[0].eof;
  return f->heads[0].n_used + f->heads[0].n_free;
}

int lioAvl(LioFile* f) {
  if (!f || f->type != kLioData) return LIO_ERR(106, 128);
  if (lioWritable(f, 106) < 0) return -1;
  LioHead& h = f->heads[0];
  int n;
  if (h.free_head == 0) {
    if (h.n_used >= 0x7FFFFFFF / h.rec_len) return LIO_ERR(106, kIsOverflow);
    n = h.n_used + 1;
    std::vector<uint8_t> zero(h.rec_len, 0);
    if (!WriteAt(f, zero.data(), zero.size(), RecordOffset(h, n))) return LIO_ERR(106, 5);
  } else {
    n = h.free_head;
    uint8_t link[4];
    int records = h.n_used + h.n_free;
    if (n < 1 || n > records || !ReadAt(f, link, 4, RecordOffset(h, n) + 5)) return LIO_ERR(106, kIsCorrupt);
    int32_t next = static_cast<int32_t>(get32(link));
    // A link out of range, or a list longer than its count, is damage:
    // following it would hand out a record in use, or loop.
    if (next < 0 || next > records || next == n || (h.n_free == 1) != (next == 0))
      return LIO_ERR(106, kIsCorrupt);
    h.free_head = next;
    --h.n_free;
  }
  ++h.n_used;
  f->head_dirty = true;
  if (lioMarkDirty(f) < 0) return -1;
  if ((f->mode & kModeWriteHeader) && writeHead(f, kLioDirty) < 0) return -1;
  return n;
}

int lioFree(LioFile* f, int n) {
  if (!f || f->type != kLioData) return LIO_ERR(122, 128);
  if (lioWritable(f, 122) < 0) return -1;
  LioHead& h = f->heads[0];
  if (n < 1 || n > h.n_used + h.n_free || h.n_used < 1) return LIO_ERR(122, kIsBadRecord);
  if (lioMarkDirty(f) < 0) return -1;
  uint8_t link[4];
  put32(link, static_cast<uint32_t>(h.free_head));
  if (!WriteAt(f, link, 4, RecordOffset(h, n) + 5)) return LIO_ERR(122, 5);
  h.free_head = n;
  ++h.n_free;
  --h.n_used;
  f->head_dirty = true;
  if ((f->mode & kModeWriteHeader) && writeHead(f, kLioDirty) < 0) return -1;
  return 0;
}

int lioRead(LioFile* f, int n, void* buf) {
  if (!f || f->type != kLioData || !buf) return LIO_ERR(108, 128);
  const LioHead& h = f->heads[0];
  if (n < 1 || n > h.n_used + h.n_free) return LIO_ERR(108, kIsBadRecord);
  if (!ReadAt(f, buf, h.rec_len, RecordOffset(h, n))) return LIO_ERR(108, 2);
  return h.rec_len;
}

int lioWrite(LioFile* f, int n, const void* buf) {
  if (!f || f->type != kLioData || !buf) return LIO_ERR(109, 128);
  if (lioWritable(f, 109) < 0) return -1;
  const LioHead& h = f->heads[0];
  if (n < 1 || n > h.n_used + h.n_free) return LIO_ERR(109, kIsBadRecord);
  if (lioMarkDirty(f) < 0) return -1;
  if (!WriteAt(f, buf, h.rec_len, RecordOffset(h, n))) return LIO_ERR(109, 5);
  if ((f->mode & kModeWriteHeader) && writeHead(f, kLioDirty) < 0) return -1;
  return h.rec_len;
}

int lioWStash(LioFile* f, const void* buf, int len) {
  if (!f || f->type != kLioData || !buf) return LIO_ERR(101, 128);
  if (lioWritable(f, 101) < 0) return -1;
  if (len < 0 || len > f->heads[0].stash_len) return LIO_ERR(101, kIsBadArgs);
  if (lioMarkDirty(f) < 0) return -1;
  if (!WriteAt(f, buf, static_cast<size_t>(len), kLioHeadSize)) return LIO_ERR(101, 5);
  return len;
}

int lioRStash(LioFile* f, void* buf, int len) {
  if (!f || f->type != kLioData || !buf) return LIO_ERR(102, 128);
  if (len < 0) return LIO_ERR(102, kIsBadArgs);
  len = std::min<int>(len, f->heads[0].stash_len);
  if (!ReadAt(f, buf, static_cast<size_t>(len), kLioHeadSize)) return LIO_ERR(102, 2);
  return len;
}

// ---- nodes and their cache ----

namespace {

int DecodeNode(LioFile* f, int idx, uint32_t off, const uint8_t* raw, LioNode* out) {
  const LioHead& h = f->heads[static_cast<size_t>(idx)];
  int count = raw[0];
  // A free node carries 0xFF here, more than any node can hold.
  if (count > 2 * h.order) return LIO_ERR(117, kIsCorrupt);
  out->off = off;
  out->child0 = get32(raw + 1);
  out->e.resize(static_cast<size_t>(count));
  const uint8_t* p = raw + 5;
  for (auto& e : out->e) {
    e.key.assign(p, p + h.key_len);
    e.child = get32(p + h.key_len);
    e.rec = get32(p + h.key_len + 4);
    p += h.key_len + 8;
  }
  // Children must be nodes of this file; anything else is planted.
  auto child_ok = [&](uint32_t c) {
    return c == 0 || (c >= static_cast<uint32_t>(f->heads[0].first) &&
                      static_cast<int64_t>(c) + h.rec_len <= f->heads[0].eof && c != off);
  };
  if (!child_ok(out->child0)) return LIO_ERR(117, kIsCorrupt);
  bool leaf = out->child0 == 0;
  for (auto& e : out->e)
    if (!child_ok(e.child) || (e.child == 0) != leaf) return LIO_ERR(117, kIsCorrupt);
  return 0;
}

void EncodeNode(const LioHead& h, const LioNode& node, uint8_t* raw) {
  std::memset(raw, 0, h.rec_len);
  raw[0] = static_cast<uint8_t>(node.e.size());
  put32(raw + 1, node.child0);
  uint8_t* p = raw + 5;
  for (const auto& e : node.e) {
    std::memcpy(p, e.key.data(), h.key_len);
    put32(p + h.key_len, e.child);
    put32(p + h.key_len + 4, e.rec);
    p += h.key_len + 8;
  }
}

int WriteNode(LioFile* f, int idx, const LioNode& node) {
  const LioHead& h = f->heads[static_cast<size_t>(idx)];
  std::vector<uint8_t> raw(h.rec_len);
  EncodeNode(h, node, raw.data());
  if (!WriteAt(f, raw.data(), raw.size(), node.off)) return LIO_ERR(118, 5);
  return 0;
}

// Writes back the least recently used page when the cache is full.
int MakeRoom(LioFile* f) {
  while (f->cache.size() >= f->cache_cap && !f->lru.empty()) {
    uint32_t off = f->lru.back();
    auto it = f->cache.find(off);
    if (it->second.dirty && WriteNode(f, it->second.index, it->second.node) < 0) return -1;
    f->lru.pop_back();
    f->cache.erase(it);
  }
  return 0;
}

}  // namespace

int readPage(LioFile* f, int idx, uint32_t off, LioNode* out) {
  const LioHead& h = f->heads[static_cast<size_t>(idx)];
  if (off < static_cast<uint32_t>(f->heads[0].first) || static_cast<int64_t>(off) + h.rec_len > f->heads[0].eof)
    return LIO_ERR(117, kIsCorrupt);
  auto it = f->cache.find(off);
  if (it != f->cache.end()) {
    if (it->second.index != idx) return LIO_ERR(117, kIsCorrupt);
    f->lru.splice(f->lru.begin(), f->lru, it->second.lru);
    *out = it->second.node;
    return 0;
  }
  std::vector<uint8_t> raw(h.rec_len);
  if (!ReadAt(f, raw.data(), raw.size(), off)) return LIO_ERR(117, 2);
  if (DecodeNode(f, idx, off, raw.data(), out) < 0) return -1;
  if (MakeRoom(f) < 0) return -1;
  f->lru.push_front(off);
  LioCachePage& page = f->cache[off];
  page.node = *out;
  page.index = idx;
  page.dirty = false;
  page.lru = f->lru.begin();
  return 0;
}

int writePage(LioFile* f, int idx, const LioNode& node) {
  if (lioMarkDirty(f) < 0) return -1;
  if (node.e.size() > static_cast<size_t>(2 * f->heads[static_cast<size_t>(idx)].order))
    return LIO_ERR(118, kIsInternal);
  bool through = (f->mode & (kModeWriteThrough | kModeWriteHeader | kModeNoDirtyMark)) != 0;
  auto it = f->cache.find(node.off);
  if (it == f->cache.end()) {
    if (MakeRoom(f) < 0) return -1;
    f->lru.push_front(node.off);
    it = f->cache.emplace(node.off, LioCachePage{}).first;
    it->second.lru = f->lru.begin();
  } else {
    f->lru.splice(f->lru.begin(), f->lru, it->second.lru);
  }
  it->second.node = node;
  it->second.index = idx;
  it->second.dirty = !through;
  if (through && WriteNode(f, idx, node) < 0) return -1;
  if ((f->mode & kModeWriteHeader) && writeHead(f, kLioDirty) < 0) return -1;
  return 0;
}

int flAllCache(LioFile* f) {
  for (auto& [off, page] : f->cache) {
    if (!page.dirty) continue;
    if (WriteNode(f, page.index, page.node) < 0) return -1;
    page.dirty = false;
  }
  return 0;
}

int nodAlloc(LioFile* f, int idx, uint32_t* off) {
  LioHead& h = f->heads[static_cast<size_t>(idx)];
  LioHead& first = f->heads[0];
  if (lioMarkDirty(f) < 0) return -1;
  if (h.free_head == 0) {
    if (static_cast<int64_t>(first.eof) + h.rec_len > 0x7FFFFFFF) return LIO_ERR(211, kIsOverflow);
    *off = static_cast<uint32_t>(first.eof);
    first.eof += h.rec_len;
    for (auto& each : f->heads) each.eof = first.eof;
    std::vector<uint8_t> zero(h.rec_len, 0);
    if (!WriteAt(f, zero.data(), zero.size(), *off)) return LIO_ERR(211, 5);
  } else {
    uint32_t node = static_cast<uint32_t>(h.free_head);
    uint8_t raw[9];
    if (static_cast<int64_t>(node) + h.rec_len > first.eof || !ReadAt(f, raw, 9, node) || raw[0] != 0xFF)
      return LIO_ERR(211, kIsCorrupt);
    int32_t next = static_cast<int32_t>(get32(raw + 5));
    bool next_ok = next == 0 || (next >= first.first && static_cast<int64_t>(next) + h.rec_len <= first.eof);
    if (!next_ok || next == static_cast<int32_t>(node) || (h.n_free == 1) != (next == 0))
      return LIO_ERR(211, kIsCorrupt);
    h.free_head = next;
    --h.n_free;
    *off = node;
  }
  ++h.n_used;
  f->head_dirty = true;
  return 0;
}

int nodFree(LioFile* f, int idx, uint32_t off) {
  LioHead& h = f->heads[static_cast<size_t>(idx)];
  if (lioMarkDirty(f) < 0) return -1;
  auto it = f->cache.find(off);
  if (it != f->cache.end()) {
    f->lru.erase(it->second.lru);
    f->cache.erase(it);
  }
  std::vector<uint8_t> raw(h.rec_len, 0);
  raw[0] = 0xFF;
  put32(raw.data() + 5, static_cast<uint32_t>(h.free_head));
  if (!WriteAt(f, raw.data(), raw.size(), off)) return LIO_ERR(122, 5);
  h.free_head = static_cast<int32_t>(off);
  ++h.n_free;
  --h.n_used;
  f->head_dirty = true;
  return 0;
}
