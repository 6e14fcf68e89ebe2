// The B-tree of an index: key comparison, search, insert with splits,
// delete with rotation and joining, and a walk that checks the whole tree.
// Every descent counts its depth: a tree deeper than 10 nodes, or a path
// that comes back on itself, is damage and is reported, never followed.
#include <strings.h>

#include <algorithm>
#include <cstring>

#include "isam/flen3/lio.h"
#include "isam/isam_error.h"

#define BT_ERR(fn, err) isam_error("btreev33", fn, err, __LINE__)

namespace {

IsamCompareHook g_hook = nullptr;

int Sign(int v) { return (v > 0) - (v < 0); }

int CompareSegment(const uint8_t* a, const uint8_t* b, int len, int type) {
  switch (type & 0x0F) {
    case kKeyString:
      return Sign(strncmp(reinterpret_cast<const char*>(a), reinterpret_cast<const char*>(b), static_cast<size_t>(len)));
    case kKeyStringNoCase:
      return Sign(
          strncasecmp(reinterpret_cast<const char*>(a), reinterpret_cast<const char*>(b), static_cast<size_t>(len)));
    case kKeyInt16: {
      int r = 0;
      for (int i = 0; i + 2 <= len && r == 0; i += 2) {
        int16_t x = static_cast<int16_t>(get16(a + i)), y = static_cast<int16_t>(get16(b + i));
        r = (x > y) - (x < y);
      }
      return r;
    }
    case kKeyInt32: {
      int r = 0;
      for (int i = 0; i + 4 <= len && r == 0; i += 4) {
        int32_t x = static_cast<int32_t>(get32(a + i)), y = static_cast<int32_t>(get32(b + i));
        r = (x > y) - (x < y);
      }
      return r;
    }
    default:
      return g_hook ? Sign(g_hook(a, b, len, type)) : 0;
  }
}

const LioHead& Head(LioFile* f, int idx) { return f->heads[static_cast<size_t>(idx)]; }

uint32_t ChildAt(const LioNode& n, size_t k) { return k == 0 ? n.child0 : n.e[k - 1].child; }

bool IndexOk(LioFile* f, int idx) {
  return f && f->type == kLioIndex && idx >= 0 && static_cast<size_t>(idx) < f->heads.size();
}

// First entry whose key compares >= (or > when strict) to key.
size_t Partition(LioFile* f, int idx, const LioNode& n, const uint8_t* key, bool part_only, bool strict) {
  size_t low = 0, high = n.e.size();
  while (low < high) {
    size_t mid = (low + high) / 2;
    int c = lioCompare(f, idx, n.e[mid].key.data(), key, part_only);
    if (c < 0 || (strict && c == 0))
      low = mid + 1;
    else
      high = mid;
  }
  return low;
}

int Insert(LioFile* f, int idx, uint32_t off, int depth, const uint8_t* key, uint32_t rec, bool* carry,
           LioNodeEntry* up) {
  if (depth > kLioMaxDepth) return BT_ERR(202, kIsCorrupt);
  LioNode n;
  if (readPage(f, idx, off, &n) < 0) return -1;
  size_t i = Partition(f, idx, n, key, false, false);
  if (i < n.e.size() && lioCompare(f, idx, n.e[i].key.data(), key, false) == 0) return BT_ERR(202, kIsKeyExists);
  LioNodeEntry entry;
  uint32_t c = ChildAt(n, i);
  if (c) {
    bool sub = false;
    if (Insert(f, idx, c, depth + 1, key, rec, &sub, &entry) < 0) return -1;
    if (!sub) {
      *carry = false;
      return 0;
    }
  } else {
    entry.key.assign(key, key + Head(f, idx).key_len);
    entry.rec = rec;
  }
  n.e.insert(n.e.begin() + static_cast<long>(i), std::move(entry));
  size_t order = static_cast<size_t>(Head(f, idx).order);
  if (n.e.size() <= 2 * order) {
    *carry = false;
    return writePage(f, idx, n);
  }
  // Split: order keys stay, the middle one goes up with the new node.
  LioNode right;
  if (nodAlloc(f, idx, &right.off) < 0) return -1;
  right.child0 = n.e[order].child;
  right.e.assign(std::make_move_iterator(n.e.begin() + static_cast<long>(order) + 1),
                 std::make_move_iterator(n.e.end()));
  up->key = std::move(n.e[order].key);
  up->rec = n.e[order].rec;
  up->child = right.off;
  n.e.resize(order);
  *carry = true;
  if (writePage(f, idx, n) < 0 || writePage(f, idx, right) < 0) return -1;
  return 0;
}

// Repairs child k of n, left with fewer than order keys, from a sibling.
int Underflow(LioFile* f, int idx, LioNode& n, size_t k) {
  size_t order = static_cast<size_t>(Head(f, idx).order);
  if (n.e.empty()) return BT_ERR(213, kIsCorrupt);
  size_t li = k > 0 ? k - 1 : 0;  // the separator between left and right
  LioNode left, right;
  if (readPage(f, idx, ChildAt(n, li), &left) < 0 || readPage(f, idx, ChildAt(n, li + 1), &right) < 0) return -1;
  LioNodeEntry& sep = n.e[li];
  bool left_short = k == li;
  LioNode& donor = left_short ? right : left;
  if (donor.e.size() > order) {
    if (left_short) {
      left.e.push_back(LioNodeEntry{sep.key, right.child0, sep.rec});
      sep.key = right.e.front().key;
      sep.rec = right.e.front().rec;
      right.child0 = right.e.front().child;
      right.e.erase(right.e.begin());
    } else {
      right.e.insert(right.e.begin(), LioNodeEntry{sep.key, right.child0, sep.rec});
      right.child0 = left.e.back().child;
      sep.key = left.e.back().key;
      sep.rec = left.e.back().rec;
      left.e.pop_back();
    }
    if (writePage(f, idx, left) < 0 || writePage(f, idx, right) < 0) return -1;
    return 0;
  }
  // Join the two around their separator; the right node goes free.
  left.e.push_back(LioNodeEntry{sep.key, right.child0, sep.rec});
  for (auto& e : right.e) left.e.push_back(std::move(e));
  n.e.erase(n.e.begin() + static_cast<long>(li));
  if (writePage(f, idx, left) < 0 || nodFree(f, idx, right.off) < 0) return -1;
  return 0;
}

// Takes the smallest key of a subtree out, to stand in for a key deleted
// from an inner node.
int GetRep(LioFile* f, int idx, uint32_t off, int depth, LioNodeEntry* out, bool* under) {
  if (depth > kLioMaxDepth) return BT_ERR(214, kIsCorrupt);
  LioNode n;
  if (readPage(f, idx, off, &n) < 0) return -1;
  if (n.e.empty()) return BT_ERR(214, kIsCorrupt);
  if (n.child0 == 0) {
    *out = std::move(n.e.front());
    n.e.erase(n.e.begin());
  } else {
    bool sub = false;
    if (GetRep(f, idx, n.child0, depth + 1, out, &sub) < 0) return -1;
    if (sub && Underflow(f, idx, n, 0) < 0) return -1;
  }
  *under = n.e.size() < static_cast<size_t>(Head(f, idx).order);
  return writePage(f, idx, n);
}

int Delete(LioFile* f, int idx, uint32_t off, int depth, const uint8_t* key, uint32_t rec, bool* under) {
  if (depth > kLioMaxDepth) return BT_ERR(216, kIsCorrupt);
  LioNode n;
  if (readPage(f, idx, off, &n) < 0) return -1;
  size_t i = Partition(f, idx, n, key, false, false);
  bool sub = false;
  if (i < n.e.size() && lioCompare(f, idx, n.e[i].key.data(), key, false) == 0) {
    if (rec && n.e[i].rec != rec) return BT_ERR(216, kIsWrongRecord);
    if (n.child0 == 0) {
      n.e.erase(n.e.begin() + static_cast<long>(i));
    } else {
      LioNodeEntry rep;
      if (GetRep(f, idx, n.e[i].child, depth + 1, &rep, &sub) < 0) return -1;
      n.e[i].key = std::move(rep.key);
      n.e[i].rec = rep.rec;
      if (sub && Underflow(f, idx, n, i + 1) < 0) return -1;
    }
  } else {
    uint32_t c = ChildAt(n, i);
    if (!c) return 0;
    int rc = Delete(f, idx, c, depth + 1, key, rec, &sub);
    if (rc <= 0) return rc;
    if (sub && Underflow(f, idx, n, i) < 0) return -1;
  }
  *under = n.e.size() < static_cast<size_t>(Head(f, idx).order);
  if (writePage(f, idx, n) < 0) return -1;
  return 1;
}

struct CheckState {
  const uint8_t* prev = nullptr;
  std::vector<uint8_t> prev_key;
  int64_t keys = 0;
  int64_t nodes = 0;
  int leaf_depth = -1;
};

int CheckNode(LioFile* f, int idx, uint32_t off, int depth, bool root, CheckState* s) {
  const LioHead& h = Head(f, idx);
  if (depth > kLioMaxDepth || ++s->nodes > h.n_used) return BT_ERR(217, kIsCorrupt);
  LioNode n;
  if (readPage(f, idx, off, &n) < 0) return -1;
  if (n.e.empty() || (!root && n.e.size() < static_cast<size_t>(h.order))) return BT_ERR(217, kIsCorrupt);
  if (n.child0 == 0) {
    if (s->leaf_depth < 0) s->leaf_depth = depth;
    if (s->leaf_depth != depth) return BT_ERR(217, kIsCorrupt);
  }
  for (size_t k = 0; k <= n.e.size(); ++k) {
    uint32_t c = ChildAt(n, k);
    if (c && CheckNode(f, idx, c, depth + 1, false, s) < 0) return -1;
    if (k == n.e.size()) break;
    const uint8_t* key = n.e[k].key.data();
    if (s->prev && lioCompare(f, idx, s->prev_key.data(), key, false) >= 0) return BT_ERR(217, kIsCorrupt);
    s->prev_key.assign(key, key + h.key_len);
    s->prev = s->prev_key.data();
    ++s->keys;
  }
  return 0;
}

}  // namespace

