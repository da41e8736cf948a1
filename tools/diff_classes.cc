#include "tools/diff_classes.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <string_view>

#include "cidr/address_bits.h"
#include "cidr/cidr.h"
#include "mapper/map.h"
#include "mapper/transform.h"
#include "tpa/api/constants.h"

namespace tpa::tools {
namespace {

// The characters that frame a stored key's name: kOpen NAME kClose.
const char kOpen = sigma::sentinel::PRECEDING_SYMBOL;
const char kClose = sigma::sentinel::SUCCEEDING_SYMBOL;

// The first label of the names made up to stand for a class.
constexpr char kProbe[] = "tpa-probe";

// Files the stems of `key` (a key of the machine whose flag is `flag`) under
// every rule number r whose queries, framed "$" r flag, can end at one of its
// '$'s.
void addKey(DocumentKeys& keys, const std::string& key, char flag) {
  for (std::size_t dollar = key.find(kClose); dollar != std::string::npos;
       dollar = key.find(kClose, dollar + 1)) {
    const std::string_view tail = std::string_view(key).substr(dollar + 1);
    for (std::size_t k = 1; k < tail.size(); ++k) {
      int rule = 0;
      if (tail[k] == flag && mapper::readRuleNumber(tail.substr(0, k), rule)) {
        keys.stems[rule].push_back(key.substr(0, dollar));
      }
    }
    for (std::size_t star = key.find('*'); star < dollar; star = key.find('*', star + 1)) {
      keys.wildcards.insert(key.substr(star + 1, dollar - star - 1));
    }
  }
}

void addList(DocumentKeys& keys, const std::vector<std::string>& list, int rule, bool include) {
  std::string text;
  for (const std::string& entry : list) {
    mapper::storedDestination(entry, text);
    addKey(keys, mapper::transformDomain(text, rule, include ? 1 : 0), include ? '1' : '0');
    if (text.size() >= 2 && cidr::isBitString(text)) keys.networks[rule].push_back(text);
  }
}

void sortUnique(std::unordered_map<int, std::vector<std::string>>& lists) {
  for (auto& [rule, list] : lists) {
    std::sort(list.begin(), list.end());
    list.erase(std::unique(list.begin(), list.end()), list.end());
  }
}

// The address `bits` (32 or 128 of them) as people write it.
std::string addressText(const std::string& bits) {
  const bool ipv4 = bits.size() == static_cast<std::size_t>(cidr::kIPv4Bits);
  return cidr::bitsToAddress(bits, ipv4 ? cidr::kIPv4Bits : cidr::kIPv6Bits);
}

// A stored address's fixed-width text as people write it; other text as it is.
std::string plainAddress(const std::string& stored) {
  const std::string bits = cidr::convertToBinaryIPAddress(stored);
  return bits.empty() ? stored : addressText(bits);
}

// For each wildcard text Z of at most `longest` characters that ends `text`:
// Z and the character before it (which tells whether a longer stored ending
// hides Z; `whole` where Z is all of `text`), then `separator`. And the last
// of them, the longest such ending, for people.
std::pair<std::string, std::string> wildcardSignature(
    const std::string& text, const std::unordered_set<std::string>& wildcards, std::size_t longest,
    std::string_view whole, char separator) {
  std::string sig, ending;
  for (std::size_t n = 0; n <= longest && n <= text.size(); ++n) {
    const std::string z = text.substr(text.size() - n);
    if (wildcards.count(z) == 0) continue;
    ending = (n < text.size() ? text.substr(text.size() - n - 1, 1) : std::string(whole)) + z;
    sig += ending + separator;
  }
  return {sig, ending};
}

class NameClasses : public ClassSet {
 public:
  // A stored address is decided by the networks too: the base's stored
  // addresses that the group's own networks hold are its own classes.
  NameClasses(const KeySelection& own, const NameClasses* base,
              const std::unordered_set<std::string>& wildcards)
      : base_(base), wildcards_(wildcards) {
    add("");
    for (const std::vector<std::string>* stems : own.stems) {
      for (const std::string& stem : *stems) addEndings(stem);
    }
    if (base != nullptr) {
      for (const std::string& name : base->addresses_) {
        if (inOwnNetwork(own, name)) add(name);
      }
    }
    for (DestinationClass& c : classes_) describe(c);
    joinAlike();
  }

