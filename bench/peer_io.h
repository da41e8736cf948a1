// The command-line peers' side of `tpa query`'s protocol: APP<TAB>DEST lines
// in, include<TAB>VALUE or exclude<TAB>VALUE lines out. Input is read in 256 KiB
// blocks and split in place; answers collect in one 64 KiB buffer, written out
// when full and before every read that may wait, so that a partner feeding
// one query at a time still sees each answer. A line without a TAB is
// skipped; a trailing CR is dropped. One owner; not thread-safe.
#ifndef TPA_BENCH_PEER_IO_H_
#define TPA_BENCH_PEER_IO_H_

#include <cstddef>
#include <string_view>
#include <vector>

#include "peer_common.h"

namespace tpa::bench {

class LinePump {
 public:
  // `block`: bytes read at once (tests use small ones).
  LinePump(int in, int out, std::size_t block = 256 * 1024);
  ~LinePump();
  LinePump(const LinePump&) = delete;
  LinePump& operator=(const LinePump&) = delete;

  // The next query; false at the end of the input (or on a read error).
  [[nodiscard]] bool next(std::string_view& app, std::string_view& destination);
  void write(const Answer& a);
  void flush();

 private:
  [[nodiscard]] bool refill();

  int in_, out_;
  std::vector<char> input_;  // [pos_, end_) read and not yet returned
  std::size_t pos_ = 0, end_ = 0;
  bool eof_ = false;
  std::vector<char> output_;  // [0, used_) not yet written
  std::size_t used_ = 0;
};

// Answers every query of `in` with `answer(app, destination)` into `out`.
template <typename AnswerFn>
void answerLines(int in, int out, AnswerFn answer) {
  LinePump pump(in, out);
  std::string_view app, destination;
  while (pump.next(app, destination)) pump.write(answer(app, destination));
  pump.flush();
}

}  // namespace tpa::bench

#endif  // TPA_BENCH_PEER_IO_H_
