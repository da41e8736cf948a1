#include "mapper/bit_names.h"

#include <algorithm>

namespace tpa::mapper {

std::uint64_t BitNames::mix(std::uint64_t h, std::size_t length) {
  h ^= length * 0x9e3779b97f4a7c15u;
  h *= 0xbf58476d1ce4e5b9u;
  h ^= h >> 31;
  return h == 0 ? 1 : h;
}

void BitNames::add(const std::string& text) {
  if (text.size() < 2) return;
  std::uint64_t h = 0;
  for (const char c : text) {
    if (c != '0' && c != '1') return;
    h = step(h, c);
  }
  const std::uint64_t key = mix(h, text.size());
  if (2 * (used_ + 1) > table_.size()) {
    std::vector<std::uint64_t> old(table_.empty() ? 64 : 2 * table_.size(), 0);
    old.swap(table_);
    for (const std::uint64_t k : old) {
      std::size_t i = k & (table_.size() - 1);
      while (table_[i] != 0) i = (i + 1) & (table_.size() - 1);
      table_[i] = k;
    }
  }
  std::size_t i = key & (table_.size() - 1);
  for (; table_[i] != 0; i = (i + 1) & (table_.size() - 1)) {
    if (table_[i] == key) return;
  }
  table_[i] = key;
  ++used_;
  if (lengths_.size() <= text.size()) lengths_.resize(text.size() + 1);
  lengths_[text.size()] = true;
}

bool BitNames::contains(std::uint64_t key) const {
  for (std::size_t i = key & (table_.size() - 1);; i = (i + 1) & (table_.size() - 1)) {
    if (table_[i] == key) return true;
    if (table_[i] == 0) return false;
  }
}

bool BitNames::anyPrefixOf(const std::string& bits) const {
  if (used_ == 0 || bits.size() < 3) return false;
  const std::size_t last = std::min(bits.size() - 1, lengths_.size() - 1);
  std::uint64_t h = step(0, bits[0]);
  for (std::size_t length = 2; length <= last; ++length) {
    h = step(h, bits[length - 1]);
    if (lengths_[length] && contains(mix(h, length))) return true;
  }
  return false;
}

}  // namespace tpa::mapper
