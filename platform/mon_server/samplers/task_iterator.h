// All tasks in one pass, by a BPF program that the kernel runs over its list of tasks.
//
// Costs half a microsecond a task, where reading the files of /proc takes six and more. Wants Linux
// 5.8 with BTF (CONFIG_DEBUG_INFO_BTF), CAP_BPF and CAP_PERFMON, and the initial pid namespace; see
// "BPF Iterators" in the kernel's documentation (bpf/bpf_iterators.rst).
#ifndef SAMPLERS_TASK_ITERATOR_H
#define SAMPLERS_TASK_ITERATOR_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "samplers/file_descriptor.h"
#include "samplers/process_stat.h"
#include "samplers/processes.h"

namespace samplers {

// What the BPF program writes of one task (thread); names are those of the kernel's task_struct.
// The layout is the program's own.
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
static_assert(sizeof(task_record) == 120);

class task_iterator {
 public:
  // Loads the program. 0, or why there is none: -EPERM, -ENOENT (no BTF), -EOPNOTSUPP, ...
  int open();

  // Fills in all tasks, by ascending thread id.
  int read(std::vector<task_record>& tasks);

 private:
  file_descriptor link;
  size_t records_before = 0;  // in the pass before
};

// Records of one pass as processes or as threads, by ascending id. Keeps the memory it works in.
class task_entries {
 public:
  void make_threads(const std::vector<task_record>& tasks,
                    std::vector<process_entry>& entries) const;

  // A process's figures are sums over its threads. One whose threads came or went while the records
  // were written has no consistent sum: it is left out, and its id added to `torn`.
  void make_processes(const std::vector<task_record>& tasks, std::vector<process_entry>& entries,
                      std::vector<int32_t>& torn);

 private:
  struct process_sum {
    const task_record* first;  // of its threads
    int32_t threads;           // added so far
    bool consistent;
  };

  void add_thread(const task_record& task, std::vector<process_entry>& entries);
  void leave_out_torn(std::vector<process_entry>& entries, std::vector<int32_t>& torn) const;

  const stat_units units;
  std::vector<process_sum> sums;  // of the entries, in their order
};

}  // namespace samplers

#endif