  bool taken(const std::string& key) const override {
    return index_.count(key) != 0 || (base_ != nullptr && base_->taken(key));
  }

  int owner(const DestinationClass& base) const override {
    const std::string& baseKey = base.key;
    if (index_.count(baseKey) != 0) return -1;
    for (std::size_t i = 1; i <= baseKey.size(); ++i) {
      const auto it = index_.find(baseKey.substr(i));
      if (it != index_.end()) return it->second;
    }
    return -1;
  }

 private:
  // Whether a network of `own` holds the stored address "#" name: only
  // then can the group's own rule decide it otherwise than its endings do.
  static bool inOwnNetwork(const KeySelection& own, const std::string& framed) {
    const std::string bits = cidr::convertToBinaryIPAddress(framed.substr(1));
    for (const std::vector<std::string>* networks : own.networks) {
      for (const std::string& n : *networks) {
        if (n.size() < bits.size() && bits.compare(0, n.size(), n) == 0) return true;
      }
    }
    return false;
  }

  bool add(const std::string& ending) {
    if (!index_.emplace(ending, static_cast<int>(classes_.size())).second) return false;
    classes_.push_back({ending, "ending", "", "", "", true, false});
    return true;
  }

  // Longest first: once an ending is known, so are all shorter ones.
  void addEndings(const std::string& stem) {
    for (std::size_t i = 0; i < stem.size(); ++i) {
      if (!add(stem.substr(i))) return;
    }
  }

  void describe(DestinationClass& c) {
    c.hasBase = base_ != nullptr && base_->taken(c.key);
    if (!c.key.empty() && c.key[0] == kOpen) {
      const std::string name = c.key.substr(1);
      const bool address = cidr::isIPAddress(name);
      c.kind = "name";
      if (address) addresses_.push_back(c.key);
      c.example = address ? plainAddress(name) : name;
      const int width = cidr::isIPv4Address(name) ? cidr::kIPv4Bits : cidr::kIPv6Bits;
      c.pattern = address ? c.example + "/" + std::to_string(width) : name;
      return;
    }
    c.pattern = "*" + c.key;
    c.example = exampleOf(c.key);
  }

  // A name whose longest stored ending is `ending`: one whose character
  // before it makes no stored ending; "" when every character does.
  std::string exampleOf(const std::string& ending) const {
    const std::string probe = kProbe;
    if (!ending.empty() && ending[0] == '.' && fits(probe, ending)) return probe + ending;
    if (fits(probe + ".", ending)) return probe + "." + ending;
    if (!ending.empty() && fits("", ending)) return ending;
    for (int c = 1; c < 256; ++c) {
      const std::string prefix = probe + static_cast<char>(c);
      if (c != kOpen && fits(prefix, ending)) return prefix + ending;
    }
    return "";
  }

  // Whether the name `prefix` `ending` falls in the class of `ending`.
  bool fits(const std::string& prefix, const std::string& ending) const {
    const char before = prefix.empty() ? kOpen : prefix.back();
    return !taken(before + ending) && !cidr::isIPAddress(prefix + ending);
  }

  // Endings that meet the same wildcard texts the same way: for each text
  // Z that follows a '*' of a stem and ends the ending, Z and the character
  // before it (whether a longer stored ending hides Z from the wildcard).
  // Then a search ends on the same stored key, or on none, in every machine
  // and under every rule number, and so does every decision. Endings with a
  // '$' (a name with the framing character) stand alone, as do names.
  void joinAlike() {
    std::unordered_map<std::string, int> first;  // signature -> its first class
    std::unordered_map<int, std::string> shown;  // such a first class -> its ending
    for (std::size_t i = 0; i < classes_.size(); ++i) {
      DestinationClass& c = classes_[i];
      if (c.kind != "ending" || c.key.find(kClose) != std::string::npos) continue;
      const auto [sig, ending] = signature(c.key);
      const auto [it, fresh] = first.emplace(sig, static_cast<int>(i));
      if (fresh) continue;
      c.sameAs = it->second;
      shown[it->second] = ending;
    }
    for (const auto& [i, ending] : shown) classes_[i].pattern = "*" + ending;
  }

