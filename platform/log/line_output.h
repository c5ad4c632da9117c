// SPDX-License-Identifier: Apache-2.0
// A descriptor that takes lines: file, FIFO, pipe, terminal or stream socket.
#ifndef LINE_OUTPUT_H
#define LINE_OUTPUT_H

#include <atomic>
#include <chrono>
#include <string>

// Any thread may write.
class line_output {
 public:
  // A write waits `most_patience` at most for room, and not at all after lines that got none.
  explicit line_output(std::chrono::milliseconds most_patience) : patience(most_patience) {}

  // Writes to a descriptor of this process. Whoever else shares it keeps its modes: a pipe or a
  // terminal is opened once more.
  line_output(std::chrono::milliseconds most_patience, int descriptor);

  // Opens the file for appending, and makes it with mode 0600 when it is missing. Never waits, not
  // even for the reader of a FIFO. Where standard output or error writes to the same file, that is
  // made to append as well. 0 or a negative errno.
  int open_file(const char* path);

  // Not while another thread opens the file.
  bool is_open() const { return fd >= 0; }

  // Writes a whole line, up to PIPE_BUF bytes with one write(2) where the file takes them at once,
  // so that lines of several threads, and of several programs on one file, do not mix. After lines
  // that were lost, one that begins with `lost_head` and says how many goes before it. 0 or a
  // negative errno, after which this line is lost as well.
  int write(const std::string& line, const std::string& lost_head);

 private:
  int write_all(const std::string& lines);
  bool wait_for_room(std::chrono::steady_clock::time_point end) const;

  const std::chrono::milliseconds patience;
  std::atomic<int> fd{-1};
  std::atomic<unsigned> lost{0};      // since the last line that was written
  std::atomic<bool> no_room{false};   // the last lines got no room in time
  std::atomic<bool> line_cut{false};  // the last line was begun and not ended
};

#endif
