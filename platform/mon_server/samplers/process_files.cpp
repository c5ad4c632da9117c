// SPDX-License-Identifier: Apache-2.0
#include "samplers/process_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>
#include <utility>

#include "samplers/clock.h"
#include "samplers/room.h"

namespace samplers {
namespace {

// 52 numbers of at most 20 digits and a name of at most 64 bytes fit, and so does all of io: each
// file is one read, which the kernel answers with one consistent text.
constexpr size_t stat_buffer_size = 1536;
constexpr size_t io_buffer_size = 512;

// What may change of a process but hardly ever does (its network namespace, whether its io may be
// read) is looked at again every so many samples, a share of the processes in each.
constexpr uint32_t look_again_turns = 64;

// A thread that does not run is read in full every so many samples.
constexpr uint32_t full_read_turns = 8;

// Out of descriptors or memory ends the sample. Anything else concerns one process: it has ended,
// is hidden from this user (hidepid), or has a line that makes no sense.
bool ends_sample(int error) {
  return error == -EMFILE || error == -ENFILE || error == -ENOMEM;
}

constexpr uint64_t key_of(int32_t pid, int32_t thread_id) {
  return static_cast<uint64_t>(pid) << 32 | static_cast<uint32_t>(thread_id);
}

}  // namespace

// "PID/FILE" or "PID/task/TID/FILE" below /proc, without the cost of a format.
class process_files::file_path {
 public:
  explicit file_path(int32_t pid) : tail(text) { append(pid); }
  file_path(int32_t pid, int32_t thread_id) : file_path(pid) {
    append("/task/");
    append(thread_id);
  }

  const char* file(std::string_view name) {
    char* const folder_end = tail;
    append(name);
    *tail = '\0';
    tail = folder_end;
    return text;
  }

 private:
  void append(std::string_view part) {
    std::memcpy(tail, part.data(), part.size());
    tail += part.size();
  }
  void append(int32_t number) { tail = std::to_chars(tail, text + sizeof text, number).ptr; }

