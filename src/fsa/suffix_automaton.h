// SuffixAutomaton: the suffix automaton of one growing text, built online a
// character at a time (the classic Blumer et al. construction with cloning),
// into which a keyed machine appends every framed key it is given.
//
// Cost model: all 2n states are allocated once by construct(n) in zero-filled
// blocks (pages of states never used are never made resident): a state's
// length and link sit in the transition store's record beside its transition
// head (16 bytes with CompactTransitions, the default), so that a step or a
// suffix-link fallback reads one record; its value (8 bytes) sits apart, read
// once per lookup. extend is amortised O(1) store operations; lookups are
// linear in the query plus amortised suffix-link steps and allocate nothing.
// Once nothing more will be appended, freeze() trades the online states for
// their read-only form (FrozenAutomaton), several times smaller, answering
// every lookup as they did, and hands it to the caller: this class is the
// automaton while it is built, and a built one is read as a FrozenAutomaton.
// An automaton constructed kFromText never builds the online states: it keeps
// the text and its key ends (1 byte per character, 12 per key) and finish()
// makes the read-only form straight from them, at a peak of about 11 bytes
// per character beside the text (SA-IS, then the walks' packed suffix array
// and LCP array with the frozen form being filled beside them). Owns its
// states, transitions and text. Not thread-safe: callers serialise every
// access.
#ifndef TPA_FSA_SUFFIX_AUTOMATON_H_
#define TPA_FSA_SUFFIX_AUTOMATON_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include "base/log.h"
#include "fsa/compact_transitions.h"
#include "fsa/frozen_automaton.h"
#include "fsa/pod_array.h"
#include "tpa/api/constants.h"

namespace tpa::fsa {

// What a state stores and what every lookup returns: the length of the key
// whose last character created the state (0 for any other state) and the
// value given with that key (SA_DEFAULT_USER_DEFINED_VALUE otherwise).
template <typename T>
class SAStateValue {
 public:
  SAStateValue() : storedKeyLength_(0), userDefinedValue_(SA_DEFAULT_USER_DEFINED_VALUE) {}
  SAStateValue(int storedKeyLength, T userDefinedValue)
      : storedKeyLength_(storedKeyLength), userDefinedValue_(userDefinedValue) {}

  int storedKeyLength() const { return storedKeyLength_; }
  T userDefinedValue() const { return userDefinedValue_; }

  bool operator==(const SAStateValue& o) const {
    return storedKeyLength_ == o.storedKeyLength_ && userDefinedValue_ == o.userDefinedValue_;
  }
  bool operator!=(const SAStateValue& o) const { return !(*this == o); }

 private:
  int storedKeyLength_;
  T userDefinedValue_;
};

// A state as the read-only views show it: its length, its link and its value.
template <typename T>
class SAState {
 public:
  SAState(int length, int link, SAStateValue<T> value)
      : length_(length), link_(link), value_(value) {}

  int length() const { return length_; }
  int link() const { return link_; }
  SAStateValue<T> value() const { return value_; }

 private:
  int length_;  // longest string ending here; > length of the link target
  int link_;    // -1 only for the start state (or a state left by a failed clone)
  SAStateValue<T> value_;
};

// What a step needs of a state, kept by the transition store beside the
// state's transitions. All-zero is length 0, link -1.
struct StateLinks {
  std::int32_t length;
  std::int32_t linkBits;  // ~link
};

// How an automaton is made: online, a character at a time, or from its whole
// text once every key is in (finish).
enum class Construction { kOnline, kFromText };

template <typename T, template <typename> class Store = CompactTransitions>
class SuffixAutomaton {
  static_assert(std::is_integral_v<T> && sizeof(T) <= sizeof(std::int32_t),
                "state values are stored in 32 bits");

 public:
  using Transitions = Store<StateLinks>;

  SuffixAutomaton() = default;
  SuffixAutomaton(const SuffixAutomaton&) = delete;
  SuffixAutomaton& operator=(const SuffixAutomaton&) = delete;

