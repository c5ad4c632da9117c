// SPDX-License-Identifier: Apache-2.0
#include "samplers/task_entries.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "samplers/text.h"

namespace samplers {
namespace {

// The letter of proc_pid_stat(5), as the kernel's task_state_index() finds it.
char state_letter(const task_record& task) {
  constexpr uint32_t uninterruptible = 0x2;
  constexpr uint32_t no_load = 0x400;
  constexpr uint32_t rt_lock_wait = 0x1000;
  constexpr uint32_t frozen = 0x8000;
  constexpr uint32_t reported = 0x7f;
  constexpr char letters[] = "RSDTtXZP";
  if ((task.state & (uninterruptible | no_load)) == (uninterruptible | no_load)) {
    return 'I';
  }
  uint32_t bits = (task.state | task.exit_state) & reported;
  if ((task.state & (rt_lock_wait | frozen)) != 0) {
    bits = uninterruptible;
  }
  size_t index = 0;
  for (; bits != 0; bits >>= 1) {
    ++index;
  }
  return letters[index];
}

process_entry entry_of(const task_record& task, const stat_units& units) {
  constexpr int32_t real_time_priorities = 100;
  process_entry entry;
  entry.pid = task.pid;
  entry.ppid = task.parent_tgid;
  const std::string_view comm(task.comm, strnlen(task.comm, sizeof task.comm - 1));
  copy_name(comm, entry.comm);
  entry.state = state_letter(task);
  entry.priority = saturate(int64_t{task.prio} - real_time_priorities);
  entry.processor = saturate(task.cpu);
  entry.num_threads = task.nr_threads;
  entry.net_namespace = task.net_namespace;
  entry.start_ticks = task.start_boottime / units.tick_ns;
  entry.cpu_ns = task.sum_exec_runtime;
  entry.activity = task.sum_exec_runtime;
  entry.io_bytes = task.read_bytes + task.write_bytes;
  entry.rss_kb = static_cast<int64_t>(task.rss_pages * units.page_kb);
  return entry;
}

}  // namespace

void task_entries::make_threads(const std::vector<task_record>& tasks,
                                std::vector<process_entry>& entries) const {
  entries.clear();
  entries.reserve(tasks.size());
  for (const task_record& task : tasks) {
    entries.push_back(entry_of(task, units));
    entries.back().ppid = task.tgid;
  }
}

void task_entries::make_processes(const std::vector<task_record>& tasks,
                                  std::vector<process_entry>& entries, std::vector<int32_t>& torn) {
  entries.clear();
  sums.clear();
  for (const task_record& task : tasks) {
    if (task.pid == task.tgid) {
      process_entry& entry = entries.emplace_back(entry_of(task, units));
      entry.cpu_ns += task.gone_exec_runtime;
      entry.activity = entry.cpu_ns;
      entry.io_bytes += task.gone_read_bytes + task.gone_write_bytes;
      sums.push_back({&task, 1, true});
    }
  }
  for (const task_record& task : tasks) {
    if (task.pid != task.tgid) {
      add_thread(task, entries);
    }
  }
  leave_out_torn(entries, torn);
}

void task_entries::add_thread(const task_record& task, std::vector<process_entry>& entries) {
  const auto by_pid = [](const process_entry& entry, int32_t pid) { return entry.pid < pid; };
  const auto process = std::lower_bound(entries.begin(), entries.end(), task.tgid, by_pid);
  if (process == entries.end() || process->pid != task.tgid) {
    return;  // of a process that began after its id was passed: it is in the next sample
  }
  process_sum& sum = sums[static_cast<size_t>(process - entries.begin())];
  ++sum.threads;
  process->cpu_ns += task.sum_exec_runtime;
  process->activity = process->cpu_ns;
  process->io_bytes += task.read_bytes + task.write_bytes;
  sum.consistent = sum.consistent && task.nr_threads == sum.first->nr_threads &&
                   task.gone_exec_runtime == sum.first->gone_exec_runtime;
}

void task_entries::leave_out_torn(std::vector<process_entry>& entries,
                                  std::vector<int32_t>& torn) const {
  size_t left = 0;
  for (size_t i = 0; i < entries.size(); ++i) {
    if (sums[i].consistent && sums[i].threads == sums[i].first->nr_threads) {
      entries[left] = entries[i];
      ++left;
    } else {
      torn.push_back(entries[i].pid);
    }
  }
  entries.resize(left);
}

}  // namespace samplers
