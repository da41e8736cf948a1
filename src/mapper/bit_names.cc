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
  std::uint64_t h = 0, head = 0;  // head: the hash of the first kHead
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c != '0' && c != '1') return;
    h = step(h, c);
    if (i + 1 == kHead) head = h;
  }
  const std::uint64_t key = mix(h, text.size());
  if (contains(key)) return;
  if (2 * (used_ + 1) > table_.size()) {
    fsa::OpenTable<Kept> old;
    std::swap(old, table_);
    table_.reset(old.empty() ? 64 : 2 * old.size());
    for (std::size_t i = 0; i < old.size(); ++i) {
      if (!old[i].empty()) file(old[i].key);
    }
  }
  file(key);
  ++used_;
  if (lengths_.size() * 64 <= text.size()) lengths_.resize(text.size() / 64 + 1, 0);
  lengths_[text.size() / 64] |= std::uint64_t{1} << (text.size() % 64);
  if (text.size() < kHead) return;
  const std::uint64_t mixedHead = mix(head, kHead);
  headHashes_.push_back(mixedHead);
  // Sixteen bits per long name: when they outgrow the bits, the bits double
  // and every head is filed again.
  if (16 * headHashes_.size() <= heads_.size() * 64) {
    setHead(mixedHead);
    return;
  }
  heads_.assign(std::max<std::size_t>(64, 2 * heads_.size()), 0);
  headShift_ = 64;
  for (std::size_t bits = heads_.size() * 64; bits > 1; bits /= 2) --headShift_;
  for (const std::uint64_t k : headHashes_) setHead(k);
}

void BitNames::setHead(std::uint64_t mixedHead) {
  const std::uint64_t bit = (mixedHead * 0x9e3779b97f4a7c15u) >> headShift_;
  heads_[bit / 64] |= std::uint64_t{1} << (bit % 64);
}

bool BitNames::mayHaveHead(std::uint64_t mixedHead) const {
  if (heads_.empty()) return false;
  const std::uint64_t bit = (mixedHead * 0x9e3779b97f4a7c15u) >> headShift_;
  return (heads_[bit / 64] >> (bit % 64)) & 1;
}

void BitNames::file(std::uint64_t key) {
  table_[table_.probe(key, [](const Kept&) { return false; })].key = key;
}

bool BitNames::Lengths::any() const {
  for (const std::uint64_t w : word) {
    if (w != 0) return true;
  }
  return false;
}

BitNames::Lengths BitNames::prefixLengthsOf(const std::string& bits) const {
  Lengths found;
  if (used_ == 0 || bits.size() < 3) return found;
  const std::size_t last = std::min({bits.size() - 1, lengths_.size() * 64 - 1, kMaxBits - 1});
  const auto note = [&found](std::size_t length) {
    found.word[length / 64] |= std::uint64_t{1} << (length % 64);
  };
  // The lengths below kHead, from the first word of lengths_ (kHead < 64).
  const std::uint64_t shortLengths = lengths_[0] & ((std::uint64_t{1} << kHead) - 1);
  std::uint64_t h = step(0, bits[0]);
  std::size_t length = 2;
  const std::size_t end = std::min(last, kHead - 1);
  if (shortLengths == 0) {  // as with networks of addresses: the head alone
    for (; length <= end; ++length) h = step(h, bits[length - 1]);
  }
  for (; length <= end; ++length) {
    h = step(h, bits[length - 1]);
    if (((shortLengths >> length) & 1) != 0 && contains(mix(h, length))) note(length);
  }
  if (length > last) return found;
  // From kHead on, only an address whose head some long name has.
  h = step(h, bits[length - 1]);
  if (!mayHaveHead(mix(h, kHead))) return found;
  for (;;) {
    if (hasLength(length) && contains(mix(h, length))) note(length);
    if (++length > last) return found;
    h = step(h, bits[length - 1]);
  }
}

}  // namespace tpa::mapper
