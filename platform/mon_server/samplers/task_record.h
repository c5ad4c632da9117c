// SPDX-License-Identifier: MIT OR GPL-2.0-only
// What the BPF program writes of one task (thread), as the program and the server both read it.
#ifndef SAMPLERS_TASK_RECORD_H
#define SAMPLERS_TASK_RECORD_H

#ifdef __cplusplus
#include <cstdint>

namespace samplers {
#endif

// Names are those of the kernel's task_struct.
struct task_record {
  int32_t pid;   // thread id
  int32_t tgid;  // process id
  int32_t parent_tgid;
  uint32_t state;
  uint32_t exit_state;
  int32_t prio;
  uint32_t cpu;
  int32_t nr_threads;
  char comm[16];
  uint64_t start_boottime;     // ns
  uint64_t sum_exec_runtime;   // ns, this thread's
  uint64_t read_bytes;         // this thread's
  uint64_t write_bytes;        // this thread's
  uint64_t gone_exec_runtime;  // ns, of the process's threads that have ended
  uint64_t gone_read_bytes;    // of those, and of children that were waited for
  uint64_t gone_write_bytes;   // likewise
  uint64_t rss_pages;
  uint32_t net_namespace;  // inode number, 0 in a task that is ending
  uint32_t reserved;
};

#ifdef __cplusplus
static_assert(sizeof(task_record) == 120);

}  // namespace samplers
#endif

#endif