void isamSetCompareHook(IsamCompareHook hook) { g_hook = hook; }
IsamCompareHook isamCompareHook() { return g_hook; }

void lioSetSegments(LioFile* f, int idx, const std::vector<LioSegment>& segs) {
  if (!IndexOk(f, idx)) return;
  f->segs.resize(f->heads.size());
  f->segs[static_cast<size_t>(idx)] = segs;
}

int lioSerialAt(LioFile* f, int idx) {
  const LioHead& h = Head(f, idx);
  if (!h.dup) return -1;
  return (h.key_type & kKeySerialHead) ? 0 : h.key_len - 4;
}

int lioCompare(LioFile* f, int idx, const uint8_t* a, const uint8_t* b, bool part_only) {
  const LioHead& h = Head(f, idx);
  int part_at = 0, part_len = h.key_len, serial_at = -1;
  if (h.dup) {
    part_len -= 4;
    serial_at = (h.key_type & kKeySerialHead) ? 0 : part_len;
    if (serial_at == 0) part_at = 4;
  }
  int c = 0;
  const auto& segs = f->segs.size() > static_cast<size_t>(idx) ? f->segs[static_cast<size_t>(idx)]
                                                                : std::vector<LioSegment>{};
  int at = part_at;
  if (segs.empty()) {
    c = CompareSegment(a + at, b + at, part_len, h.key_type);
  } else {
    for (const auto& s : segs) {
      if (at + s.length > part_at + part_len) break;
      c = CompareSegment(a + at, b + at, s.length, h.key_type);
      if (c) break;
      at += s.length;
    }
  }
  c *= h.direction;
  if (c || part_only || serial_at < 0) return c;
  uint32_t x = get32(a + serial_at), y = get32(b + serial_at);
  return ((x > y) - (x < y)) * h.direction;
}

