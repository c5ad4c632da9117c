// SPDX-License-Identifier: Apache-2.0
// Processes read from their files in /proc: stat and io, and schedstat to leave most of them alone.
//
// A thread that has not been scheduled since the sample before has the same figures as then, and
// most have not: its schedstat, the cheapest file to read, says so. Its resident pages may have
// been reclaimed and its priority changed by others all the same, so that each is read in full
// every few samples.
//
// Opening, reading and closing a file costs two to three times what reading it again does, so as
// many as allowed stay open from sample to sample. A kept file of a process that has ended answers
// ESRCH, also when its pid has a new owner.
#ifndef SAMPLERS_PROCESS_FILES_H
#define SAMPLERS_PROCESS_FILES_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "samplers/file_descriptor.h"
#include "samplers/file_reader.h"
#include "samplers/process_stat.h"
#include "samplers/processes.h"

namespace samplers {

// The files of all processes, or of all threads.
class process_files {
 public:
  explicit process_files(bool threads_not_processes) : threads(threads_not_processes) {}

  // Fills in what the files say of each process, in the order of process ids. One that ends while
  // it is read is left out. `most_kept` bounds the descriptors that stay open.
  int read(const file_reader& machine, size_t most_kept, std::vector<process_entry>& entries);

  // The ids of all processes, ascending.
  int list(const file_reader& machine, std::vector<int32_t>& ids);

  // Adds some processes, by ascending ids, to the entries; keeps nothing open.
  int read_some(const file_reader& machine, const std::vector<int32_t>& some,
                std::vector<process_entry>& entries);

  // Closes all kept descriptors.
  void release();
  size_t kept_open() const { return open_files; }

  // Those that have not run are left alone: the kernel tells which.
  bool leaves_idle_alone() const { return schedule_known; }

 private:
  // The scheduler's figures of a thread; proc(5), /proc/PID/schedstat.
  struct schedule {
    uint64_t run_ns = 0;
    uint64_t times_run = 0;  // 0: not known
  };
  // Of a process, or of a thread.
  struct file_set {
    size_t open_count() const { return (schedstat ? 1U : 0U) + (stat ? 1U : 0U) + (io ? 1U : 0U); }

    uint64_t key = 0;  // process id and thread id
    file_descriptor schedstat;
    file_descriptor stat;
    file_descriptor io;
    bool io_refused = false;
    schedule last_run;   // when `last` was read
    process_entry last;  // pid 0: not read yet
  };
  class file_path;

  bool open_proc(const file_reader& machine);
  void drop(file_set& files);
  int read_listed(const std::vector<int32_t>& listed);
  int read_process(int32_t pid);
  int read_other_threads(int32_t pid);
  int read_one(int32_t pid, int32_t thread_id);
  file_set& take_files(uint64_t key);
  int read_entry(file_set& files, file_path& path, bool has_run, process_entry& entry);
  schedule read_schedule(file_set& files, file_path& path);
  bool has_schedstat(const file_reader& machine) const;
  bool has_room_to_spare() const;
  int read_file(file_descriptor& kept, const char* path, bool keep_open, char* buffer, size_t size);
  uint32_t read_net_namespace(file_path& path) const;

  const bool threads;
  const stat_units units;
  file_descriptor proc;           // /proc, kept open
  std::vector<int32_t> pids;      // of the sample that is being taken
  std::vector<int32_t> task_ids;  // of one process
  std::vector<file_set> kept;     // of the sample before, by key
  size_t kept_used = 0;           // those before this one were handed on
  std::vector<file_set> next;     // of this sample
  size_t open_files = 0;          // in both
  size_t most_open = 0;
  uint32_t turn = 0;     // counts samples
  int64_t began_us = 0;  // when the sample was begun; monotonic
  bool schedule_known = false;
  std::vector<process_entry>* found = nullptr;
};

}  // namespace samplers

#endif
