// SPDX-License-Identifier: Apache-2.0
#include "samplers/system.h"

#include <algorithm>
#include <limits>

#include "samplers/clock.h"
#include "samplers/process_stat.h"
#include "samplers/text.h"

namespace samplers {
namespace {

constexpr float unknown_figure = std::numeric_limits<float>::quiet_NaN();

// Samples between two looks for files that may not be there.
constexpr uint32_t look_again_turns = 64;

constexpr size_t most_zrams = 32;

// The kernel has no ids for more (PID_MAX_LIMIT), so no load is higher.
constexpr double most_tasks = 4194304;

// The number of "total=" in a line of a pressure file.
uint64_t total_of(std::string_view line) {
  constexpr std::string_view label = "total=";
  for (std::string_view word = take_word(line); !word.empty(); word = take_word(line)) {
    if (starts_with(word, label)) {
      return to_u64(word.substr(label.size()));
    }
  }
  return unknown_u64;
}

pressure_times read_pressure(const file_reader& machine, const char* path) {
  char text[256];  // two lines of at most 80 bytes
  const int size = machine.read(path, text, sizeof text);
  return size > 0 ? parse_pressure({text, static_cast<size_t>(size)}) : pressure_times();
}

// Percent of the interval. The kernel brings a counter up to date for its readers, at times with
// a little more than the time that has passed.
float share_between(uint64_t before, uint64_t now, int64_t interval_us) {
  if (before == unknown_u64 || now == unknown_u64 || now < before || interval_us <= 0) {
    return unknown_figure;
  }
  const double share = static_cast<double>(now - before) * 100 / static_cast<double>(interval_us);
  return static_cast<float>(std::min(share, 100.0));
}

}  // namespace

// "0.20 0.18 0.12 2/80 11206": three averages, tasks that run and tasks that exist, the last pid.
void parse_loadavg(std::string_view text, system_stat& stat) {
  for (float* load : {&stat.load_1, &stat.load_5, &stat.load_15}) {
    const double average = leading_number(take_word(text));
    *load = average >= 0 && average < most_tasks ? static_cast<float>(average) : unknown_figure;
  }
  const std::string_view tasks = take_word(text);
  const size_t slash = tasks.find('/');
  const uint64_t count =
      slash == std::string_view::npos ? unknown_u64 : to_u64(tasks.substr(slash + 1));
  stat.tasks = static_cast<uint32_t>(std::min<uint64_t>(count, unknown_u32));
}

// "some avg10=0.12 avg60=0.32 avg300=0.26 total=4403593", then such a line of "full".
pressure_times parse_pressure(std::string_view text) {
  pressure_times times;
  while (!text.empty()) {
    std::string_view line = take_line(text);
    const std::string_view kind = take_word(line);
    if (kind == "some") {
      times.some = total_of(line);
    } else if (kind == "full") {
      times.full = total_of(line);
    }
  }
  return times;
}

// Columns as the kernel's zram.rst has them, in bytes.
zram_use parse_mm_stat(std::string_view text) {
  const uint64_t data = to_u64(take_word(text));  // orig_data_size
  take_word(text);                                // compr_data_size
  const uint64_t used = to_u64(take_word(text));  // mem_used_total
  const bool known = data != unknown_u64 && used != unknown_u64;
  return known ? zram_use{data / 1024, used / 1024} : zram_use();
}

void system_sampler::read(const file_reader& machine, const cpu_sample* cpus,
                          const memory_sample* memory, system_sample& sample) {
  if (turn++ % look_again_turns == 0) {
    look_for_files(machine);
  }
  sample.time_us = monotonic_us();
  sample.cpu = sample.io = sample.memory = pressure_times();
  if (has_pressure) {
    sample.cpu = read_pressure(machine, "proc/pressure/cpu");
    sample.io = read_pressure(machine, "proc/pressure/io");
    sample.memory = read_pressure(machine, "proc/pressure/memory");
  }
  parse_loadavg(machine.read_line("proc/loadavg"), sample.stat);
  sample.stat.tasks_running = cpus == nullptr ? unknown_u32 : cpus->tasks_running;
  sample.stat.tasks_blocked = cpus == nullptr ? unknown_u32 : cpus->tasks_blocked;
  const uint64_t uptime_s = read_uptime(machine, 1);
  sample.stat.uptime_s = uptime_s == 0 ? unknown_u64 : uptime_s;
  sample.stat.swap_total = memory == nullptr ? unknown_u64 : memory->swap_total;
  sample.stat.swap_free = memory == nullptr ? unknown_u64 : memory->swap_free;
}

// The pressure files are there without answering when the kernel was started with psi=0.
void system_sampler::look_for_files(const file_reader& machine) {
  has_pressure = read_pressure(machine, "proc/pressure/memory").some != unknown_u64;
  machine.list("sys/block", zrams);
  const auto is_none = [&machine](const std::string& name) {
    return !starts_with(name, "zram") ||
           machine.read_u64(("sys/block/" + name + "/disksize").c_str()) == 0;
  };
  zrams.erase(std::remove_if(zrams.begin(), zrams.end(), is_none), zrams.end());
  zrams.resize(std::min(zrams.size(), most_zrams));
}

zram_use read_zram(const file_reader& machine, const std::vector<std::string>& devices) {
  zram_use all;
  for (const std::string& device : devices) {
    const zram_use one =
        parse_mm_stat(machine.read_line(("sys/block/" + device + "/mm_stat").c_str()));
    if (one.data == unknown_u64) {
      return {};
    }
    all = all.data == unknown_u64 ? one : zram_use{all.data + one.data, all.used + one.used};
  }
  return all;
}

system_stat system_figures(const system_sample* before, const system_sample& now) {
  const system_sample nothing;
  const system_sample& start = before == nullptr ? nothing : *before;
  const int64_t interval_us = before == nullptr ? 0 : now.time_us - before->time_us;
  system_stat stat = now.stat;
  stat.cpu_some = share_between(start.cpu.some, now.cpu.some, interval_us);
  stat.io_some = share_between(start.io.some, now.io.some, interval_us);
  stat.io_full = share_between(start.io.full, now.io.full, interval_us);
  stat.memory_some = share_between(start.memory.some, now.memory.some, interval_us);
  stat.memory_full = share_between(start.memory.full, now.memory.full, interval_us);
  stat.zram_data = unknown_u64;
  stat.zram_used = unknown_u64;
  return stat;
}

}  // namespace samplers