  // Allocates 2k default states, k = n or 3 when n < 2, replacing any
  // previous ones. last and count are kept (a fresh automaton has 0 and 1).
  // A length whose states cannot be counted in an int allocates nothing.
  // kFromText allocates no states but room for the text of n characters,
  // and may throw std::bad_alloc.
  void construct(int n, Construction how = Construction::kOnline) {
    const int k = n < 2 ? 3 : n;
    requestedLength_ = k;
    capacity_ = k <= INT32_MAX / 2 ? 2 * k : 0;
    frozen_ = false;
    values_.reset();
    collected_.reset();
    if (how == Construction::kFromText) {
      if (capacity_ == 0) return;  // seen as "not allocated" by add
      collected_ = std::make_unique<Collected>();
      collected_->text.reserve(static_cast<std::size_t>(k));
      return;
    }
    if (capacity_ == 0 || !values_.allocateZeroed(static_cast<std::size_t>(capacity_)) ||
        !transitions_.allocate(capacity_)) {
      values_.reset();  // seen as "not allocated" by add
      capacity_ = 0;
      return;
    }
    if (last_ < capacity_) {  // already zero, hence default, in fresh blocks
      transitions_.payload(last_) = StateLinks{};
      values_[static_cast<std::size_t>(last_)] = StoredValue{};
    }
  }

  // Appends every character of `key`; the last one carries (key length,
  // userDefinedValue). Returns 0, -1 when nothing is allocated, or the first
  // failing extend's code (what was appended before stays).
  [[nodiscard]] int add(const std::string& key, T userDefinedValue) {
    return add(key.data(), key.size(), userDefinedValue);
  }
  [[nodiscard]] int add(const char* key, std::size_t size, T userDefinedValue) {
    if (!allocated()) {
      log::write(log::kError, log::kEngineTag, "[SA] states_ array is not allocated. %s",
                 log::kLineEnd);
      return error::TPA_ERROR_OOM;
    }
    const int n = static_cast<int>(size);
    if (collected_ && n >= 1) {
      Collected::roomFor(collected_->text, static_cast<std::size_t>(n));
      Collected::roomFor(collected_->keys, 1);
      collected_->text.insert(collected_->text.end(), key, key + n);
      collected_->keys.push_back(ValuedKey{static_cast<std::int32_t>(collected_->text.size()) - 1,
                                           n, static_cast<std::int32_t>(userDefinedValue)});
      return error::TPA_ERROR_NONE;
    }
    for (int i = 0; i < n; ++i) {
      const SAStateValue<T> value =
          i + 1 == n ? SAStateValue<T>(n, userDefinedValue) : SAStateValue<T>();
      const int result = extend(key[i], value);
      if (result != error::TPA_ERROR_NONE) return result;
    }
    return error::TPA_ERROR_NONE;
  }

  // Appends one character whose new state gets `value`. Once the state array
  // is full every call fails with TPA_ERROR_ARRAY_OUT_OF_INDEX, since count is
  // advanced before the bounds check and never taken back.
  [[nodiscard]] int extend(char ch, SAStateValue<T> value) {
    if (frozen_) return error::TPA_ERROR_ARRAY_OUT_OF_INDEX;  // takes nothing more
    if (collected_) {
      Collected::roomFor(collected_->text, 1);
      collected_->text.push_back(static_cast<unsigned char>(ch));
      if (value != SAStateValue<T>()) {
        Collected::roomFor(collected_->keys, 1);
        collected_->keys.push_back(
            ValuedKey{static_cast<std::int32_t>(collected_->text.size()) - 1,
                      value.storedKeyLength(), static_cast<std::int32_t>(value.userDefinedValue())});
      }
      return error::TPA_ERROR_NONE;
    }
    const auto c = static_cast<unsigned char>(ch);
    const int cur = count_++;
    if (cur >= capacity_) {
      log::write(log::kFatal, log::kEngineTag,
                 "[FATAL] [SA] cur [%d] is out of bounds. Allocated: [%d] \n", cur, capacity_);
      return error::TPA_ERROR_ARRAY_OUT_OF_INDEX;
    }
    const int at = ++textStates_;  // the slot of the new state
    setLength(at, length(last_) + 1);
    setValue(at, value);
    int p = last_;
    while (p != -1 && transitions_.find(p, c) == nullptr) {
      transitions_.insert(p, c, edge(at, p == last_));
      p = link(p);
    }
    if (p == -1) {
      setLink(at, 0);
    } else {
      const std::int32_t e = *transitions_.find(p, c);
      const int q = targetOf(e);
      if (solid(e)) {  // length(q) == length(p) + 1, known without reading q
        setLink(at, q);
      } else {
        const int clone = count_++;
        if (clone >= capacity_) {
          log::write(log::kFatal, log::kEngineTag,
                     "[FATAL] [SA] cloned [%d] is out of bounds. Allocated: [%d] \n", clone,
                     capacity_);
          return error::TPA_ERROR_ARRAY_OUT_OF_INDEX;
        }
        const int cloneAt = capacity_ - 1 - clones_++;
        splitWithClone(p, q, cloneAt, c);
        setLink(at, cloneAt);
      }
    }
    last_ = at;
    return error::TPA_ERROR_NONE;
  }

