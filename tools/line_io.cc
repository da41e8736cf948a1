#include "tools/line_io.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tpa::tools {

OutputSink::OutputSink(int fd, bool lineFlush) : fd_(fd), lineFlush_(lineFlush) {
  buffer_.reserve(kBlock + 256);
}

OutputSink::~OutputSink() { (void)flush(); }

void OutputSink::line(std::string_view text) {
  buffer_.append(text);
  buffer_ += '\n';
  if (lineFlush_ || buffer_.size() >= kBlock) (void)flush();
}

bool OutputSink::flush() {
  std::size_t done = 0;
  while (!failed_ && done < buffer_.size()) {
    const ssize_t n = ::write(fd_, buffer_.data() + done, buffer_.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      failed_ = true;
      error_ = n < 0 ? errno : EIO;
      break;
    }
    done += static_cast<std::size_t>(n);
  }
  buffer_.clear();
  return !failed_;
}

LineReader::LineReader(int fd, OutputSink* beforeWait)
    : fd_(fd), beforeWait_(beforeWait), block_(kBlock, '\0') {}

bool LineReader::refill() {
  if (eof_) return false;
  if (beforeWait_ != nullptr) (void)beforeWait_->flush();
  ssize_t n;
  do {
    n = ::read(fd_, block_.data(), block_.size());
  } while (n < 0 && errno == EINTR);
  if (n <= 0) {
    eof_ = true;
    return false;
  }
  pos_ = 0;
  end_ = static_cast<std::size_t>(n);
  return true;
}

bool LineReader::next(std::string& line) {
  std::string_view view;
  if (!next(view)) return false;
  line.assign(view);
  return true;
}

bool LineReader::next(std::string_view& line) {
  carry_.clear();
  for (;;) {
    if (pos_ == end_ && !refill()) break;
    const char* start = block_.data() + pos_;
    const void* newline = std::memchr(start, '\n', end_ - pos_);
    if (newline != nullptr) {
      const std::size_t length = static_cast<const char*>(newline) - start;
      pos_ += length + 1;
      ++lineNumber_;
      if (carry_.empty()) {
        line = std::string_view(start, length);
      } else {
        carry_.append(start, length);
        line = carry_;
      }
      return true;
    }
    carry_.append(start, end_ - pos_);
    pos_ = end_;
  }
  if (carry_.empty()) return false;
  ++lineNumber_;
  line = carry_;
  return true;
}

}  // namespace tpa::tools
