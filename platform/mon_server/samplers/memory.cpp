// SPDX-License-Identifier: Apache-2.0
#include "samplers/memory.h"

#include <cerrno>
#include <string>

#include "samplers/clock.h"
#include "samplers/text.h"

namespace samplers {

uint64_t meminfo_value(std::string_view text, std::string_view name) {
  while (!text.empty()) {
    std::string_view line = take_line(text);
    if (starts_with(line, name) && line.substr(name.size(), 1) == ":") {
      line.remove_prefix(name.size() + 1);
      return to_u64(take_word(line));
    }
  }
  return unknown_u64;
}

int parse_meminfo(std::string_view text, meminfo& info) {
  info.memTotal = meminfo_value(text, "MemTotal");
  info.memfree = meminfo_value(text, "MemFree");
  info.memAvailable = meminfo_value(text, "MemAvailable");  // since Linux 3.14
  info.buffer = meminfo_value(text, "Buffers");
  info.cached = meminfo_value(text, "Cached");
  info.slab = meminfo_value(text, "Slab");
  const uint64_t active_file = meminfo_value(text, "Active(file)");      // since Linux 2.6.28
  const uint64_t inactive_file = meminfo_value(text, "Inactive(file)");  // since Linux 2.6.28
  const bool has_file = active_file != unknown_u64 && inactive_file != unknown_u64;
  info.file = has_file ? active_file + inactive_file : unknown_u64;
  info.anon = meminfo_value(text, "AnonPages");  // since Linux 2.6.18
  return info.memTotal == unknown_u64 ? -EBADMSG : 0;
}

int read_memory_sample(const file_reader& machine, memory_sample& sample) {
  std::string content;
  const int error = machine.read("proc/meminfo", content);
  sample.time_us = monotonic_us();
  const int result = parse_meminfo(content, sample.info);
  sample.swap_total = meminfo_value(content, "SwapTotal");
  sample.swap_free = meminfo_value(content, "SwapFree");
  return error != 0 ? error : result;
}

}  // namespace samplers