  // A '#' stands before Z when Z is the whole ending (then no other ending
  // shares the signature); the ending shown goes without it.
  std::pair<std::string, std::string> signature(const std::string& ending) const {
    auto [sig, shown] =
        wildcardSignature(ending, wildcards_, ending.size(), std::string(1, kOpen), '\n');
    if (!shown.empty() && shown[0] == kOpen) shown.erase(0, 1);
    return {sig, shown};
  }

  const NameClasses* base_;
  const std::unordered_set<std::string>& wildcards_;
  std::unordered_map<std::string, int> index_;  // ending -> its class
  std::vector<std::string> addresses_;          // the endings that are stored addresses
};

class NetworkClasses : public ClassSet {
 public:
  NetworkClasses(const KeySelection& own, int width, const ClassSet* base, const ClassSet& names,
                 const std::unordered_set<std::string>& wildcards)
      : width_(width), names_(names) {
    const char* textCharacters = width == cidr::kIPv4Bits ? "0123456789." : "0123456789abcdef:";
    for (const std::string& z : wildcards) {  // those that can end an address's text
      if (z.find_first_not_of(textCharacters) != std::string::npos) continue;
      wildcards_.insert(z);
      maxWildcard_ = std::max(maxWildcard_, z.size());
    }
    trie_.insert("");
    for (const std::vector<std::string>* networks : own.networks) {
      for (const std::string& bits : *networks) {
        if (static_cast<int>(bits.size()) >= width_) continue;  // no run that long is a network
        for (std::size_t n = 1; n <= bits.size(); ++n) trie_.insert(bits.substr(0, n));
      }
    }
    for (const std::string& node : trie_) {
      if (static_cast<int>(node.size()) >= width_) continue;
      for (const char bit : {'0', '1'}) addRegion(node + bit, base);
    }
  }

  bool taken(const std::string& key) const override { return trie_.count(key) != 0; }

  // The network that holds the base network, in the variant of the base
  // example's ending (a key is "BITS|ENDING").
  int owner(const DestinationClass& base) const override {
    const std::string bits = base.key.substr(0, base.key.find('|'));
    if (index_.count(bits) != 0) return -1;
    for (std::size_t n = bits.size(); n-- > 1;) {
      const auto it = index_.find(bits.substr(0, n));
      if (it == index_.end()) continue;
      const std::string ending = signature(storedText(base.example)).first;
      const auto variant = variants_.find(bits.substr(0, n) + "|" + ending);
      return variant != variants_.end() ? variant->second : it->second;
    }
    return -1;
  }

 private:
  // A network, cut by the endings of its addresses' fixed-width text (a
  // stored "*" matches only the addresses whose text ends in no other stored
  // ending).
  void addRegion(const std::string& bits, const ClassSet* base) {
    if (trie_.count(bits) != 0) return;
    DestinationClass c;
    c.key = bits;
    c.kind = "network";
    c.hasBase = base != nullptr && base->taken(bits);
    c.joint = !c.hasBase;
    c.pattern = addressText(padded(bits, '0')) + "/" + std::to_string(bits.size());
    index_.emplace(bits, static_cast<int>(classes_.size()));
    for (auto& [sig, example] : examplesByEnding(bits)) {
      c.key = bits + "|" + sig;
      c.ending = example.first;
      c.example = example.second;
      variants_.emplace(c.key, static_cast<int>(classes_.size()));
      classes_.push_back(c);
    }
  }

  std::string padded(const std::string& bits, char fill) const {
    std::string out = bits;
    for (std::size_t i = out.size(); static_cast<int>(i) < width_; ++i) {
      out += fill == 'a' ? "01"[i % 2] : fill;
    }
    return out;
  }

