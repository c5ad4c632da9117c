// SPDX-License-Identifier: Apache-2.0
// The machine's memory: /proc/meminfo.
#ifndef SAMPLERS_MEMORY_H
#define SAMPLERS_MEMORY_H

#include <cstdint>
#include <string_view>

#include "mon_records.h"
#include "samplers/file_reader.h"

namespace samplers {

// The figure of one line of /proc/meminfo in KiB ("MemTotal"), unknown_u64 when there is none.
uint64_t meminfo_value(std::string_view text, std::string_view name);

// A line that is missing makes its figure unknown_u64.
int parse_meminfo(std::string_view text, meminfo& info);

struct memory_sample {
  int64_t time_us = 0;
  meminfo info{};
  uint64_t swap_total = unknown_u64;  // KiB
  uint64_t swap_free = unknown_u64;   // KiB
};

int read_memory_sample(const file_reader& machine, memory_sample& sample);

}  // namespace samplers

#endif
