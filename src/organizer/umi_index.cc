// The UMI index of an open folder: open addressing with linear probing and
// deletion by backward shift, so no tombstones pile up under a long session
// of expunges.
#include "src/organizer/nodes.h"

namespace {

uint32_t Tag(UMI umi) { return static_cast<uint32_t>(umi); }

}  // namespace

TreeNode* UmiIndex::Find(UMI umi) const {
  if (lines_.empty()) return nullptr;
  const uint32_t tag = Tag(umi);
  for (size_t i = Home(tag);; i = (i + 1) & mask_) {
    TreeNode* line = lines_[i];
    if (!line) return nullptr;
    if (tags_[i] == tag) {
      const MessageNodeInfo* m = MSG_Info(line);
      if (m && m->umi == umi) return line;
    }
  }
}

void UmiIndex::Grow(size_t capacity) {
  std::vector<uint32_t> tags(capacity, 0);
  std::vector<TreeNode*> lines(capacity, nullptr);
  tags_.swap(tags);
  lines_.swap(lines);
  mask_ = capacity - 1;
  for (size_t k = 0; k < lines.size(); ++k) {
    if (!lines[k]) continue;
    size_t i = Home(tags[k]);
    while (lines_[i]) i = (i + 1) & mask_;
    tags_[i] = tags[k];
    lines_[i] = lines[k];
  }
}

void UmiIndex::Reserve(size_t n) {
  size_t capacity = lines_.empty() ? 16 : lines_.size();
  while (n * 5 > capacity * 4) capacity *= 2;
  if (capacity != lines_.size()) Grow(capacity);
}

void UmiIndex::Put(UMI umi, TreeNode* line) {
  if (!line) return;
  Reserve(size_ + 1);
  const uint32_t tag = Tag(umi);
  size_t i = Home(tag);
  for (; lines_[i]; i = (i + 1) & mask_) {
    if (tags_[i] == tag) {
      const MessageNodeInfo* m = MSG_Info(lines_[i]);
      if (m && m->umi == umi) {
        lines_[i] = line;
        return;
      }
    }
  }
  tags_[i] = tag;
  lines_[i] = line;
  ++size_;
}

void UmiIndex::Erase(UMI umi) {
  if (lines_.empty()) return;
  const uint32_t tag = Tag(umi);
  size_t i = Home(tag);
  for (;; i = (i + 1) & mask_) {
    if (!lines_[i]) return;
    if (tags_[i] == tag) {
      const MessageNodeInfo* m = MSG_Info(lines_[i]);
      if (m && m->umi == umi) break;
    }
  }
  // Backward shift: later entries of the run move into the hole when their
  // home doesn't lie between the hole and them.
  size_t hole = i;
  for (size_t j = (hole + 1) & mask_; lines_[j]; j = (j + 1) & mask_) {
    const size_t home = Home(tags_[j]);
    const bool stays = hole <= j ? (home > hole && home <= j) : (home > hole || home <= j);
    if (stays) continue;
    tags_[hole] = tags_[j];
    lines_[hole] = lines_[j];
    hole = j;
  }
  lines_[hole] = nullptr;
  tags_[hole] = 0;
  --size_;
}

void UmiIndex::Clear() {
  tags_.clear();
  tags_.shrink_to_fit();
  lines_.clear();
  lines_.shrink_to_fit();
  size_ = mask_ = 0;
}

std::vector<TreeNode*> UmiIndex::Lines() const {
  std::vector<TreeNode*> out;
  out.reserve(size_);
  for (TreeNode* line : lines_)
    if (line) out.push_back(line);
  return out;
}