  // How many leading characters of `key` can be read from the start state;
  // `out` gets the value of the state where reading stopped.
  [[nodiscard]] int tryFindFull(const std::string& key, SAStateValue<T>& out) const {
    return tryFindFull(key.data(), key.size(), out);
  }
  [[nodiscard]] int tryFindFull(const char* key, std::size_t size, SAStateValue<T>& out) const {
    const int n = static_cast<int>(size);
    if (!values_) return emptyFull(out);
    int s = 0;
    for (int i = 0; i < n; ++i) {
      const int next = step(s, static_cast<unsigned char>(key[i]));
      if (next < 0) {
        out = valueOf(s);
        return i;
      }
      s = next;
    }
    out = valueOf(s);
    return n;
  }

  // True when tryFindFull reads all of a non-empty `key` into a state whose
  // stored key length is the key's own, with `out` that state's value.
  [[nodiscard]] bool findWholeKey(const std::string& key, SAStateValue<T>& out) const {
    const int n = static_cast<int>(key.size());
    if (n < 1) return false;
    SAStateValue<T> v;
    if (tryFindFull(key, v) != n || v.storedKeyLength() != n) return false;
    out = v;
    return true;
  }

  // Length of the longest suffix of `key` occurring in the text (INT32_MIN for
  // an empty key); `out` gets the value of the state reached by reading that
  // suffix again behind a leading '*' (the start state's value when no key
  // starts with '*').
  [[nodiscard]] int tryFindPartial(const std::string& key, SAStateValue<T>& out) const {
    return tryFindPartial(key.data(), key.size(), out);
  }
  [[nodiscard]] int tryFindPartial(const char* key, std::size_t size, SAStateValue<T>& out) const {
    const int n = static_cast<int>(size);
    if (!values_) return emptyPartial(n, out);
    const int best = n < 1 ? INT32_MIN : longestSuffix(key, n);
    const int star = step(0, static_cast<unsigned char>('*'));
    if (star < 0) {
      out = valueOf(0);
      return best;
    }
    // The suffix is read again behind the '*'. An empty key has no suffix:
    // the walk then starts past its end and reads nothing.
    int s = star;
    for (int j = n < 1 ? n : n - best; j < n; ++j) {
      const int next = step(s, static_cast<unsigned char>(key[j]));
      if (next < 0) break;
      s = next;
    }
    out = valueOf(s);
    return best;
  }

