#include "marisa_matcher.h"

#include <marisa/agent.h>
#include <marisa/keyset.h>

#include <algorithm>

namespace tpa::bench {

namespace {

constexpr int kUnset = -2;

void appendPrefix(std::string& key, int rule, char flag) {
  char digits[12];
  int n = 0;
  do {
    digits[n++] = static_cast<char>('0' + rule % 10);
    rule /= 10;
  } while (rule > 0);
  while (n > 0) key += digits[--n];
  key += '|';
  key += flag;
}

void appendReversed(std::string& key, std::string_view s) { key.append(s.rbegin(), s.rend()); }

void appendBits(std::string& key, const Destination& d, int bits) {
  for (int i = 0; i < bits; ++i) key += ((d.address[i / 8] >> (7 - i % 8)) & 1u) ? '1' : '0';
}

// The trie key of a list entry (see the class comment).
std::string entryKey(const Destination& d, int rule, char flag) {
  std::string key;
  appendPrefix(key, rule, flag);
  switch (d.kind) {
    case Destination::kDomain:
    case Destination::kWildcard:
      key += 'n';
      appendReversed(key, d.text);
      break;
    case Destination::kIPv4:
      key += '4';
      appendBits(key, d, 32);
      key += 'x';
      break;
    case Destination::kIPv6:
      key += '6';
      appendBits(key, d, 128);
      key += 'x';
      break;
    case Destination::kIPv4Net:
      key += '4';
      appendBits(key, d, d.prefix);
      break;
    case Destination::kIPv6Net:
      key += '6';
      appendBits(key, d, d.prefix);
      break;
  }
  return key;
}

// Builds `trie` over `keys` and lays `values` out by key id; the first value
// given for a key wins.
void buildTrie(marisa::Trie& trie, const std::vector<std::string>& keys,
               const std::vector<int>& values, std::vector<int>& byId) {
  marisa::Keyset keyset;
  for (const std::string& k : keys) keyset.push_back(k.data(), k.size());
  trie.build(keyset);
  byId.assign(trie.num_keys(), kUnset);
  for (std::size_t i = 0; i < keyset.size(); ++i) {
    int& slot = byId[keyset[i].id()];
    if (slot == kUnset) slot = values[i];
  }
}

}  // namespace

MarisaMatcher::MarisaMatcher() : agent_(std::make_unique<marisa::Agent>()) {}
MarisaMatcher::~MarisaMatcher() = default;

void MarisaMatcher::build(const RuleSet& rules) {
  std::vector<std::string> appKeys, destinationKeys;
  std::vector<int> appValues, destinationValues;
  for (std::size_t i = 0; i < rules.rules.size(); ++i) {
    const DocumentRule& r = rules.rules[i];
    const int number = ruleNumberOf(r.apps.empty(), i);
    for (const std::string& a : r.apps) {
      appKeys.push_back(a);
      appValues.push_back(number);
    }
    for (const std::string& d : r.include) {
      destinationKeys.push_back(entryKey(parseDestination(d), number, '1'));
      destinationValues.push_back(r.id);
    }
    for (const std::string& d : r.exclude) {
      destinationKeys.push_back(entryKey(parseDestination(d), number, '0'));
      destinationValues.push_back(r.id);
    }
  }
  buildTrie(apps_, appKeys, appValues, appRules_);
  buildTrie(destinations_, destinationKeys, destinationValues, values_);
}

std::size_t MarisaMatcher::sizeInBytes() const {
  return apps_.io_size() + destinations_.io_size() +
         (appRules_.size() + values_.size()) * sizeof(int);
}

ListHit MarisaMatcher::find(const Destination& d, int rule, char flag) {
  key_.clear();
  appendPrefix(key_, rule, flag);
  const std::size_t base = key_.size() + 1;
  const int digits = decimalDigits(rule);
  const bool name = d.kind == Destination::kDomain;
  if (name) {
    key_ += 'n';
    appendReversed(key_, d.text);
  } else {
    const int bits = d.kind == Destination::kIPv4 ? 32 : 128;
    key_ += d.kind == Destination::kIPv4 ? '4' : '6';
    appendBits(key_, d, bits);
    key_ += 'x';
  }
  agent_->set_query(key_.data(), key_.size());
  std::size_t longest = 0;  // the longest partial (wildcard or network) key
  int longestId = -1;
  while (destinations_.common_prefix_search(*agent_)) {
    const std::size_t length = agent_->key().length();
    const int id = static_cast<int>(agent_->key().id());
    if (length == key_.size()) {
      const int nameLength =
          name ? static_cast<int>(d.text.size())
               : (d.kind == Destination::kIPv4 ? kIPv4TextLength : kIPv6TextLength);
      return exactHit(nameLength, digits, values_[id]);
    }
    if (length > base && (!name || key_[length - 1] == '.')) {
      longest = length;
      longestId = id;
    }
  }
  if (longestId < 0) return {};
  const int partial = static_cast<int>(longest - base);
  return name ? wildcardHit(partial, digits, values_[longestId])
              : exactHit(partial, digits, values_[longestId]);
}

bool MarisaMatcher::lookup(const Destination& d, int rule, Answer& out) {
  const ListHit in = find(d, rule, '1');
  const ListHit ex = find(d, rule, '0');
  return weigh(in, ex, out);
}

Answer MarisaMatcher::query(std::string_view app, std::string_view destination) {
  agent_->set_query(app.data(), app.size());
  const int rule = apps_.lookup(*agent_) ? appRules_[agent_->key().id()] : 0;
  const Destination d = parseQuery(destination);
  return answerWithFallback(rule, [&](int r, Answer& out) { return lookup(d, r, out); });
}

}  // namespace tpa::bench