int lioKeyUsable(LioFile* f, int idx, int function) {
  if (!IndexOk(f, idx)) return isam_error("btreev33", function, 127, __LINE__);
  int type = Head(f, idx).key_type & 0x0F;
  if (type == kKeyFloat) return BT_ERR(function, kIsFloat);
  bool builtin = type == kKeyString || type == kKeyStringNoCase || type == kKeyInt16 || type == kKeyInt32;
  if (!builtin && !g_hook) return BT_ERR(function, kIsNoHook);
  return 0;
}

int lioBound(LioFile* f, int idx, const uint8_t* key, LioBound how, bool part_only, uint8_t* key_out,
             uint32_t* rec) {
  if (lioKeyUsable(f, idx, 215) < 0) return -1;
  const LioHead& h = Head(f, idx);
  // key_out may be key itself (a walk stepping on): search with a copy.
  std::vector<uint8_t> probe(key, key + h.key_len);
  key = probe.data();
  uint32_t off = static_cast<uint32_t>(h.root);
  bool found = false;
  for (int depth = 1; off; ++depth) {
    if (depth > kLioMaxDepth) return BT_ERR(215, kIsCorrupt);
    LioNode n;
    if (readPage(f, idx, off, &n) < 0) return -1;
    bool strict = how == kFirstGT || how == kLastLE;
    size_t i = Partition(f, idx, n, key, part_only, strict);
    const LioNodeEntry* cand = nullptr;
    if (how == kFirstGE || how == kFirstGT) {
      if (i < n.e.size()) cand = &n.e[i];
      off = ChildAt(n, i);
    } else {
      if (i > 0) cand = &n.e[i - 1];
      off = ChildAt(n, i);
    }
    if (cand) {
      found = true;
      if (key_out) std::memcpy(key_out, cand->key.data(), h.key_len);
      if (rec) *rec = cand->rec;
    }
  }
  return found ? 1 : 0;
}