  // The read-only form of the states, which answers every lookup as they
  // do; the states are released and nothing more is taken (extend fails).
  // Null, the automaton left as it is and answering as before, for one
  // never allocated, already frozen or broken by a failed extend, or when
  // memory runs out.
  [[nodiscard]] std::unique_ptr<FrozenAutomaton> freeze() noexcept {
    if (!values_ || count_ > capacity_) return nullptr;
    std::unique_ptr<FrozenAutomaton> frozen;
    try {
      frozen = makeFrozen();
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
    transitions_.release();
    values_.reset();
    frozen_ = true;
    return frozen;
  }

  // For an automaton constructed kFromText, once every key is in: makes the
  // read-only form straight from the text into `frozen` (nothing more can be
  // added). When the online automaton would have run out of states, replays
  // it instead, so that it fails where and as it would have: returns the
  // code of the first failing add, `keysPut` the number of adds before it,
  // with its messages logged. Returns 0 for any other automaton (`frozen`
  // left null). Throws std::bad_alloc, leaving the automaton empty.
  [[nodiscard]] int finish(std::size_t& keysPut, std::unique_ptr<FrozenAutomaton>& frozen) {
    if (!collected_) return error::TPA_ERROR_NONE;
    const std::unique_ptr<Collected> c = std::move(collected_);
    std::int64_t states = 0;
    frozen = FrozenAutomaton::fromText(c->text, c->keys, capacity_, states);
    if (frozen) {
      count_ = static_cast<int>(states);
      textStates_ = last_ = frozen->textLength();
      frozen_ = true;
      return error::TPA_ERROR_NONE;
    }
    return replay(*c, keysPut);
  }

  // States in use other than the start state (past the capacity once full).
  int size() const { return count_ - 1; }

  // Read-only views for diagnostics and tests; states and transitions only
  // until frozen.
  int capacity() const { return capacity_; }
  int requestedLength() const { return requestedLength_; }
  int last() const { return last_; }
  bool allocated() const { return values_ || frozen_ || collected_; }
  SAState<T> stateAt(int i) const { return SAState<T>(length(i), link(i), valueOf(i)); }
  // The target of state s on c, or -1 (until frozen).
  int step(int s, unsigned char c) const {
    const std::int32_t* e = transitions_.find(s, c);
    return e == nullptr ? -1 : targetOf(*e);
  }

 private:
  // A state's value, stored so that all-zero is (0, -1).
  struct StoredValue {
    std::int32_t storedKeyLength;
    std::int32_t valueBits;  // ~userDefinedValue
  };

  // An edge as stored: the target's slot, and in the top bit whether it is
  // solid (the target's length is the source's plus one), which is all that
  // extend needs to know of the target in the common case.
  static std::int32_t edge(int target, bool solid) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(target) | (solid ? kSolidBit : 0u));
  }
  static int targetOf(std::int32_t e) {
    return static_cast<int>(static_cast<std::uint32_t>(e) & ~kSolidBit);
  }
  static bool solid(std::int32_t e) { return (static_cast<std::uint32_t>(e) & kSolidBit) != 0; }
  static constexpr std::uint32_t kSolidBit = 0x80000000u;

  int length(int s) const { return transitions_.payload(s).length; }
  int link(int s) const { return ~transitions_.payload(s).linkBits; }
  SAStateValue<T> valueOf(int s) const {
    const StoredValue& v = values_[static_cast<std::size_t>(s)];
    return SAStateValue<T>(v.storedKeyLength, static_cast<T>(~v.valueBits));
  }
  void setLength(int s, int length) { transitions_.payload(s).length = length; }
  void setLink(int s, int link) { transitions_.payload(s).linkBits = ~link; }
  void setValue(int s, const SAStateValue<T>& v) {
    values_[static_cast<std::size_t>(s)] =
        StoredValue{v.storedKeyLength(), ~static_cast<std::int32_t>(v.userDefinedValue())};
  }

  // q, reached from p on c, is too long for the new suffix: the clone takes
  // q's place for every suffix of p that went to q. A clone copies q's
  // transitions and value, so a clone of a key end reports that key.
  void splitWithClone(int p, int q, int clone, unsigned char c) {
    setLength(clone, length(p) + 1);
    setLink(clone, link(q));
    setValue(clone, valueOf(q));
    transitions_.copy(q, clone);
    // q's solid edges are not solid from the shorter clone.
    transitions_.forEachTarget(clone, [](std::int32_t& e) { e = edge(targetOf(e), false); });
    for (const int first = p; p != -1; p = link(p)) {
      std::int32_t* target = transitions_.find(p, c);
      if (target == nullptr || targetOf(*target) != q) break;
      *target = edge(clone, p == first);
    }
    setLink(q, clone);
  }

