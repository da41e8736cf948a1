#include "peer_io.h"

#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

namespace tpa::bench {

namespace {
constexpr std::size_t kOutput = 64 * 1024;
constexpr std::size_t kLongestAnswer = 32;  // "exclude\t" and an int
}  // namespace

LinePump::LinePump(int in, int out, std::size_t block)
    : in_(in), out_(out), input_(block), output_(kOutput + kLongestAnswer) {}

LinePump::~LinePump() { flush(); }

bool LinePump::refill() {
  if (eof_) return false;
  flush();  // the read may wait for a partner that waits for these answers
  // Keep the unfinished line, at the front; a line longer than the buffer
  // doubles it.
  std::memmove(input_.data(), input_.data() + pos_, end_ - pos_);
  end_ -= pos_;
  pos_ = 0;
  if (end_ == input_.size()) input_.resize(2 * input_.size());
  ssize_t n;
  do {
    n = ::read(in_, input_.data() + end_, input_.size() - end_);
  } while (n < 0 && errno == EINTR);
  if (n <= 0) {
    eof_ = true;
    return end_ > 0;  // a last line without '\n'
  }
  end_ += static_cast<std::size_t>(n);
  return true;
}

bool LinePump::next(std::string_view& app, std::string_view& destination) {
  for (;;) {
    const char* start = input_.data() + pos_;
    const auto* newline = static_cast<const char*>(std::memchr(start, '\n', end_ - pos_));
    std::size_t length;
    if (newline != nullptr) {
      length = static_cast<std::size_t>(newline - start);
      pos_ += length + 1;
    } else if (eof_ && pos_ < end_) {
      length = end_ - pos_;
      pos_ = end_;
    } else {
      if (!refill()) return false;
      continue;
    }
    std::string_view line(start, length);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    const std::size_t tab = line.find('\t');
    if (tab == std::string_view::npos) continue;
    app = line.substr(0, tab);
    destination = line.substr(tab + 1);
    return true;
  }
}

void LinePump::write(const Answer& a) {
  char* p = output_.data() + used_;
  const char* word = a.decision == 1 ? "include\t" : "exclude\t";
  std::memcpy(p, word, 8);
  p = std::to_chars(p + 8, output_.data() + output_.size(), a.value).ptr;
  *p++ = '\n';
  used_ = static_cast<std::size_t>(p - output_.data());
  if (used_ >= kOutput) flush();
}

void LinePump::flush() {
  std::size_t done = 0;
  while (done < used_) {
    const ssize_t n = ::write(out_, output_.data() + done, used_ - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // nobody reads the answers any more
    done += static_cast<std::size_t>(n);
  }
  used_ = 0;
}

}  // namespace tpa::bench
