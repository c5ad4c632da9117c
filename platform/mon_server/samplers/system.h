// SPDX-License-Identifier: Apache-2.0
// The machine as a whole: load, tasks, uptime, pressure (PSI), swap and zram.
#ifndef SAMPLERS_SYSTEM_H
#define SAMPLERS_SYSTEM_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "mon_records.h"
#include "samplers/cpu.h"
#include "samplers/file_reader.h"
#include "samplers/memory.h"

namespace samplers {

// Time since boot that tasks waited for a resource, in µs; unknown_u64 without the kernel's figure.
struct pressure_times {
  uint64_t some = unknown_u64;  // some task waited
  uint64_t full = unknown_u64;  // every task that had work waited
};

struct system_sample {
  int64_t time_us = 0;  // monotonic
  system_stat stat{};   // without the shares of pressure and without zram
  pressure_times cpu;
  pressure_times io;
  pressure_times memory;
};

// What zram devices hold and take, in KiB; unknown_u64 without any.
struct zram_use {
  uint64_t data = unknown_u64;
  uint64_t used = unknown_u64;
};

// Texts of /proc/loadavg, /proc/pressure/RESOURCE and /sys/block/zramN/mm_stat. What a text lacks
// is unknown.
void parse_loadavg(std::string_view text, system_stat& stat);
pressure_times parse_pressure(std::string_view text);
zram_use parse_mm_stat(std::string_view text);

// Reads for one client after the other. Files that this kernel does not have are looked for every
// now and then, not in each sample.
class system_sampler {
 public:
  // Takes the tasks' states and the swap space from samples of /proc/stat and /proc/meminfo; null
  // when there is none.
  void read(const file_reader& machine, const cpu_sample* cpus, const memory_sample* memory,
            system_sample& sample);

  // The zram devices that are set up, as far as they have been found.
  const std::vector<std::string>& zram_devices() const { return zrams; }

 private:
  void look_for_files(const file_reader& machine);

  uint32_t turn = 0;  // counts samples
  bool has_pressure = false;
  std::vector<std::string> zrams;
};

// Sums over devices, unknown when one of them cannot be read. May wait for a device that is being
// written back or set up anew.
zram_use read_zram(const file_reader& machine, const std::vector<std::string>& devices);

// The newest figures, with pressure over the time between two samples: unknown without `before` and
// when a counter went down. zram is left unknown.
system_stat system_figures(const system_sample* before, const system_sample& now);

}  // namespace samplers

#endif