  // One address of the network for each way its text can end where a
  // wildcard could match it (signature -> its ending and the address), as
  // the free bits of the last byte run through their values; none that is a
  // stored address. Without such wildcards the first address that is not
  // stored stands for the whole network.
  std::map<std::string, std::pair<std::string, std::string>> examplesByEnding(
      const std::string& bits) const {
    std::map<std::string, std::pair<std::string, std::string>> examples;
    std::string address = padded(bits, 'a');
    std::string text = storedText(addressText(address));
    const int free = std::min(8, width_ - static_cast<int>(bits.size()));
    const int mask = (1 << free) - 1, first = lastByte(address);
    for (int k = 0; k <= mask; ++k) {
      if (wildcards_.empty() && !examples.empty()) break;
      setLastByte(address, text, (first & ~mask) | ((first + k) & mask));
      if (names_.taken(kOpen + text)) continue;  // a stored address: a name class
      auto [sig, ending] = signature(text);
      if (examples.count(sig) == 0) examples.emplace(sig, std::make_pair(ending, addressText(address)));
    }
    return examples;
  }

  int lastByte(const std::string& address) const {
    int value = 0;
    for (int i = width_ - 8; i < width_; ++i) value = value * 2 + (address[i] == '1');
    return value;
  }

  std::pair<std::string, std::string> signature(const std::string& text) const {
    return wildcardSignature(text, wildcards_, maxWildcard_, "", '|');
  }

  // Sets the last byte of `address` (bits) and of its fixed-width `text`.
  void setLastByte(std::string& address, std::string& text, int value) const {
    static constexpr char kHex[] = "0123456789abcdef";
    for (int i = 0; i < 8; ++i) address[width_ - 1 - i] = (value >> i) & 1 ? '1' : '0';
    if (width_ == cidr::kIPv4Bits) {
      text[text.size() - 3] = static_cast<char>('0' + value / 100);
      text[text.size() - 2] = static_cast<char>('0' + value / 10 % 10);
      text[text.size() - 1] = static_cast<char>('0' + value % 10);
    } else {
      text[text.size() - 2] = kHex[value >> 4];
      text[text.size() - 1] = kHex[value & 15];
    }
  }

  static std::string storedText(const std::string& address) {
    std::string text;
    mapper::storedDestination(address, text);
    return text;
  }

  int width_;
  const ClassSet& names_;
  std::unordered_set<std::string> wildcards_;  // wildcard texts an address text can end in
  std::size_t maxWildcard_ = 0;                // the longest of them
  std::unordered_set<std::string> trie_;        // every prefix of the networks, "" too
  std::unordered_map<std::string, int> index_;     // network bits -> its first class
  std::unordered_map<std::string, int> variants_;  // "BITS|ENDING" -> its class
};

}  // namespace

DocumentKeys storedKeys(const std::vector<parser::Rule>& rules) {
  DocumentKeys keys;
  for (std::size_t i = 0; i < rules.size(); ++i) {
    const parser::Rule& rule = rules[i];
    // The reader's number is the one the map files the destinations under.
    const int number = parser::ruleNumber(rule.apps, static_cast<int>(i + 1));
    addList(keys, rule.includeList, number, true);
    addList(keys, rule.excludeList, number, false);
  }
  sortUnique(keys.stems);
  sortUnique(keys.networks);
  return keys;
}

std::unique_ptr<ClassSet> nameClasses(const KeySelection& own, const ClassSet* base,
                                      const std::unordered_set<std::string>& wildcards) {
  return std::make_unique<NameClasses>(own, static_cast<const NameClasses*>(base), wildcards);
}

std::unique_ptr<ClassSet> networkClasses(const KeySelection& own, int width, const ClassSet* base,
                                         const ClassSet& names,
                                         const std::unordered_set<std::string>& wildcards) {
  return std::make_unique<NetworkClasses>(own, width, base, names, wildcards);
}

}  // namespace tpa::tools
