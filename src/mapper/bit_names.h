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

namespace tpa::mapper {

class BitNames {
 public:
  // Keeps `text` if it is such a string. Throws std::bad_alloc.
  void add(const std::string& text);
  // Whether some prefix of `bits` (a bit string) of 2 to size - 1 characters
  // is kept (or shares a kept one's hash).
  bool anyPrefixOf(const std::string& bits) const;

 private:
  static std::uint64_t step(std::uint64_t h, char c) {
    return h * 0x100000001b3u + static_cast<unsigned char>(c);
  }
  static std::uint64_t mix(std::uint64_t h, std::size_t length);
  bool contains(std::uint64_t key) const;

  // Mixed hashes of the kept strings with their lengths, a power-of-two
  // table at most half full (0: empty), and the lengths kept.
  std::vector<std::uint64_t> table_;
  std::size_t used_ = 0;
  std::vector<bool> lengths_;
};

}  // namespace tpa::mapper

#endif  // TPA_MAPPER_BIT_NAMES_H_
