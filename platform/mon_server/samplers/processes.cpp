#include "samplers/processes.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <tuple>

#include "samplers/clock.h"

namespace samplers {
namespace {

// 52 numbers of at most 20 digits and a name of at most 64 bytes fit, and so does all of io: each
// file is one read, which the kernel answers with one consistent text.
constexpr size_t stat_buffer_size = 1536;
constexpr size_t io_buffer_size = 512;

// "NUMBER/FILE" below /proc or a task folder, without the cost of a format.
class numbered_path {
 public:
  explicit numbered_path(int32_t number)
      : tail(std::to_chars(text, text + sizeof text, number).ptr) {}

  const char* file(std::string_view name) {
    std::memcpy(tail, name.data(), name.size());
    tail[name.size()] = '\0';
    return text;
  }

 private:
  char text[48];
  char* tail;
};

uint64_t read_io(int folder_fd, const char* path) {
  char buffer[io_buffer_size];
  const int size = read_at(folder_fd, path, buffer, sizeof buffer);
  return size < 0 ? unknown_u64 : parse_io(std::string_view(buffer, static_cast<size_t>(size)));
}

int read_stat(int folder_fd, const char* path, int64_t page_kb, process_entry& entry) {
  char buffer[stat_buffer_size];
  const int size = read_at(folder_fd, path, buffer, sizeof buffer);
  if (size < 0) {
    return size;
  }
  return parse_process_stat(std::string_view(buffer, static_cast<size_t>(size)), page_kb, entry);
}

// Out of descriptors or memory ends the sample. Anything else concerns one process: it has ended,
// is hidden from this user (hidepid), or has a line that makes no sense.
bool ends_sample(int error) {
  return error == -EMFILE || error == -ENFILE || error == -ENOMEM;
}

// What one pass over /proc needs.
struct pass {
  int proc_fd;
  int64_t page_kb;
  std::vector<process_entry>& entries;
};

int read_process(const pass& scan, int32_t pid) {
  numbered_path path(pid);
  process_entry entry;
  const int result = read_stat(scan.proc_fd, path.file("/stat"), scan.page_kb, entry);
  if (result != 0) {
    return result;
  }
  entry.io_bytes = read_io(scan.proc_fd, path.file("/io"));
  scan.entries.push_back(entry);
  return 0;
}

int read_other_threads(const pass& scan, int32_t pid, std::vector<int32_t>& thread_ids) {
  numbered_path path(pid);
  const file_descriptor task(
      openat(scan.proc_fd, path.file("/task"), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!task) {
    return -errno;
  }
  list_numbers(task.get(), thread_ids);
  const pass tasks{task.get(), scan.page_kb, scan.entries};
  for (const int32_t thread_id : thread_ids) {
    const int result = thread_id == pid ? 0 : read_process(tasks, thread_id);
    if (ends_sample(result)) {
      return result;
    }
    if (result == 0 && thread_id != pid) {
      scan.entries.back().ppid = pid;
    }
  }
  return 0;
}

// The first thread's own files say how many others there are. The process's files would not do even
// for a single thread: they count threads that have ended, so that a process which drops to one
// thread would seem to leap.
int read_threads(const pass& scan, int32_t pid, std::vector<int32_t>& thread_ids) {
  char path[48];
  std::snprintf(path, sizeof path, "%d/task/%d/stat", pid, pid);
  process_entry entry;
  const int result = read_stat(scan.proc_fd, path, scan.page_kb, entry);
  if (result != 0) {
    return result;
  }
  std::snprintf(path, sizeof path, "%d/task/%d/io", pid, pid);
  entry.io_bytes = read_io(scan.proc_fd, path);
  entry.ppid = pid;
  scan.entries.push_back(entry);
  return entry.num_threads > 1 ? read_other_threads(scan, pid, thread_ids) : 0;
}

uint64_t read_uptime(const file_reader& machine, int64_t ticks_per_second) {
  if (machine.own_machine) {
    // The clock that start times are in; it counts on while the machine is suspended.
    return static_cast<uint64_t>(clock_us(CLOCK_BOOTTIME) / (1000000 / ticks_per_second));
  }
  return parse_uptime(machine.read_line("proc/uptime"), ticks_per_second);
}

bool by_pid_and_start(const process_entry& a, const process_entry& b) {
  return std::tie(a.pid, a.start_ticks) < std::tie(b.pid, b.start_ticks);
}

}  // namespace

int read_process_sample(const file_reader& machine, bool threads, process_sample& sample) {
  sample.ticks_per_second = sysconf(_SC_CLK_TCK);
  sample.threads = threads;
  sample.entries.clear();
  sample.time_us = monotonic_us();
  sample.uptime_ticks = read_uptime(machine, sample.ticks_per_second);
  const file_descriptor proc = machine.open_folder("proc");
  if (!proc) {
    return -errno;
  }
  std::vector<int32_t> pids;
  int result = list_numbers(proc.get(), pids);
  std::vector<int32_t> thread_ids;
  const pass scan{proc.get(), sysconf(_SC_PAGESIZE) / 1024, sample.entries};
  for (const int32_t pid : pids) {
    const int read = threads ? read_threads(scan, pid, thread_ids) : read_process(scan, pid);
    if (ends_sample(read)) {
      result = read;
      break;
    }
  }
  if (!std::is_sorted(sample.entries.begin(), sample.entries.end(), by_pid_and_start)) {
    std::sort(sample.entries.begin(), sample.entries.end(), by_pid_and_start);
  }
  return result;
}

}  // namespace samplers
