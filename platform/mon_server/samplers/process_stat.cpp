// SPDX-License-Identifier: Apache-2.0
#include "samplers/process_stat.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>

#include "samplers/clock.h"
#include "samplers/text.h"

namespace samplers {
namespace {

// Fields as proc_pid_stat(5) numbers them.
constexpr int field_state = 3;
constexpr int field_ppid = 4;
constexpr int field_utime = 14;
constexpr int field_stime = 15;
constexpr int field_priority = 18;
constexpr int field_num_threads = 20;
constexpr int field_starttime = 22;
constexpr int field_rss = 24;
constexpr int field_processor = 39;

// pid (1) and comm (2), which may hold blanks, parentheses and line ends: it ends at the last ')'
// of the line. Returns where the rest begins, 0 when the line is cut short.
size_t parse_pid_and_comm(std::string_view text, process_entry& entry) {
  const size_t open = text.find('(');
  const size_t close = text.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) {
    return 0;
  }
  const auto [stop, error] = std::from_chars(text.data(), text.data() + open, entry.pid);
  if (error != std::errc() || stop == text.data()) {
    return 0;
  }
  constexpr size_t comm_length = sizeof entry.comm - 1;
  const std::string_view comm = text.substr(open + 1, close - open - 1);
  copy_name(comm.substr(0, comm_length), entry.comm);
  return close + 1;
}

void store_field(int field, int64_t value, const stat_units& units, process_entry& entry) {
  switch (field) {
    case field_ppid:
      entry.ppid = static_cast<int32_t>(value);
      break;
    case field_utime:
      entry.cpu_ns = static_cast<uint64_t>(value) * units.tick_ns;
      break;
    case field_stime:
      entry.cpu_ns += static_cast<uint64_t>(value) * units.tick_ns;
      break;
    case field_priority:
      entry.priority = saturate(value);
      break;
    case field_num_threads:
      entry.num_threads = static_cast<int32_t>(value);
      break;
    case field_starttime:
      entry.start_ticks = static_cast<uint64_t>(value);
      break;
    case field_rss:
      entry.rss_kb = static_cast<int64_t>(static_cast<uint64_t>(value) * units.page_kb);
      break;
    case field_processor:
      entry.processor = saturate(value);
      break;
    default:
      break;
  }
}

bool is_wanted(int field) {
  constexpr uint64_t wanted = 1ULL << field_ppid | 1ULL << field_utime | 1ULL << field_stime |
                              1ULL << field_priority | 1ULL << field_num_threads |
                              1ULL << field_starttime | 1ULL << field_rss | 1ULL << field_processor;
  return (wanted >> field & 1) != 0;
}

}  // namespace

stat_units::stat_units()
    : page_kb(static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024),
      tick_ns(1000000000 / static_cast<uint64_t>(sysconf(_SC_CLK_TCK))) {}

int parse_process_stat(std::string_view text, const stat_units& units, process_entry& entry) {
  const size_t rest = parse_pid_and_comm(text, entry);
  if (rest == 0 || text.size() < rest + 2) {
    return -EBADMSG;
  }
  entry.state = text[rest + 1];
  const char* position = text.data() + rest + 2;
  const char* const end = text.data() + text.size();
  for (int field = field_state + 1; field <= field_processor; ++field) {
    if (position == end || *position != ' ') {
      return -EBADMSG;
    }
    ++position;
    if (is_wanted(field)) {
      int64_t value = 0;
      const auto [stop, error] = std::from_chars(position, end, value);
      if (error != std::errc()) {
        return -EBADMSG;
      }
      store_field(field, value, units, entry);
      position = stop;
    } else {
      position = std::find(position, end, ' ');
    }
  }
  return 0;
}

uint64_t parse_io(std::string_view text) {
  uint64_t read_bytes = unknown_u64;
  uint64_t write_bytes = unknown_u64;
  while (!text.empty()) {
    std::string_view line = take_line(text);
    const std::string_view label = take_word(line);
    if (label == "read_bytes:") {
      read_bytes = to_u64(take_word(line));
    } else if (label == "write_bytes:") {
      write_bytes = to_u64(take_word(line));
    }
  }
  const bool known = read_bytes != unknown_u64 && write_bytes != unknown_u64;
  return known ? read_bytes + write_bytes : unknown_u64;
}

bool parse_schedstat(std::string_view text, uint64_t& run_ns, uint64_t& times_run) {
  std::string_view line = take_line(text);
  run_ns = to_u64(take_word(line));
  const uint64_t waited_ns = to_u64(take_word(line));
  times_run = to_u64(take_word(line));
  return run_ns != unknown_u64 && waited_ns != unknown_u64 && times_run != unknown_u64;
}

uint64_t parse_uptime(std::string_view text, int64_t ticks_per_second) {
  const double seconds = leading_number(text);
  // Up to a hundred years; anything else is no uptime, and no process has a life then.
  return seconds >= 0 && seconds < 3.2e9
             ? static_cast<uint64_t>(seconds * static_cast<double>(ticks_per_second))
             : 0;
}

uint64_t read_uptime(const file_reader& machine, int64_t ticks_per_second) {
  if (machine.own_machine) {
    // The clock that start times are in; it counts on while the machine is suspended.
    return static_cast<uint64_t>(clock_us(CLOCK_BOOTTIME) / (1000000 / ticks_per_second));
  }
  return parse_uptime(machine.read_line("proc/uptime"), ticks_per_second);
}

}  // namespace samplers