  // The longest suffix of key[0, n) occurring in the text, n >= 1.
  // A suffix that occurs is also the longest suffix of every window of the
  // key that it does not fill, so only a window at the end is read, doubled
  // while the suffix fills it. An automaton broken by a failed extend (a state
  // without its link) is read whole, as the windows rely on the links.
  int longestSuffix(const char* key, int n) const {
    if (count_ > capacity_) return matchingStatistic(key, 0, n);
    for (int window = kFirstWindow;; window = window > n / 2 ? n : 2 * window) {
      const int start = window < n ? n - window : 0;
      const int l = matchingStatistic(key, start, n);
      if (start == 0 || l < n - start) return l;
    }
  }

  // Reads key[start, n) from the start state, falling back along suffix
  // links on a mismatch; returns the length matched at the last character.
  int matchingStatistic(const char* key, int start, int n) const {
    int s = 0;
    int l = 0;
    for (int i = start; i < n; ++i) {
      const auto c = static_cast<unsigned char>(key[i]);
      int next = step(s, c);
      while (next < 0 && s != 0) {
        // A state left without a link by a failed clone falls back to the start.
        s = link(s) < 0 ? 0 : link(s);
        l = length(s);
        next = step(s, c);
      }
      if (next >= 0) {
        s = next;
        ++l;
      }
    }
    return l;
  }

  // The frozen form: the start state, then the state of each text position
  // in text order, then the clones in the order they were made; in slots,
  // 0, 1 .. textStates_, then capacity_ - 1 down.
  int frozenIndex(int slot) const {
    return slot <= textStates_ ? slot : textStates_ + (capacity_ - slot);
  }
  std::unique_ptr<FrozenAutomaton> makeFrozen() const {
    const int firstClone = capacity_ - clones_;
    // What is stored, counted first so that every array is made to size:
    // transitions other than the start state's and those the text gives
    // (one from every position but the last), and values other than (0, -1).
    std::size_t edges = 0, statesWithEdges = 0, valued = 0;
    const auto count = [&](int i) {
      const int stored = transitions_.countOf(i) - (i < textStates_ ? 1 : 0);
      edges += static_cast<std::size_t>(stored);
      statesWithEdges += stored > 0 ? 1 : 0;
      valued += valueOf(i) != SAStateValue<T>() ? 1 : 0;
    };
    for (int i = 1; i <= textStates_; ++i) count(i);
    for (int i = capacity_ - 1; i >= firstClone; --i) count(i);
    valued += valueOf(0) != SAStateValue<T>() ? 1 : 0;
    FrozenAutomaton::Builder builder(count_, textStates_,
                                     FrozenAutomaton::Sizes{edges, statesWithEdges, valued});
    const auto visit = [&](int i) {
      const SAStateValue<T> v = valueOf(i);
      builder.beginState(frozenIndex(i),
                         FrozenAutomaton::Value{v.storedKeyLength(),
                                                static_cast<std::int32_t>(v.userDefinedValue())});
      transitions_.forEach(i, [&](unsigned char c, std::int32_t target) {
        builder.addEdge(c, frozenIndex(targetOf(target)));
      });
    };
    // The runs lie anywhere in the pool: each is asked for a few visits ahead.
    constexpr int kAhead = 8;
    for (int i = 0; i <= textStates_; ++i) {
      if (i + kAhead <= textStates_) transitions_.prefetch(i + kAhead);
      visit(i);
    }
    for (int i = capacity_ - 1; i >= firstClone; --i) {
      if (i - kAhead >= firstClone) transitions_.prefetch(i - kAhead);
      visit(i);
    }
    std::vector<StoredKey> keys, wholeKeys;
    storedKeys(builder.text(), keys, wholeKeys);
    return builder.finish(keys, wholeKeys);
  }

  // The state of the key of `keyLength` characters that ends at text state
  // `at`: on the suffix links of `at`, the state whose lengths take the
  // key's; one or two links away for a key seen once, but a key repeated
  // many times sits far down a long chain, where reading it from the start
  // state is cheaper.
  int keyState(int at, int keyLength, const unsigned char* text) const {
    int s = at;
    for (int hops = 0; length(link(s)) >= keyLength; ++hops) {
      if (hops == kKeyStateHops) {
        s = 0;
        for (int i = at - keyLength; i < at; ++i) s = step(s, text[i]);
        return s;
      }
      s = link(s);
    }
    return s;
  }

