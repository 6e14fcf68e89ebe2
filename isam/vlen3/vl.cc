#include "isam/vlen3/vl.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "isam/flen3/lio.h"
#include "isam/isam_error.h"
#include "rclib/safe_file.h"

#define VL_ERR(fn, err) isam_error("vlen3", fn, err, __LINE__)

namespace {

bool ReadAt(int fd, int64_t size, void* buf, size_t len, int64_t at) {
  if (at < 0 || at + static_cast<int64_t>(len) > size) return false;
  auto* p = static_cast<uint8_t*>(buf);
  size_t done = 0;
  while (done < len) {
    ssize_t n = pread(fd, p + done, len - done, static_cast<off_t>(at + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

bool WriteAt(int fd, int64_t* size, const void* buf, size_t len, int64_t at) {
  if (!safe_pwrite_all(fd, buf, len, static_cast<off_t>(at))) return false;
  *size = std::max<int64_t>(*size, at + static_cast<int64_t>(len));
  return true;
}

int Classes(const VlHead& h) { return (h.max - h.min) / h.grain + 1; }

int64_t MapAt(const VlHead& h, int n) { return h.map_start + static_cast<int64_t>(n - 1) * 8; }

int SlotsStart(const VlHead& h) { return kVlStoreHead + h.stash_len; }

int ReadEntry(VlFile* f, int n, uint32_t* off, uint32_t* size) {
  uint8_t raw[8];
  if (!ReadAt(f->mp, f->mp_size, raw, 8, MapAt(f->h, n))) return VL_ERR(416, kIsCorrupt);
  *off = get32(raw);
  *size = get32(raw + 4);
  return 0;
}

int WriteEntry(VlFile* f, int n, uint32_t off, uint32_t size) {
  uint8_t raw[8];
  put32(raw, off);
  put32(raw + 4, size);
  if (!WriteAt(f->mp, &f->mp_size, raw, 8, MapAt(f->h, n))) return VL_ERR(415, 5);
  return 0;
}

int WriteHead(VlFile* f, int state) {
  if (f->mode & kModeReadOnly) return VL_ERR(417, kIsReadOnly);
  f->h.state = static_cast<int16_t>(state);
  std::vector<uint8_t> raw(static_cast<size_t>(f->h.map_start), 0);
  vlPackHead(f->h, raw.data());
  for (size_t i = 0; i < f->class_head.size(); ++i)
    put32(raw.data() + kVlHeadSize + i * 4, static_cast<uint32_t>(f->class_head[i]));
  if (!WriteAt(f->mp, &f->mp_size, raw.data(), raw.size(), 0)) return VL_ERR(417, 4);
  return 0;
}

int MarkDirty(VlFile* f, int function) {
  if (f->mode & kModeReadOnly) return VL_ERR(function, kIsReadOnly);
  f->dirty = true;
  if (f->h.state == kLioDirty) return 0;
  f->h.state = kLioDirty;
  if (f->mode & kModeNoDirtyMark) return 0;
  return WriteHead(f, kLioDirty);
}

// A slot offset read from a file: inside the store, behind the user area.
bool SlotOk(const VlFile* f, int64_t off, int rounded) {
  return off >= SlotsStart(f->h) && off + rounded <= f->h.eof && off + rounded <= f->st_size;
}

int GiveSlot(VlFile* f, uint32_t off, int rounded) {
  int cls = (rounded - f->h.min) / f->h.grain;
  if (cls < 0 || cls >= static_cast<int>(f->class_head.size()) || !SlotOk(f, off, rounded))
    return VL_ERR(412, kIsCorrupt);
  uint8_t link[4];
  put32(link, static_cast<uint32_t>(f->class_head[static_cast<size_t>(cls)]));
  if (!WriteAt(f->st, &f->st_size, link, 4, off)) return VL_ERR(412, 5);
  f->class_head[static_cast<size_t>(cls)] = static_cast<int32_t>(off);
  f->h.heap += rounded;
  return 0;
}

int TakeSlot(VlFile* f, int rounded, uint32_t* off) {
  int cls = (rounded - f->h.min) / f->h.grain;
  int32_t& head = f->class_head[static_cast<size_t>(cls)];
  if (f->h.heap != 0 && head != 0) {
    uint8_t link[4];
    if (!SlotOk(f, head, rounded) || !ReadAt(f->st, f->st_size, link, 4, head)) return VL_ERR(413, kIsCorrupt);
    int32_t next = static_cast<int32_t>(get32(link));
    if (next != 0 && (!SlotOk(f, next, rounded) || next == head)) return VL_ERR(413, kIsCorrupt);
    *off = static_cast<uint32_t>(head);
    head = next;
    f->h.heap -= rounded;
    if (f->h.heap < 0) {
      fputs("Weirdness has occurred in delete heap count\n\a", stderr);
      f->h.heap = 0;
    }
    return 0;
  }
  if (static_cast<int64_t>(f->h.eof) + rounded > 0x7FFFFFFF) return VL_ERR(413, kIsOverflow);
  *off = static_cast<uint32_t>(f->h.eof);
  f->h.eof += rounded;
  return 0;
}

int RoundTo(int s, int min, int grain) {
  if (s <= min) return min;
  return (s + grain - 1) / grain * grain;
}

}  // namespace

void vlSizes(int* min, int* max, int* grain) {
  if (*grain <= 0 || *grain > 1024) *grain = 10;
  if (*min < 9) *min = 11;
  if (*min < *grain)
    *min = *grain;
  else if (*min % *grain)
    *min = (*min / *grain + 1) * *grain;
  if (*max > 30000 || *max < *min) *max = 10000;
  *max = RoundTo(*max, *min, *grain);
}

int vlRound(const VlHead& h, int len) { return RoundTo(len + 2, h.min, h.grain); }

void vlPackHead(const VlHead& h, uint8_t out[kVlHeadSize]) {
  std::memset(out, 0, kVlHeadSize);
  put32(out + 0, static_cast<uint32_t>(h.magic));
  put32(out + 4, static_cast<uint32_t>(h.n_recs));
  put32(out + 8, static_cast<uint32_t>(h.free_head));
  put32(out + 12, static_cast<uint32_t>(h.n_free));
  put32(out + 16, static_cast<uint32_t>(h.eof));
  put32(out + 20, static_cast<uint32_t>(h.heap));
  put16(out + 24, static_cast<uint16_t>(h.state));
  put16(out + 32, static_cast<uint16_t>(h.min));
  put16(out + 34, static_cast<uint16_t>(h.max));
  put16(out + 36, static_cast<uint16_t>(h.grain));
  put32(out + 40, static_cast<uint32_t>(h.map_start));
  put16(out + 44, h.stash_len);
}

VlHead vlUnpackHead(const uint8_t in[kVlHeadSize]) {
  VlHead h;
  h.magic = static_cast<int32_t>(get32(in + 0));
  h.n_recs = static_cast<int32_t>(get32(in + 4));
  h.free_head = static_cast<int32_t>(get32(in + 8));
  h.n_free = static_cast<int32_t>(get32(in + 12));
  h.eof = static_cast<int32_t>(get32(in + 16));
  h.heap = static_cast<int32_t>(get32(in + 20));
  h.state = static_cast<int16_t>(get16(in + 24));
  h.min = static_cast<int16_t>(get16(in + 32));
  h.max = static_cast<int16_t>(get16(in + 34));
  h.grain = static_cast<int16_t>(get16(in + 36));
  h.map_start = static_cast<int32_t>(get32(in + 40));
  h.stash_len = get16(in + 44);
  return h;
}

VlFile* vlCreat(const char* name, int min, int max, int grain, int stash_len) {
  if (!name || stash_len < 0 || stash_len > 0xFFFF) {
    VL_ERR(400, kIsBadArgs);
    return nullptr;
  }
  vlSizes(&min, &max, &grain);
  std::string mp = std::string(name) + ".mp", st = std::string(name) + ".st";
  auto* f = new VlFile;
  f->name = name;
  f->mode = kModeReadWrite;
  f->h.min = static_cast<int16_t>(min);
  f->h.max = static_cast<int16_t>(max);
  f->h.grain = static_cast<int16_t>(grain);
  f->h.stash_len = static_cast<uint16_t>(stash_len);
  f->h.map_start = Classes(f->h) * 4 + kVlHeadSize;
  f->h.eof = SlotsStart(f->h);
  f->class_head.assign(static_cast<size_t>(Classes(f->h)), 0);
  f->mp = safe_open(mp.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  if (f->mp >= 0) f->st = safe_open(st.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  std::vector<uint8_t> store(static_cast<size_t>(f->h.eof), 0);
  put16(store.data(), static_cast<uint16_t>(min));
  put16(store.data() + 2, static_cast<uint16_t>(max));
  put16(store.data() + 4, static_cast<uint16_t>(grain));
  bool ok = f->mp >= 0 && f->st >= 0 && WriteHead(f, kLioClean) == 0 &&
            WriteAt(f->st, &f->st_size, store.data(), store.size(), 0) && safe_fsync(f->st) && safe_fsync(f->mp);
  if (!ok) {
    VL_ERR(400, errno == EEXIST ? 10 : 7);
    if (f->mp >= 0) {
      close(f->mp);
      unlink(mp.c_str());
    }
    if (f->st >= 0) {
      close(f->st);
      unlink(st.c_str());
    }
    delete f;
    return nullptr;
  }
  safe_sync_dir(safe_dir_of(name));
  return f;
}

VlFile* vlOpen(const char* name, int mode) {
  if (!name) {
    VL_ERR(401, kIsBadArgs);
    return nullptr;
  }
  bool rw = (mode & kModeReadWrite) && !(mode & kModeReadOnly);
  std::string mp = std::string(name) + ".mp", st = std::string(name) + ".st";
  auto* f = new VlFile;
  f->name = name;
  f->mode = rw ? mode & ~kModeReadOnly : (mode & ~kModeReadWrite) | kModeReadOnly;
  struct stat s1, s2;
  f->mp = safe_open(mp.c_str(), rw ? O_RDWR : O_RDONLY, 0, nullptr, &s1);
  int saved = errno;
  if (f->mp >= 0) {
    f->st = safe_open(st.c_str(), rw ? O_RDWR : O_RDONLY, 0, nullptr, &s2);
    saved = errno;
  }
  auto fail = [&](int err) {
    VL_ERR(401, err);
    if (f->mp >= 0) close(f->mp);
    if (f->st >= 0) close(f->st);
    delete f;
    return nullptr;
  };
  if (f->mp < 0 || f->st < 0) return fail(saved == ENOENT ? kIsNoFile : 8);
  f->mp_size = s1.st_size;
  f->st_size = s2.st_size;
  uint8_t raw[kVlHeadSize];
  if (!ReadAt(f->mp, f->mp_size, raw, kVlHeadSize, 0)) return fail(237);
  VlHead h = vlUnpackHead(raw);
  if (h.magic != 310) return fail(kIsVersion);
  // The sizes must be ones vlCreat could have made, and every count must
  // fit the files as they are.
  int min = h.min, max = h.max, grain = h.grain;
  if (grain < 1 || grain > 1024 || min < 9 || min % grain || max < min || max > 30000 ||
      (max - min) % grain || h.map_start != ((max - min) / grain + 1) * 4 + kVlHeadSize)
    return fail(kIsCorrupt);
  f->h = h;
  if (h.n_recs < 0 || h.map_start + static_cast<int64_t>(h.n_recs) * 8 > f->mp_size) return fail(kIsCorrupt);
  if (h.n_free < 0 || h.n_free > h.n_recs || h.free_head < 0 || h.free_head > h.n_recs ||
      (h.free_head == 0) != (h.n_free == 0))
    return fail(kIsCorrupt);
  if (h.eof < SlotsStart(h) || h.eof > f->st_size || h.heap < 0 || h.heap > h.eof) return fail(kIsCorrupt);
  uint8_t sizes[kVlStoreHead];
  if (!ReadAt(f->st, f->st_size, sizes, kVlStoreHead, 0) || get16(sizes) != min || get16(sizes + 2) != max ||
      get16(sizes + 4) != grain)
    return fail(kIsCorrupt);
  std::vector<uint8_t> heads(static_cast<size_t>(Classes(h)) * 4);
  if (!ReadAt(f->mp, f->mp_size, heads.data(), heads.size(), kVlHeadSize)) return fail(237);
  f->class_head.resize(static_cast<size_t>(Classes(h)));
  for (size_t i = 0; i < f->class_head.size(); ++i) {
    int32_t off = static_cast<int32_t>(get32(heads.data() + i * 4));
    if (off != 0 && !SlotOk(f, off, min + static_cast<int>(i) * grain)) return fail(kIsCorrupt);
    f->class_head[i] = off;
  }
  if (h.state != kLioClean) {
    VL_ERR(401, kIsCorrupt);
    f->mode = (f->mode & ~kModeReadWrite) | kModeReadOnly | kModeNoDirtyMark;
  }
  return f;
}

int vlRead(VlFile* f, int n, void* buf, int limit) {
  if (!f) return VL_ERR(402, 127);
  if (n < 1 || n > f->h.n_recs) return 0;
  uint32_t off, size;
  if (ReadEntry(f, n, &off, &size) < 0) return -1;
  if (size == 0) return 0;
  if (size < 2 || static_cast<int>(size) > f->h.max || !SlotOk(f, off, vlRound(f->h, static_cast<int>(size) - 2)))
    return VL_ERR(402, kIsCorrupt);
  int len = static_cast<int>(size) - 2;
  if (buf && limit > 0) {
    size_t want = static_cast<size_t>(std::min(len, limit));
    if (!ReadAt(f->st, f->st_size, buf, want, static_cast<int64_t>(off) + 2)) return VL_ERR(402, 2);
  }
  return len;
}

int vlWrite(VlFile* f, int n, const void* buf, int len) {
  if (!f || (!buf && len > 0)) return VL_ERR(403, 127);
  if (len < 0 || len + 2 > f->h.max) return VL_ERR(403, kIsOverflow);
  if (n < 1 || n > f->h.n_recs) return VL_ERR(403, kIsBadRecord);
  if (MarkDirty(f, 403) < 0) return -1;
  uint32_t off, size;
  if (ReadEntry(f, n, &off, &size) < 0) return -1;
  int rounded = vlRound(f->h, len);
  bool moved = size != static_cast<uint32_t>(len + 2);
  uint32_t old_off = off;
  if (moved) {
    if (size != 0 && (size < 2 || static_cast<int>(size) > f->h.max)) return VL_ERR(403, kIsCorrupt);
    // The new slot is taken before the old one is given up, so that a
    // record that changes length always moves and never overwrites its
    // old bytes in place.
    if (TakeSlot(f, rounded, &off) < 0) return -1;
  }
  // The slot is written whole: its size word, the data, zeros behind it.
  std::vector<uint8_t> slot(static_cast<size_t>(rounded), 0);
  put16(slot.data(), static_cast<uint16_t>(rounded));
  if (len > 0) std::memcpy(slot.data() + 2, buf, static_cast<size_t>(len));
  if (!WriteAt(f->st, &f->st_size, slot.data(), slot.size(), off)) return VL_ERR(403, 5);
  if (moved && WriteEntry(f, n, off, static_cast<uint32_t>(len + 2)) < 0) return -1;
  if (moved && size != 0 && GiveSlot(f, old_off, vlRound(f->h, static_cast<int>(size) - 2)) < 0) return -1;
  if ((f->mode & kModeWriteHeader) && WriteHead(f, kLioDirty) < 0) return -1;
  return len;
}

int vlAvl(VlFile* f) {
  if (!f) return VL_ERR(407, 127);
  if (MarkDirty(f, 407) < 0) return -1;
  int n;
  if (f->h.free_head != 0) {
    n = f->h.free_head;
    uint32_t next, size;
    if (ReadEntry(f, n, &next, &size) < 0) return -1;
    if (size != 0 || next > static_cast<uint32_t>(f->h.n_recs) || next == static_cast<uint32_t>(n) ||
        (f->h.n_free == 1) != (next == 0))
      return VL_ERR(407, kIsCorrupt);
    f->h.free_head = static_cast<int32_t>(next);
    --f->h.n_free;
  } else {
    if (f->h.n_recs >= (0x7FFFFFFF - f->h.map_start) / 8) return VL_ERR(407, kIsOverflow);
    n = ++f->h.n_recs;
  }
  if (WriteEntry(f, n, 0, 0) < 0) return -1;
  if ((f->mode & kModeWriteHeader) && WriteHead(f, kLioDirty) < 0) return -1;
  return n;
}

int vlFree(VlFile* f, int n) {
  if (!f) return VL_ERR(404, 127);
  if (n < 1 || n > f->h.n_recs) return 0;
  if (MarkDirty(f, 404) < 0) return -1;
  uint32_t off, size;
  if (ReadEntry(f, n, &off, &size) < 0) return -1;
  if (size == 0) {
    // Freeing a number twice would make the free list loop.
    int32_t at = f->h.free_head;
    for (int i = 0; at != 0 && i <= f->h.n_free; ++i) {
      if (at == n) return 0;
      uint32_t next, s;
      if (at < 1 || at > f->h.n_recs || ReadEntry(f, at, &next, &s) < 0) return VL_ERR(404, kIsCorrupt);
      at = static_cast<int32_t>(next);
    }
  } else {
    if (size < 2 || static_cast<int>(size) > f->h.max) return VL_ERR(404, kIsCorrupt);
    if (GiveSlot(f, off, vlRound(f->h, static_cast<int>(size) - 2)) < 0) return -1;
  }
  if (WriteEntry(f, n, static_cast<uint32_t>(f->h.free_head), 0) < 0) return -1;
  f->h.free_head = n;
  ++f->h.n_free;
  if ((f->mode & kModeWriteHeader) && WriteHead(f, kLioDirty) < 0) return -1;
  return size ? static_cast<int>(size) - 2 : 0;
}

int vlFlush(VlFile* f) {
  if (!f) return VL_ERR(406, 127);
  if ((f->mode & kModeReadOnly) || (!f->dirty && f->h.state == kLioClean)) return 0;
  if (WriteHead(f, kLioDirty) < 0) return -1;
  if (!safe_fsync(f->st) || !safe_fsync(f->mp)) return VL_ERR(406, 134);
  if (WriteHead(f, kLioClean) < 0) return -1;
  if (!safe_fsync(f->mp)) return VL_ERR(406, 134);
  f->dirty = false;
  return 0;
}

int vlClose(VlFile*& f) {
  if (!f) return VL_ERR(405, 127);
  int rc = vlFlush(f);
  if (close(f->mp) < 0 && rc == 0) rc = VL_ERR(405, 9);
  if (close(f->st) < 0 && rc == 0) rc = VL_ERR(405, 9);
  delete f;
  f = nullptr;
  return rc;
}

int vlStats(VlFile* f, VlStats* out) {
  if (!f || !out) return VL_ERR(408, 127);
  out->records = f->h.n_recs - f->h.n_free;
  out->free = f->h.n_free;
  out->eof = f->h.eof;
  out->heap = f->h.heap;
  out->min = f->h.min;
  out->max = f->h.max;
  out->grain = f->h.grain;
  return 0;
}

int vlRStash(VlFile* f, void* buf, int len) {
  if (!f || !buf || len < 0) return VL_ERR(426, kIsBadArgs);
  len = std::min<int>(len, f->h.stash_len);
  if (!ReadAt(f->st, f->st_size, buf, static_cast<size_t>(len), kVlStoreHead)) return VL_ERR(426, 2);
  return len;
}

int vlWStash(VlFile* f, const void* buf, int len) {
  if (!f || !buf || len < 0 || len > f->h.stash_len) return VL_ERR(427, kIsBadArgs);
  if (MarkDirty(f, 427) < 0) return -1;
  if (!WriteAt(f->st, &f->st_size, buf, static_cast<size_t>(len), kVlStoreHead)) return VL_ERR(427, 5);
  return len;
}

int vlSetMode(VlFile* f, int mode) {
  if (!f) return VL_ERR(425, 127);
  // A file opened read-only (or found not closed cleanly) stays so.
  if ((f->mode & kModeReadOnly) && (mode & kModeReadWrite)) return VL_ERR(425, kIsModeAction);
  f->mode = (f->mode & (kModeReadWrite | kModeReadOnly)) | (mode & ~(kModeReadWrite | kModeReadOnly));
  return 0;
}
