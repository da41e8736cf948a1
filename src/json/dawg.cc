#include "json/dawg.h"

#include <algorithm>
#include <cstring>

#include "tpa/api/constants.h"

namespace tpa::json_config {
namespace {

// The largest table construct() will allocate. It bounds the text at 2^28
// characters, which keeps every state index in 32 bits and the edge pool (at
// most 12 slots per character, counting rounded and freed runs) below 2^32.
constexpr std::int64_t kMaxTableStates = std::int64_t{1} << 30;

// Runs up to this many transitions are scanned; longer ones are bisected.
constexpr std::uint32_t kScanLimit = 16;

// The room of a run holding `count` transitions, as a power-of-two class.
int roomClass(std::uint32_t count) {
  int k = 0;
  while ((std::uint32_t{1} << k) < count) ++k;
  return k;
}

std::int32_t doubled(int n) {
  std::int64_t twice = std::int64_t{2} * n;
  twice = std::clamp<std::int64_t>(twice, INT32_MIN, INT32_MAX);
  return static_cast<std::int32_t>(twice);
}

}  // namespace

dawg::dawg(int n) : last(0), size(1), capacity(doubled(n)), table_size(0) {
  std::fill(std::begin(free_runs), std::end(free_runs), kNoRun);
}

int dawg::construct() {
  // A table always has room for the root, even for an empty text.
  std::int64_t wanted = std::max<std::int64_t>(std::int64_t{2} * capacity, 1);
  state* table = nullptr;
  if (capacity >= 0 && wanted <= kMaxTableStates) {
    // calloc hands out untouched zero pages, so unused states stay virtual.
    table = static_cast<state*>(std::calloc(static_cast<std::size_t>(wanted), sizeof(state)));
  }
  states.reset(table);
  labels.clear();
  targets.clear();
  std::fill(std::begin(free_runs), std::end(free_runs), kNoRun);
  if (!states) {
    table_size = 0;
    return error::TPA_ERROR_OOM;
  }
  table_size = wanted;
  states[last] = state{};  // the root: length 0, no link, no transitions
  return error::TPA_ERROR_NONE;
}

bool dawg::has_room() const {
  // The text may not outgrow the length given to the constructor. Within it
  // the automaton needs at most 2n - 1 states; the table bound is checked as
  // well, since a second construct() keeps `last` and `size`.
  return states && states[last].len < capacity / 2 && size <= table_size - 2;
}

void dawg::extend(char ch) {
  if (!has_room()) return;
  const unsigned char c = static_cast<unsigned char>(ch);
  const std::int32_t cur = size++;
  states[cur].len = states[last].len + 1;
  states[cur].label = c;
  std::int32_t p = last;
  while (p != -1 && find_edge(states[p], c) == kNoRun) {
    add_edge(states[p], c, cur);
    p = states[p].link_up - 1;
  }
  if (p == -1) {
    states[cur].link_up = 1;  // the root
  } else {
    const std::int32_t q = targets[find_edge(states[p], c)];
    if (states[p].len + 1 == states[q].len) {
      states[cur].link_up = q + 1;
    } else {
      const std::int32_t clone = size++;
      states[clone].len = states[p].len + 1;
      states[clone].link_up = states[q].link_up;
      states[clone].label = c;
      states[clone].cloned = 1;
      copy_edges(states[clone], states[q]);
      // Redirect to the clone every suffix that led to q on c.
      while (p != -1) {
        const std::uint32_t e = find_edge(states[p], c);
        if (e == kNoRun || targets[e] != q) break;
        targets[e] = clone;
        p = states[p].link_up - 1;
      }
      states[q].link_up = clone + 1;
      states[cur].link_up = clone + 1;
    }
  }
  last = cur;
}

int dawg::insert(const std::string& s) {
  if (!states) return error::TPA_ERROR_OOM;
  for (char c : s) {
    if (!has_room()) return error::TPA_ERROR_ARRAY_OUT_OF_INDEX;
    extend(c);
  }
  return error::TPA_ERROR_NONE;
}

bool dawg::has(const std::string& s) const {
  if (!states) return false;
  int at = 0;
  for (char c : s) {
    at = step(at, c);
    if (at < 0) return false;
  }
  return true;
}

int dawg::step(int from, char c) const {
  if (!owns(from)) return -1;
  const std::uint32_t e = find_edge(states[from], static_cast<unsigned char>(c));
  return e == kNoRun ? -1 : targets[e];
}

int dawg::suffix_link(int from) const { return owns(from) ? states[from].link_up - 1 : -1; }

int dawg::step_along(int from, char c) const {
  if (!owns(from) || states[from].cloned != 0) return -1;
  // States are numbered in creation order: the one created for the next
  // character comes right after `from`, or after the clone that `from`'s own
  // extension made. Its label tells whether that character is c.
  std::int64_t next = std::int64_t{from} + 1;
  if (owns(next) && states[next].cloned != 0) ++next;
  if (!owns(next) || states[next].len != states[from].len + 1 ||
      states[next].label != static_cast<unsigned char>(c)) {
    return -1;
  }
  return static_cast<int>(next);
}

std::uint32_t dawg::find_edge(const state& from, unsigned char c) const {
  const unsigned char* run = labels.data() + from.first;
  if (from.count <= kScanLimit) {
    for (std::uint32_t i = 0; i < from.count && run[i] <= c; ++i) {
      if (run[i] == c) return from.first + i;
    }
    return kNoRun;
  }
  const unsigned char* at = std::lower_bound(run, run + from.count, c);
  if (at == run + from.count || *at != c) return kNoRun;
  return from.first + static_cast<std::uint32_t>(at - run);
}

void dawg::add_edge(state& from, unsigned char c, std::int32_t target) {
  const std::uint32_t n = from.count;
  const unsigned char* run = labels.data() + from.first;
  const std::uint32_t pos = static_cast<std::uint32_t>(std::lower_bound(run, run + n, c) - run);
  std::uint32_t first = from.first;
  if (n == 0 || (n & (n - 1)) == 0) {
    // The run fills its room: move it to a room twice as big, leaving a gap at pos.
    first = take_run(roomClass(n + 1));
    unsigned char* l = labels.data();
    std::int32_t* t = targets.data();
    std::memcpy(l + first, l + from.first, pos);
    std::memcpy(t + first, t + from.first, pos * sizeof(std::int32_t));
    std::memcpy(l + first + pos + 1, l + from.first + pos, n - pos);
    std::memcpy(t + first + pos + 1, t + from.first + pos, (n - pos) * sizeof(std::int32_t));
    if (n > 0) give_back_run(from.first, n);
  } else {
    unsigned char* l = labels.data() + first;
    std::int32_t* t = targets.data() + first;
    std::memmove(l + pos + 1, l + pos, n - pos);
    std::memmove(t + pos + 1, t + pos, (n - pos) * sizeof(std::int32_t));
  }
  labels[first + pos] = c;
  targets[first + pos] = target;
  from.first = first;
  from.count = static_cast<std::uint16_t>(n + 1);
}

void dawg::copy_edges(state& to, const state& from) {
  to.count = 0;
  if (from.count == 0) return;
  const std::uint32_t first = take_run(roomClass(from.count));
  std::memcpy(labels.data() + first, labels.data() + from.first, from.count);
  std::memcpy(targets.data() + first, targets.data() + from.first,
              from.count * sizeof(std::int32_t));
  to.first = first;
  to.count = from.count;
}

std::uint32_t dawg::take_run(int size_class) {
  std::uint32_t first = free_runs[size_class];
  if (first != kNoRun) {
    free_runs[size_class] = static_cast<std::uint32_t>(targets[first]);
    return first;
  }
  first = static_cast<std::uint32_t>(labels.size());
  const std::size_t grown = labels.size() + (std::size_t{1} << size_class);
  labels.resize(grown);
  targets.resize(grown);
  return first;
}

void dawg::give_back_run(std::uint32_t first, std::uint32_t count) {
  const int size_class = roomClass(count);
  targets[first] = static_cast<std::int32_t>(free_runs[size_class]);
  free_runs[size_class] = first;
}

}  // namespace tpa::json_config
