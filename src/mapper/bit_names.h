// BitNames: the stored destinations of one domain machine that are bit
// strings (two or more '0' and '1' characters, as every network identifier
// is): the only texts a network-prefix search can end on. An address none of
// whose bit prefixes is one needs no search of its bits. Filled while a Map
// is put, then only read: const members may run concurrently. Owns its
// table.
#ifndef TPA_MAPPER_BIT_NAMES_H_
#define TPA_MAPPER_BIT_NAMES_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fsa/open_table.h"

namespace tpa::mapper {

class BitNames {
 public:
  // Keeps `text` if it is such a string. Throws std::bad_alloc.
  void add(const std::string& text);
  // The lengths of the kept strings that are prefixes of `bits` (a bit
  // string of at most kMaxBits characters), 2 to size - 1 characters (or
  // that share a kept one's hash), a bit each.
  static constexpr std::size_t kMaxBits = 128;
  struct Lengths {
    std::uint64_t word[kMaxBits / 64] = {};
    bool has(std::size_t length) const { return (word[length / 64] >> (length % 64)) & 1; }
    bool any() const;
  };
  Lengths prefixLengthsOf(const std::string& bits) const;

 private:
  // Names of at least kHead characters are filed under the hash of their
  // first kHead too, a bit each: an address whose first kHead bits are no
  // kept name's is passed over after one bit test.
  static constexpr std::size_t kHead = 24;

  static std::uint64_t step(std::uint64_t h, char c) {
    return h * 0x100000001b3u + static_cast<unsigned char>(c);
  }
  static std::uint64_t mix(std::uint64_t h, std::size_t length);
  bool contains(std::uint64_t key) const {
    return !table_.empty() &&
           !table_[table_.probe(key, [key](const Kept& k) { return k.key == key; })].empty();
  }
  void file(std::uint64_t key);  // into a free slot; the key is not there yet
  bool hasLength(std::size_t length) const {
    return length < lengths_.size() * 64 && ((lengths_[length / 64] >> (length % 64)) & 1);
  }
  // Whether some kept name of at least kHead characters may start with the
  // head whose mixed hash is `mixedHead`.
  bool mayHaveHead(std::uint64_t mixedHead) const;
  void setHead(std::uint64_t mixedHead);

  struct Kept {
    std::uint64_t key;  // a mixed hash, never 0; 0: empty
    bool empty() const { return key == 0; }
  };
  // Mixed hashes of the kept strings with their lengths, a table at most
  // half full; the lengths kept, a bit each; the mixed hashes of the heads of
  // the kept names of kHead or more, and a bit per head (the top bits of its
  // hash, remixed), at least sixteen bits per head, a power of two (empty
  // while there is none).
  fsa::OpenTable<Kept> table_;
  std::size_t used_ = 0;
  std::vector<std::uint64_t> lengths_;
  std::vector<std::uint64_t> headHashes_;
  std::vector<std::uint64_t> heads_;
  unsigned headShift_ = 64;  // 64 - log2 of the bits of heads_
};

}  // namespace tpa::mapper

#endif  // TPA_MAPPER_BIT_NAMES_H_
