// SuffixAutomaton: the suffix automaton of one growing text, built online a
// character at a time (the classic Blumer et al. construction with cloning),
// into which a keyed machine appends every framed key it is given.
//
// Cost model: all 2n states are allocated once by construct(n) as one zero-
// filled block (16 bytes of state + 8 bytes of transition head each; pages of
// states never used are never made resident), transitions per the store
// (CompactTransitions by default). extend is amortised O(1) store operations;
// lookups are linear in the query plus amortised suffix-link steps and
// allocate nothing. Owns its states and transitions. Not thread-safe: callers
// serialise every access.
#ifndef TPA_FSA_SUFFIX_AUTOMATON_H_
#define TPA_FSA_SUFFIX_AUTOMATON_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "api/constants.h"
#include "api/log.h"
#include "fsa/compact_transitions.h"
#include "fsa/pod_array.h"

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

// One state without its transitions (those live in the automaton's transition
// store under the state's index). Every field is stored so that all-zero bytes
// are the default state: length 0, link -1, value (0, -1).
template <typename T>
class SAState {
  static_assert(std::is_integral_v<T> && sizeof(T) <= sizeof(std::int32_t),
                "state values are stored in 32 bits");

 public:
  int length() const { return length_; }
  int link() const { return ~linkBits_; }
  SAStateValue<T> value() const {
    return SAStateValue<T>(storedKeyLength_, static_cast<T>(~valueBits_));
  }

  void setLength(int length) { length_ = length; }
  void setLink(int link) { linkBits_ = ~link; }
  void setValue(const SAStateValue<T>& v) {
    storedKeyLength_ = v.storedKeyLength();
    valueBits_ = ~static_cast<std::int32_t>(v.userDefinedValue());
  }
  void reset() { *this = SAState(); }

 private:
  std::int32_t length_ = 0;    // longest string ending here; > length of the link target
  std::int32_t linkBits_ = 0;  // ~link: 0 is link -1 (only the start state, or a failed state)
  std::int32_t storedKeyLength_ = 0;  // first half of the value
  std::int32_t valueBits_ = 0;        // ~userDefinedValue: 0 is -1
};
static_assert(sizeof(SAState<int>) == 16, "a state must stay 16 bytes");
static_assert(std::is_trivially_copyable_v<SAState<int>>, "states live in a calloc'd block");

template <typename T, typename Transitions = CompactTransitions>
class SuffixAutomaton {
 public:
  SuffixAutomaton() = default;
  SuffixAutomaton(const SuffixAutomaton&) = delete;
  SuffixAutomaton& operator=(const SuffixAutomaton&) = delete;

  // Allocates 2k default states, k = n or 3 when n < 2, replacing any
  // previous ones. last and count are kept (a fresh automaton has 0 and 1).
  // A length whose states cannot be counted in an int allocates nothing.
  void construct(int n) {
    const int k = n < 2 ? 3 : n;
    requestedLength_ = k;
    capacity_ = k <= INT32_MAX / 2 ? 2 * k : 0;
    states_.reset();
    if (capacity_ == 0 || !states_.allocateZeroed(static_cast<std::size_t>(capacity_)) ||
        !transitions_.allocate(capacity_)) {
      states_.reset();  // seen as "not allocated" by add
      capacity_ = 0;
      return;
    }
    if (last_ < capacity_) states_[static_cast<std::size_t>(last_)].reset();
  }

  // Appends every character of `key`; the last one carries (key length,
  // userDefinedValue). Returns 0, -1 when nothing is allocated, or the first
  // failing extend's code (what was appended before stays).
  [[nodiscard]] int add(const std::string& key, T userDefinedValue) {
    return add(key.data(), key.size(), userDefinedValue);
  }
  [[nodiscard]] int add(const char* key, std::size_t size, T userDefinedValue) {
    if (!states_) {
      __android_log_print(log::kError, log::kEngineTag, "[SA] states_ array is not allocated. %s",
                          log::kLineEnd);
      return error::TPA_ERROR_OOM;
    }
    const int length = static_cast<int>(size);
    for (int i = 0; i < length; ++i) {
      const SAStateValue<T> value =
          i + 1 == length ? SAStateValue<T>(length, userDefinedValue) : SAStateValue<T>();
      const int result = extend(key[i], value);
      if (result != error::TPA_ERROR_NONE) return result;
    }
    return error::TPA_ERROR_NONE;
  }

  // Appends one character whose new state gets `value`. Once the state array
  // is full every call fails with TPA_ERROR_ARRAY_OUT_OF_INDEX, since count is
  // advanced before the bounds check and never taken back.
  [[nodiscard]] int extend(char ch, SAStateValue<T> value) {
    const auto c = static_cast<unsigned char>(ch);
    const int cur = count_++;
    if (cur >= capacity_) {
      __android_log_print(log::kFatal, log::kEngineTag,
                          "[FATAL] [SA] cur [%d] is out of bounds. Allocated: [%d] \n", cur,
                          capacity_);
      return error::TPA_ERROR_ARRAY_OUT_OF_INDEX;
    }
    state(cur).setLength(state(last_).length() + 1);
    state(cur).setValue(value);
    int p = last_;
    while (p != -1 && transitions_.find(p, c) == nullptr) {
      transitions_.insert(p, c, cur);
      p = state(p).link();
    }
    if (p == -1) {
      state(cur).setLink(0);
    } else {
      const int q = *transitions_.find(p, c);
      if (state(q).length() == state(p).length() + 1) {
        state(cur).setLink(q);
      } else {
        const int clone = count_++;
        if (clone >= capacity_) {
          __android_log_print(log::kFatal, log::kEngineTag,
                              "[FATAL] [SA] cloned [%d] is out of bounds. Allocated: [%d] \n",
                              clone, capacity_);
          return error::TPA_ERROR_ARRAY_OUT_OF_INDEX;
        }
        splitWithClone(p, q, clone, c);
        state(cur).setLink(clone);
      }
    }
    last_ = cur;
    return error::TPA_ERROR_NONE;
  }