int lioSearch(LioFile* f, int idx, const uint8_t* key, uint32_t* rec) {
  if (!IndexOk(f, idx)) return BT_ERR(200, 127);
  std::vector<uint8_t> got(Head(f, idx).key_len);
  int rc = lioBound(f, idx, key, kFirstGE, false, got.data(), rec);
  if (rc <= 0) return rc;
  return lioCompare(f, idx, got.data(), key, false) == 0 ? 1 : 0;
}

int lioSrPrtl(LioFile* f, int idx, const uint8_t* key, uint8_t* key_out, uint32_t* rec) {
  if (!IndexOk(f, idx)) return BT_ERR(204, 127);
  return lioBound(f, idx, key, kFirstGT, true, key_out, rec);
}

int32_t lioSerNum(LioFile* f, int idx) {
  if (!IndexOk(f, idx)) return BT_ERR(205, 127);
  LioHead& h = f->heads[static_cast<size_t>(idx)];
  ++h.serial;
  f->head_dirty = true;
  return h.serial;
}

int lioInsert(LioFile* f, int idx, uint8_t* key, uint32_t rec) {
  if (!IndexOk(f, idx)) return BT_ERR(209, 127);
  if (lioWritable(f, 209) < 0 || lioKeyUsable(f, idx, 209) < 0) return -1;
  LioHead& h = f->heads[static_cast<size_t>(idx)];
  int serial_at = lioSerialAt(f, idx);
  if (serial_at >= 0) {
    uint32_t serial = get32(key + serial_at);
    if (serial == 0) put32(key + serial_at, static_cast<uint32_t>(lioSerNum(f, idx)));
    else if (static_cast<int32_t>(serial) > h.serial) h.serial = static_cast<int32_t>(serial);
  }
  if (lioMarkDirty(f) < 0) return -1;
  if (h.root == 0) {
    LioNode n;
    if (nodAlloc(f, idx, &n.off) < 0) return -1;
    n.e.push_back(LioNodeEntry{std::vector<uint8_t>(key, key + h.key_len), 0, rec});
    if (writePage(f, idx, n) < 0) return -1;
    h.root = static_cast<int32_t>(n.off);
  } else {
    bool carry = false;
    LioNodeEntry up;
    if (Insert(f, idx, static_cast<uint32_t>(h.root), 1, key, rec, &carry, &up) < 0) return -1;
    if (carry) {
      LioNode root;
      if (nodAlloc(f, idx, &root.off) < 0) return -1;
      root.child0 = static_cast<uint32_t>(h.root);
      root.e.push_back(std::move(up));
      if (writePage(f, idx, root) < 0) return -1;
      h.root = static_cast<int32_t>(root.off);
    }
  }
  ++h.n_keys;
  f->head_dirty = true;
  if ((f->mode & kModeWriteHeader) && writeHead(f, kLioDirty) < 0) return -1;
  return 0;
}

