// dawg is the key dictionary of the rules reader: the suffix automaton of
// everything inserted into it (classic online construction, Blumer et al.),
// answering whether a string occurs anywhere in that text. It owns a
// fixed-capacity state table, allocated once and zero-filled up front, and a
// shared edge pool. Not thread-safe for writing; const members may run
// concurrently.
// Cost: dawg(n) reserves 4n states of 16 bytes, but untouched states cost no
// resident memory (an all-zero state is a valid empty state). Each transition
// takes 5 bytes in a per-state run sorted by unsigned byte. A step costs one
// run lookup: a short scan, or a binary search in runs over 16 transitions;
// a step along the inserted text itself costs no lookup (step_along).
#ifndef TPA_JSON_DAWG_H_
#define TPA_JSON_DAWG_H_

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace tpa::json_config {

class dawg {
 public:
  // The text inserted later must not be longer than `n` characters.
  explicit dawg(int n);
  dawg(const dawg&) = delete;
  dawg& operator=(const dawg&) = delete;

  // Allocates the state table (2 x capacity states) and makes state `last`
  // the root. TPA_ERROR_OOM when the table cannot be had.
  [[nodiscard]] int construct();
  // Appends one character. Does nothing without a table, or once the text
  // has reached the length given to the constructor.
  void extend(char c);
  // Appends every character of `s`, continuing from earlier insertions.
  // TPA_ERROR_OOM without a table; TPA_ERROR_ARRAY_OUT_OF_INDEX (after
  // inserting what fitted) when the text would outgrow the length n.
  [[nodiscard]] int insert(const std::string& s);
  // True when `s` occurs contiguously in the inserted text ("" always does);
  // false without a table.
  [[nodiscard]] bool has(const std::string& s) const;

  // Single steps, for walking the automaton in step with a scan of its text.
  // The target of `state` on `c`, or -1 when there is none (or no table).
  [[nodiscard]] int step(int state, char c) const;
  // The suffix link of `state`: -1 for the root and for unknown states.
  [[nodiscard]] int suffix_link(int state) const;
  // step(state, c) without a search, when `state` is the state of a prefix of
  // the inserted text (the root, or the state created for its last
  // character) and c the character that follows that prefix: the state
  // created for c. -1 in every other case, for which step() answers.
  [[nodiscard]] int step_along(int state, char c) const;

 private:
  struct state {
    std::int32_t len;      // longest string ending here
    std::int32_t link_up;  // suffix link + 1, so that 0 reads as "none"
    std::uint32_t first;   // start of the transition run in the edge pool
    std::uint16_t count;   // transitions in the run (its room is the next power of two)
    unsigned char label;   // the character every transition into this state reads
    std::uint8_t cloned;   // 1 for a clone, 0 for the root and the state created per character
  };
  static_assert(sizeof(state) == 16, "a state must stay 16 bytes");
  struct free_deleter {
    void operator()(state* table) const { std::free(table); }
  };

  static constexpr std::uint32_t kNoRun = 0xffffffffu;
  static constexpr int kRunClasses = 9;  // runs of 1, 2, 4, ... 256 edges

  [[nodiscard]] bool has_room() const;
  [[nodiscard]] bool owns(std::int64_t s) const { return states && s >= 0 && s < size; }
  [[nodiscard]] std::uint32_t find_edge(const state& from, unsigned char c) const;
  void add_edge(state& from, unsigned char c, std::int32_t target);
  void copy_edges(state& to, const state& from);
  [[nodiscard]] std::uint32_t take_run(int size_class);
  void give_back_run(std::uint32_t first, std::uint32_t count);

  // The state table: `table_size` zero-filled states, null until construct().
  // States [0, size) are in use; state 0 is the root; `last` is the state of
  // the whole text inserted so far, whose length never exceeds capacity / 2.
  std::unique_ptr<state[], free_deleter> states;
  std::int32_t last;
  std::int32_t size;
  std::int32_t capacity;  // twice the text length given to the constructor
  std::int64_t table_size;

  // Edge pool: labels and targets side by side. A state's run is the slots
  // [first, first + count), its labels strictly increasing as unsigned bytes.
  // A run's room is a power of two; freed runs go to a free list per room
  // (the next free run's start kept in its first target slot).
  std::vector<unsigned char> labels;
  std::vector<std::int32_t> targets;
  std::uint32_t free_runs[kRunClasses];
};

}  // namespace tpa::json_config

#endif  // TPA_JSON_DAWG_H_
