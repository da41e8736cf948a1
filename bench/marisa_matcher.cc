#include "marisa_matcher.h"

#include <algorithm>

namespace tpa::bench {

MarisaNames::MarisaNames() : agent_(std::make_unique<marisa::Agent>()) {}
MarisaNames::~MarisaNames() = default;
MarisaNames::MarisaNames(MarisaNames&&) noexcept = default;
MarisaNames& MarisaNames::operator=(MarisaNames&&) noexcept = default;

void MarisaNames::add(int rule, std::string_view name, bool wildcard, Verdict v) {
  if (scopes_.size() <= static_cast<std::size_t>(rule)) scopes_.resize(rule + 1);
  Scope& s = scopes_[rule];
  reversed_.assign(name.rbegin(), name.rend());
  if (!s.keys) s.keys = std::make_unique<marisa::Keyset>();
  s.keys->push_back(reversed_.data(), reversed_.size());
  Forms forms;
  (wildcard ? forms.wildcard : forms.exact) = v;
  s.pending.push_back(forms);
}

void MarisaNames::finish() {
  for (Scope& s : scopes_) {
    if (!s.keys) continue;
    s.trie = std::make_unique<marisa::Trie>();
    s.trie->build(*s.keys, MARISA_HUGE_CACHE | 1);
    s.forms.assign(s.trie->num_keys(), Forms());
    // A name listed twice shares one key id: its verdicts merge.
    for (std::size_t i = 0; i < s.keys->size(); ++i) {
      Forms& f = s.forms[(*s.keys)[i].id()];
      f.exact.merge(s.pending[i].exact);
      f.wildcard.merge(s.pending[i].wildcard);
    }
    s.keys.reset();
    std::vector<Forms>().swap(s.pending);
  }
}

void MarisaNames::prepare(std::string_view name, Query& q) const {
  reversed_.assign(name.rbegin(), name.rend());
  q.reversed = reversed_;
}

Verdict MarisaNames::find(int rule, const Query& q) const {
  if (static_cast<std::size_t>(rule) >= scopes_.size() || !scopes_[rule].trie) return {};
  const Scope& s = scopes_[rule];
  const std::string_view key = q.reversed;
  agent_->set_query(key.data(), key.size());
  // Prefixes come shortest first: the last one with a verdict of its form is
  // the most specific. A prefix is a parent suffix when a dot follows it
  // (and that dot is not the name's first byte).
  Verdict best;
  while (s.trie->common_prefix_search(*agent_)) {
    const std::size_t length = agent_->key().length();
    const Forms& f = s.forms[agent_->key().id()];
    if (length == key.size()) {
      if (f.exact.found()) return f.exact;
    } else if (length + 1 < key.size() && key[length] == '.' && f.wildcard.found()) {
      best = f.wildcard;
    }
  }
  return best;
}

std::size_t MarisaNames::bytes() const {
  std::size_t n = scopes_.capacity() * sizeof(Scope);
  for (const Scope& s : scopes_) {
    if (s.trie) n += s.trie->io_size() + s.forms.capacity() * sizeof(Forms);
  }
  return n;
}

}  // namespace tpa::bench