int lioDelete(LioFile* f, int idx, const uint8_t* key, uint32_t rec) {
  if (!IndexOk(f, idx)) return BT_ERR(210, 127);
  if (lioWritable(f, 210) < 0 || lioKeyUsable(f, idx, 210) < 0) return -1;
  LioHead& h = f->heads[static_cast<size_t>(idx)];
  if (h.root == 0) return BT_ERR(210, kIsKeyNotFound);
  bool under = false;
  int rc = Delete(f, idx, static_cast<uint32_t>(h.root), 1, key, rec, &under);
  if (rc < 0) return -1;
  if (rc == 0) return BT_ERR(210, kIsKeyNotFound);
  // A root without keys gives way to its only child (none for a leaf).
  LioNode root;
  if (readPage(f, idx, static_cast<uint32_t>(h.root), &root) < 0) return -1;
  if (root.e.empty()) {
    if (nodFree(f, idx, root.off) < 0) return -1;
    h.root = static_cast<int32_t>(root.child0);
  }
  --h.n_keys;
  f->head_dirty = true;
  if ((f->mode & kModeWriteHeader) && writeHead(f, kLioDirty) < 0) return -1;
  return 0;
}

int lioFirst(LioFile* f, int idx, uint8_t* key_out, uint32_t* rec) {
  if (!IndexOk(f, idx)) return BT_ERR(206, 127);
  const LioHead& h = Head(f, idx);
  uint32_t off = static_cast<uint32_t>(h.root);
  for (int depth = 1; off; ++depth) {
    LioNode n;
    if (depth > kLioMaxDepth) return BT_ERR(206, kIsCorrupt);
    if (readPage(f, idx, off, &n) < 0) return -1;
    if (n.e.empty()) return BT_ERR(206, kIsCorrupt);
    if (n.child0 == 0) {
      if (key_out) std::memcpy(key_out, n.e.front().key.data(), h.key_len);
      if (rec) *rec = n.e.front().rec;
      return 1;
    }
    off = n.child0;
  }
  return 0;
}

int lioLast(LioFile* f, int idx, uint8_t* key_out, uint32_t* rec) {
  if (!IndexOk(f, idx)) return BT_ERR(207, 127);
  const LioHead& h = Head(f, idx);
  uint32_t off = static_cast<uint32_t>(h.root);
  for (int depth = 1; off; ++depth) {
    LioNode n;
    if (depth > kLioMaxDepth) return BT_ERR(207, kIsCorrupt);
    if (readPage(f, idx, off, &n) < 0) return -1;
    if (n.e.empty()) return BT_ERR(207, kIsCorrupt);
    if (n.child0 == 0) {
      if (key_out) std::memcpy(key_out, n.e.back().key.data(), h.key_len);
      if (rec) *rec = n.e.back().rec;
      return 1;
    }
    off = n.e.back().child;
  }
  return 0;
}

int lioNext(LioFile* f, int idx, const uint8_t* key, uint8_t* key_out, uint32_t* rec) {
  if (!IndexOk(f, idx)) return BT_ERR(208, 127);
  return lioBound(f, idx, key, kFirstGT, false, key_out, rec);
}

int lioPrev(LioFile* f, int idx, const uint8_t* key, uint8_t* key_out, uint32_t* rec) {
  if (!IndexOk(f, idx)) return BT_ERR(203, 127);
  return lioBound(f, idx, key, kLastLT, false, key_out, rec);
}

int lioCheck(LioFile* f, int idx) {
  if (!IndexOk(f, idx)) return BT_ERR(217, 127);
  if (lioKeyUsable(f, idx, 217) < 0) return -1;
  const LioHead& h = Head(f, idx);
  CheckState s;
  if (h.root && CheckNode(f, idx, static_cast<uint32_t>(h.root), 1, true, &s) < 0) return -1;
  if (s.keys != h.n_keys || s.nodes != h.n_used) return BT_ERR(217, kIsCorrupt);
  return 0;
}
