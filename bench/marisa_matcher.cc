#include "marisa_matcher.h"

#include <cassert>

namespace tpa::bench {

MarisaNames::MarisaNames() : agent_(std::make_unique<marisa::Agent>()) {}
MarisaNames::~MarisaNames() = default;
MarisaNames::MarisaNames(MarisaNames&&) noexcept = default;
MarisaNames& MarisaNames::operator=(MarisaNames&&) noexcept = default;

void MarisaNames::add(int rule, std::string_view name, bool wildcard, Verdict v) {
  if (rule == 0) return add(any_, name, wildcard, v);
  if (rule != current_.rule) build(current_);
  current_.rule = rule;
  add(current_, name, wildcard, v);
}

void MarisaNames::add(Batch& batch, std::string_view name, bool wildcard, Verdict v) {
  batch.names.push_back({static_cast<std::uint32_t>(batch.reversed.size()),
                         static_cast<std::uint32_t>(name.size()), wildcard, v});
  batch.reversed.append(name.rbegin(), name.rend());
}

void MarisaNames::finish() {
  any_.rule = 0;
  build(any_);
  build(current_);
  any_ = Batch();
  current_ = Batch();
}

void MarisaNames::build(Batch& batch) {
  if (batch.names.empty()) return;
  const auto rule = static_cast<std::size_t>(batch.rule);
  if (scopes_.size() <= rule) scopes_.resize(rule + 1);
  Scope& s = scopes_[rule];
  assert(!s.trie && "a rule number's names come together");
  marisa::Keyset keys;
  for (const Batch::Name& n : batch.names) keys.push_back(batch.reversed.data() + n.offset, n.length);
  s.trie = std::make_unique<marisa::Trie>();
  // One trie level and a large cache: several times faster on these small
  // tries than the default three levels, and no bigger.
  s.trie->build(keys, MARISA_HUGE_CACHE | 1);
  s.forms.assign(s.trie->num_keys(), Forms());
  // A name listed twice shares one key id: its verdicts merge.
  for (std::size_t i = 0; i < keys.size(); ++i) {
    const Batch::Name& n = batch.names[i];
    Forms& f = s.forms[keys[i].id()];
    (n.wildcard ? f.wildcard : f.exact).merge(n.verdict);
  }
  batch.names.clear();
  batch.reversed.clear();
  batch.rule = -1;
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
  // the most specific. A prefix is a parent suffix when a dot follows it.
  Verdict best;
  while (s.trie->common_prefix_search(*agent_)) {
    const std::size_t length = agent_->key().length();
    const Forms& f = s.forms[agent_->key().id()];
    if (length == key.size()) {
      if (f.exact.found()) return f.exact;
    } else if (key[length] == '.' && f.wildcard.found()) {
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