  char text[64];
  char* tail;
};

int process_files::read(const file_reader& machine, size_t most_kept,
                        std::vector<process_entry>& entries) {
  began_us = monotonic_us();
  const int listing = list(machine, pids);
  if (listing != 0) {
    return listing;
  }
  entries.clear();
  found = &entries;
  most_open = most_kept;
  schedule_known = has_schedstat(machine);
  const int result = read_listed(pids);
  if (result != 0) {
    release();  // others need what there is; the next sample does with fewer
  }
  return result;
}

int process_files::list(const file_reader& machine, std::vector<int32_t>& ids) {
  if (!open_proc(machine) || lseek(proc.get(), 0, SEEK_SET) != 0) {
    return -errno;
  }
  const int result = list_numbers(proc.get(), ids);
  if (!std::is_sorted(ids.begin(), ids.end())) {
    std::sort(ids.begin(), ids.end());
  }
  return result;
}

int process_files::read_some(const file_reader& machine, const std::vector<int32_t>& some,
                             std::vector<process_entry>& entries) {
  if (some.empty()) {
    return 0;
  }
  if (!open_proc(machine)) {
    return -errno;
  }
  began_us = monotonic_us();
  found = &entries;
  most_open = 0;
  schedule_known = false;
  return read_listed(some);
}

bool process_files::open_proc(const file_reader& machine) {
  if (!proc) {
    proc = machine.open_folder("proc");
  }
  return static_cast<bool>(proc);
}

int process_files::read_listed(const std::vector<int32_t>& listed) {
  ++turn;
  kept_used = 0;
  int result = 0;
  for (const int32_t pid : listed) {
    const int error = read_process(pid);
    if (ends_sample(error)) {
      result = error;
      break;
    }
  }
  for (; kept_used < kept.size(); ++kept_used) {
    drop(kept[kept_used]);
  }
  std::swap(kept, next);
  next.clear();
  if (is_too_large(next.capacity(), kept.size())) {
    empty_with_room(next);
    give_room_back(kept);
  }
  return result;
}

void process_files::release() {
  kept = std::vector<file_set>();
  next = std::vector<file_set>();
  open_files = 0;
  proc = file_descriptor();
}

int process_files::read_process(int32_t pid) {
  const int result = read_one(pid, pid);
  if (result != 0 || !threads) {
    return result;
  }
  found->back().ppid = pid;
  // The first thread's own files say how many others there are. The process's files would not do
  // even for a single thread: they count threads that have ended, so that a process which drops to
  // one thread would seem to leap.
  return found->back().num_threads > 1 ? read_other_threads(pid) : 0;
}

int process_files::read_other_threads(int32_t pid) {
  file_path path(pid);
  const file_descriptor task(
      openat(proc.get(), path.file("/task"), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!task) {
    return -errno;
  }
  list_numbers(task.get(), task_ids);
  std::sort(task_ids.begin(), task_ids.end());
  for (const int32_t thread_id : task_ids) {
    const int result = thread_id == pid ? -ESRCH : read_one(pid, thread_id);
    if (ends_sample(result)) {
      return result;
    }
    if (result == 0) {
      found->back().ppid = pid;
    }
  }
  return 0;
}

int process_files::read_one(int32_t pid, int32_t thread_id) {
  file_path path = threads ? file_path(pid, thread_id) : file_path(pid);
  file_set& files = take_files(key_of(pid, thread_id));
  const bool known = files.last.pid != 0;
  // schedstat is the first thread's alone, and a running one's may lag behind.
  const bool one_schedule = known && (threads || files.last.num_threads == 1);
  bool has_run = true;
  if (schedule_known && (one_schedule || !known)) {
    const schedule now = read_schedule(files, path);
    has_run = now.times_run == 0 || now.times_run != files.last_run.times_run ||
              now.run_ns != files.last_run.run_ns || files.last.state == 'R';
    files.last_run = now;
  }
  const bool due = (turn + static_cast<uint32_t>(thread_id)) % full_read_turns == 0;
  if (has_run || due) {
    process_entry entry;
    const int result = read_entry(files, path, has_run, entry);
    if (result != 0) {
      drop(files);
      next.pop_back();
      return result;
    }
    const bool one_thread = threads || entry.num_threads == 1;
    entry.activity = one_thread ? files.last_run.times_run : 0;
    files.last = entry;
  }
  files.last.read_ms =
      static_cast<uint16_t>(std::min<int64_t>((monotonic_us() - began_us) / 1000, UINT16_MAX));
  found->push_back(files.last);
  return 0;
}

// Without having run since, a process has read and written nothing.
int process_files::read_entry(file_set& files, file_path& path, bool has_run,
                              process_entry& entry) {
  char buffer[std::max(stat_buffer_size, io_buffer_size)];
  const bool known = files.last.pid != 0;
  const bool keep_open = known && (has_run || has_room_to_spare());
  int size = read_file(files.stat, path.file("/stat"), keep_open, buffer, stat_buffer_size);
  if (size < 0) {
    return size;
  }
  const std::string_view stat(buffer, static_cast<size_t>(size));
  const int result = parse_process_stat(stat, units, entry);
  if (result != 0) {
    return result;
  }
  const bool same_process =
      files.last.pid == entry.pid && files.last.start_ticks == entry.start_ticks;
  entry.net_namespace = files.last.net_namespace;
  if (!same_process || (turn + static_cast<uint32_t>(entry.pid)) % look_again_turns == 0) {
    entry.net_namespace = read_net_namespace(path);
    files.io_refused = false;
  }
  if (!has_run && same_process) {
    entry.io_bytes = files.last.io_bytes;
  } else if (!files.io_refused) {
    size = read_file(files.io, path.file("/io"), known, buffer, io_buffer_size);
    files.io_refused = size == -EACCES || size == -EPERM;
    entry.io_bytes =
        size < 0 ? unknown_u64 : parse_io(std::string_view(buffer, static_cast<size_t>(size)));
  }
  return 0;
}

// The files that are read each time are worth more than those that are read every now and then:
// those of processes to come find room for theirs.
bool process_files::has_room_to_spare() const {
  return open_files + kept.size() / 8 < most_open;
}

process_files::schedule process_files::read_schedule(file_set& files, file_path& path) {
  char buffer[96];
  const int size = read_file(files.schedstat, path.file("/schedstat"), true, buffer, sizeof buffer);
  schedule run;
  if (size > 0) {
    parse_schedstat(std::string_view(buffer, static_cast<size_t>(size)), run.run_ns, run.times_run);
  }
  return run;
}

// A kernel without CONFIG_SCHED_INFO has no schedstat, or one that is always 0.
bool process_files::has_schedstat(const file_reader& machine) const {
  uint64_t run_ns = 0;
  uint64_t times_run = 0;
  return machine.own_machine &&
         parse_schedstat(machine.read_line("proc/self/schedstat"), run_ns, times_run) &&
         times_run != 0;
}

void process_files::drop(file_set& files) {
  open_files -= files.open_count();
  files = file_set();
}

// The files that the sample before kept for `key`, or new ones. Keys ascend within a sample, so
// that those passed over belong to processes that have gone.
process_files::file_set& process_files::take_files(uint64_t key) {
  while (kept_used < kept.size() && kept[kept_used].key < key) {
    drop(kept[kept_used]);
    ++kept_used;
  }
  if (kept_used < kept.size() && kept[kept_used].key == key) {
    next.push_back(std::move(kept[kept_used]));
    ++kept_used;
  } else {
    next.emplace_back().key = key;
  }
  return next.back();
}

uint32_t process_files::read_net_namespace(file_path& path) const {
  struct stat status {};
  const bool known = fstatat(proc.get(), path.file("/ns/net"), &status, 0) == 0;
  return known ? static_cast<uint32_t>(status.st_ino) : 0;
}

// Reads a file by the descriptor that is kept of it, else opens it; it stays open afterwards if
// `keep_open` and the bound allow.
int process_files::read_file(file_descriptor& kept_file, const char* path, bool keep_open,
                             char* buffer, size_t size) {
  ssize_t length = -1;
  if (kept_file) {
    length = pread(kept_file.get(), buffer, size, 0);
    if (length > 0 && keep_open) {
      return static_cast<int>(length);
    }
    kept_file = file_descriptor();
    --open_files;
  }
  if (length > 0) {
    return static_cast<int>(length);
  }
  file_descriptor opened = open_at(proc.get(), path);
  if (!opened) {
    return -errno;
  }
  length = ::read(opened.get(), buffer, size);
  if (length < 0) {
    return -errno;
  }
  if (keep_open && open_files < most_open) {
    kept_file = std::move(opened);
    ++open_files;
  }
  return static_cast<int>(length);
}

}  // namespace samplers