  // Every key appended, by its last character's text position and length, in
  // text order (states are made in that order), and those of them whose full
  // lookup reports their own length: the key's
  // state (on the suffix links of the position's state, the one whose
  // lengths take the key's) carries a key of that length. A key appended
  // twice is listed twice.
  void storedKeys(const unsigned char* text, std::vector<StoredKey>& keys,
                  std::vector<StoredKey>& wholeKeys) const {
    for (int i = 1; i <= textStates_; ++i) {
      const int keyLength = values_[static_cast<std::size_t>(i)].storedKeyLength;
      if (keyLength <= 0) continue;
      const StoredKey key{i - 1, keyLength};
      keys.push_back(key);
      const int s = keyState(i, keyLength, text);
      if (values_[static_cast<std::size_t>(s)].storedKeyLength == keyLength)
        wholeKeys.push_back(key);
    }
  }

  // What an automaton constructed kFromText keeps until finish: its text and
  // the positions that carry a value (key ends), in text order.
  struct Collected {
    std::vector<unsigned char> text;
    std::vector<ValuedKey> keys;

    // Grows v for `more` values by an eighth, not the library's doubling:
    // the text outgrows its reservation (framing makes it longer than the
    // rules' bytes) by a little, and what a doubled block leaves unused may
    // be resident, reused heap, through the whole build. Throws
    // std::bad_alloc.
    template <typename V>
    static void roomFor(std::vector<V>& v, std::size_t more) {
      if (v.size() + more > v.capacity()) v.reserve(v.size() + more + v.size() / 8);
    }
  };

  // Appends the collected text to fresh online states until an extend fails.
  int replay(const Collected& c, std::size_t& keysPut) {
    construct(requestedLength_);
    if (!values_) throw std::bad_alloc();
    std::size_t k = 0;
    for (std::size_t i = 0; i < c.text.size(); ++i) {
      const bool valued = k < c.keys.size() && c.keys[k].end == static_cast<std::int32_t>(i);
      const SAStateValue<T> value =
          valued ? SAStateValue<T>(c.keys[k].length, static_cast<T>(c.keys[k].value))
                 : SAStateValue<T>();
      const int result = extend(static_cast<char>(c.text[i]), value);
      if (result != error::TPA_ERROR_NONE) {
        keysPut = k;
        return result;
      }
      k += valued ? 1 : 0;
    }
    return error::TPA_ERROR_NONE;
  }

  // Lookups on an automaton that was never allocated answer as an empty one.
  static int emptyFull(SAStateValue<T>& out) {
    out = SAStateValue<T>();
    return 0;
  }
  static int emptyPartial(int length, SAStateValue<T>& out) {
    out = SAStateValue<T>();
    return length < 1 ? INT32_MIN : 0;
  }

  static constexpr int kFirstWindow = 16;
  static constexpr int kKeyStateHops = 8;  // characters read first by a partial lookup

  // capacity_ states, or none before construct: state i has its transitions,
  // length and link in transitions_ under index i, its value in values_[i].
  Transitions transitions_;
  PodArray<StoredValue> values_;
  int last_ = 0;  // state of the whole text; 0 <= last_ < count_
  // States in use, counted as the overflow checks and their messages count
  // them (a failed extend still counts its state). They are kept in two
  // runs of slots: the state of text position e in slot e + 1, the k-th
  // clone in slot capacity_ - 1 - k, so that the frozen form's numbering
  // (text states first, in text order) is a formula, not a table.
  int count_ = 1;
  int textStates_ = 0;       // slots 1 .. textStates_ hold the text's states
  int clones_ = 0;           // slots capacity_ - clones_ .. capacity_ - 1 hold the clones
  int requestedLength_ = 0;  // construct's argument after raising 0 and 1 to 3
  int capacity_ = 0;         // states allocated: 2 * requestedLength_
  // The states went to a frozen form: transitions_ and values_ released,
  // and extend fails.
  bool frozen_ = false;
  // Constructed kFromText, until finish: no states, the text alone.
  std::unique_ptr<Collected> collected_;
};

extern template class SuffixAutomaton<int>;

}  // namespace tpa::fsa

#endif  // TPA_FSA_SUFFIX_AUTOMATON_H_
