// SPDX-License-Identifier: Apache-2.0
// What the kernel says of its tasks and CPUs in /proc, read by the tests' own simple parser: the
// second source that the server's figures are held against.
#ifndef PROC_FILES_H
#define PROC_FILES_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct task_files {
  std::string comm;
  char state = '?';
  pid_t ppid = 0;  // of a thread its process
  int priority = 0;
  int processor = 0;
  int64_t rss_kb = 0;
  double cpu_s = 0;       // user and system time, of a process that of all its threads
  uint64_t run_ns = 0;    // the first thread's, by the scheduler
  uint64_t io_bytes = 0;  // read and written
  double time_s = 0;      // when this was read
};

double now_s();

// All processes, or all threads, by their ids.
std::map<pid_t, task_files> read_tasks(bool threads);

// Seconds that each CPU was busy, and idle, since boot; by its number, the total as -1.
struct cpu_seconds {
  double busy = 0;
  double idle = 0;
};
std::map<int, cpu_seconds> read_cpus();

// The whole word after `label` in a file, "" if there is none.
std::string word_after(const std::string& path, const std::string& label);

#endif
