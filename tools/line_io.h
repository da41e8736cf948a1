// Streaming line input and buffered output over file descriptors, for the
// query stream. LineReader reads in 64 KiB blocks and, just before it would
// wait for more input, flushes the OutputSink it was given: a pipe of a
// million queries is written in large blocks, while an interactive partner
// still sees every answer before it sends the next query. Memory stays bounded
// by the longest line. One owner each; not thread-safe.
#ifndef TPA_TOOLS_LINE_IO_H_
#define TPA_TOOLS_LINE_IO_H_

#include <cstddef>
#include <string>
#include <string_view>

namespace tpa::tools {

class OutputSink {
 public:
  // `lineFlush`: write out after every line (an interactive terminal).
  OutputSink(int fd, bool lineFlush);
  ~OutputSink();
  OutputSink(const OutputSink&) = delete;
  OutputSink& operator=(const OutputSink&) = delete;

  // Appends one line (a '\n' is added) and writes out when the block is full.
  void line(std::string_view text);
  // Writes out everything buffered; false once a write has failed.
  [[nodiscard]] bool flush();
  [[nodiscard]] bool failed() const { return failed_; }
  // The errno of the failed write (0 while none failed; EIO for a write of 0).
  [[nodiscard]] int errorNumber() const { return error_; }

 private:
  static constexpr std::size_t kBlock = 64 * 1024;
  int fd_;
  bool lineFlush_;
  bool failed_ = false;  // sticky: after a failed write nothing more is written
  int error_ = 0;        // set with failed_
  std::string buffer_;   // pending bytes, written out at kBlock
};

class LineReader {
 public:
  // `beforeWait` (may be null) is flushed before every blocking read.
  LineReader(int fd, OutputSink* beforeWait);

  // The next line without its '\n'; false at the end of input. A last line
  // without '\n' is still returned. Reading errors end the input.
  [[nodiscard]] bool next(std::string& line);
  // The same line as a view, valid until the next call: a line within one
  // block is not copied.
  [[nodiscard]] bool next(std::string_view& line);
  // 1-based number of the line last returned.
  [[nodiscard]] std::size_t lineNumber() const { return lineNumber_; }

 private:
  static constexpr std::size_t kBlock = 64 * 1024;
  [[nodiscard]] bool refill();

  int fd_;
  OutputSink* beforeWait_;
  std::string block_;  // bytes read, [pos_, end_) not yet consumed
  std::size_t pos_ = 0;
  std::size_t end_ = 0;
  std::string carry_;  // a line that spans blocks, gathered
  bool eof_ = false;
  std::size_t lineNumber_ = 0;
};

}  // namespace tpa::tools

#endif  // TPA_TOOLS_LINE_IO_H_
