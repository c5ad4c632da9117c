// SPDX-License-Identifier: Apache-2.0
// Reads of command lines, each of which may hang, on threads of their own.
#ifndef LINE_READER_H
#define LINE_READER_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// Used on the event loop's thread only, which never waits for it. One thread reads. While it hangs
// on a process, another one takes its place, up to four in all; once those hang, nothing is read
// until one comes back. Reads that still hang when the program ends are left behind.
class line_reader {
 public:
  // Runs on another thread and must not touch anything that the event loop changes.
  using job = std::function<std::string(int32_t pid)>;

  struct process {
    int32_t pid;
    uint64_t start_ticks;  // only handed back, with the line
  };
  struct result {
    process of;
    std::string line;
  };

  explicit line_reader(job read);
  ~line_reader();
  line_reader(const line_reader&) = delete;
  line_reader& operator=(const line_reader&) = delete;

  // Has the process's line read. False when that cannot be now: too many wait, or a thread is at
  // this process id already.
  bool ask(process one);

  // The lines that have been read since the last call.
  std::vector<result> take();

 private:
  struct thread_group;
  std::shared_ptr<thread_group> threads;
};

#endif