  // How many leading characters of `key` can be read from the start state;
  // `out` gets the value of the state where reading stopped.
  [[nodiscard]] int tryFindFull(const std::string& key, SAStateValue<T>& out) const {
    return tryFindFull(key.data(), key.size(), out);
  }
  [[nodiscard]] int tryFindFull(const char* key, std::size_t size, SAStateValue<T>& out) const {
    if (!states_) return emptyFull(out);
    const int length = static_cast<int>(size);
    int s = 0;
    for (int i = 0; i < length; ++i) {
      const std::int32_t* next = transitions_.find(s, static_cast<unsigned char>(key[i]));
      if (next == nullptr) {
        out = state(s).value();
        return i;
      }
      s = *next;
    }
    out = state(s).value();
    return length;
  }

  // Length of the longest suffix of `key` occurring in the text (INT32_MIN for
  // an empty key); `out` gets the value of the state reached by reading that
  // suffix again behind a leading '*' (the start state's value when no key
  // starts with '*').
  [[nodiscard]] int tryFindPartial(const std::string& key, SAStateValue<T>& out) const {
    return tryFindPartial(key.data(), key.size(), out);
  }
  [[nodiscard]] int tryFindPartial(const char* key, std::size_t size, SAStateValue<T>& out) const {
    const int length = static_cast<int>(size);
    if (!states_) return emptyPartial(length, out);
    const int best = length < 1 ? INT32_MIN : longestSuffix(key, length);
    const std::int32_t* star = transitions_.find(0, static_cast<unsigned char>('*'));
    if (star == nullptr) {
      out = state(0).value();
      return best;
    }
    // The suffix is read again behind the '*'. An empty key has no suffix:
    // the walk then starts past its end and reads nothing.
    int s = *star;
    for (int j = length < 1 ? length : length - best; j < length; ++j) {
      const std::int32_t* next = transitions_.find(s, static_cast<unsigned char>(key[j]));
      if (next == nullptr) break;
      s = *next;
    }
    out = state(s).value();
    return best;
  }

  // States in use other than the start state (past the capacity once full).
  int size() const { return count_ - 1; }

  // Read-only views for diagnostics and tests.
  int capacity() const { return capacity_; }
  int requestedLength() const { return requestedLength_; }
  int last() const { return last_; }
  bool allocated() const { return static_cast<bool>(states_); }
  const SAState<T>& stateAt(int i) const { return state(i); }
  const Transitions& transitions() const { return transitions_; }

 private:
  SAState<T>& state(int i) { return states_[static_cast<std::size_t>(i)]; }
  const SAState<T>& state(int i) const { return states_[static_cast<std::size_t>(i)]; }

  // q, reached from p on c, is too long for the new suffix: the clone takes
  // q's place for every suffix of p that went to q. A clone copies q's
  // transitions and value, so a clone of a key end reports that key.
  void splitWithClone(int p, int q, int clone, unsigned char c) {
    state(clone).setLength(state(p).length() + 1);
    state(clone).setLink(state(q).link());
    state(clone).setValue(state(q).value());
    transitions_.copy(q, clone);
    for (; p != -1; p = state(p).link()) {
      std::int32_t* target = transitions_.find(p, c);
      if (target == nullptr || *target != q) break;
      *target = clone;
    }
    state(q).setLink(clone);
  }

  // The longest suffix of key[0, length) occurring in the text, length >= 1.
  // A suffix that occurs is also the longest suffix of every window of the
  // key that it does not fill, so only a window at the end is read, doubled
  // while the suffix fills it. An automaton broken by a failed extend (a state
  // without its link) is read whole, as the windows rely on the links.
  int longestSuffix(const char* key, int length) const {
    if (count_ > capacity_) return matchingStatistic(key, 0, length);
    for (int window = kFirstWindow;; window = window > length / 2 ? length : 2 * window) {
      const int start = window < length ? length - window : 0;
      const int l = matchingStatistic(key, start, length);
      if (start == 0 || l < length - start) return l;
    }
  }

  // Reads key[start, length) from the start state, falling back along suffix
  // links on a mismatch; returns the length matched at the last character.
  int matchingStatistic(const char* key, int start, int length) const {
    int s = 0;
    int l = 0;
    for (int i = start; i < length; ++i) {
      const auto c = static_cast<unsigned char>(key[i]);
      const std::int32_t* next = transitions_.find(s, c);
      while (next == nullptr && s != 0) {
        // A state left without a link by a failed clone falls back to the start.
        s = state(s).link() < 0 ? 0 : state(s).link();
        l = state(s).length();
        next = transitions_.find(s, c);
      }
      if (next != nullptr) {
        s = *next;
        ++l;
      }
    }
    return l;
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

  static constexpr int kFirstWindow = 16;  // characters read first by a partial lookup

  PodArray<SAState<T>> states_;  // capacity_ states, or none before construct
  Transitions transitions_;      // transitions of states_[i] under index i
  int last_ = 0;                 // state of the whole text; 0 <= last_ < count_
  int count_ = 1;                // states in use; the next state gets this index
  int requestedLength_ = 0;      // construct's argument after raising 0 and 1 to 3
  int capacity_ = 0;             // states allocated: 2 * requestedLength_
};

extern template class SuffixAutomaton<int>;

}  // namespace tpa::fsa

#endif  // TPA_FSA_SUFFIX_AUTOMATON_H_
