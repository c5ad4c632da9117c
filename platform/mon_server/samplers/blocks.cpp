// SPDX-License-Identifier: Apache-2.0
#include "samplers/blocks.h"

#include <algorithm>
#include <cerrno>

#include "samplers/clock.h"
#include "samplers/text.h"

namespace samplers {
namespace {

constexpr std::string_view digits = "0123456789";

// `name` is `prefix` and a number.
bool is_numbered(std::string_view name, std::string_view prefix) {
  return starts_with(name, prefix) && name.size() > prefix.size() &&
         name.find_first_not_of(digits, prefix.size()) == std::string_view::npos;
}

bool is_virtual(std::string_view name) {
  return is_numbered(name, "loop") || is_numbered(name, "ram") || is_numbered(name, "zram");
}

// A partition is its disk's name and a number, set off by a 'p' where the disk ends with a digit
// (sda1, mmcblk0p1). Of disks that end with a letter only these have plain numbers; dm-0 and sr0
// are devices.
bool is_partition_name(std::string_view name) {
  const size_t last = name.find_last_not_of(digits);
  if (last == std::string_view::npos || last + 1 == name.size()) {
    return false;
  }
  if (name[last] == 'p' && last > 0 && digits.find(name[last - 1]) != std::string_view::npos) {
    return true;
  }
  for (const char* disk : {"sd", "hd", "vd", "xvd"}) {
    if (starts_with(name, disk) && last >= std::string_view(disk).size()) {
      return true;
    }
  }
  return false;
}

bool is_whole_device(std::string_view name, const std::vector<std::string>& whole_devices) {
  if (whole_devices.empty()) {
    return !is_partition_name(name);
  }
  // sysfs writes "cciss!c0d0" for cciss/c0d0.
  std::string folder(name);
  std::replace(folder.begin(), folder.end(), '/', '!');
  return std::binary_search(whole_devices.begin(), whole_devices.end(), folder, natural_less);
}

// A line of /proc/diskstats, of 14, 18 or 20 columns; the kernel's iostats.rst numbers them from
// the first counter on.
bool parse_line(std::string_view line, std::string_view& name, block_entry& entry) {
  take_word(line);  // major
  take_word(line);  // minor
  name = take_word(line);
  take_word(line);                             // (1) reads completed
  take_word(line);                             // (2) reads merged
  entry.rd_sectors = to_u64(take_word(line));  // (3) sectors read
  take_word(line);                             // (4) ms spent reading
  take_word(line);                             // (5) writes completed
  take_word(line);                             // (6) writes merged
  entry.wr_sectors = to_u64(take_word(line));  // (7) sectors written
  return entry.rd_sectors != unknown_u64 && entry.wr_sectors != unknown_u64;
}

block_stat unknown_traffic(const block_entry& entry, uint64_t interval_ms) {
  block_stat stat{};
  copy_name(std::string_view(entry.name, sizeof entry.name), stat.name);
  stat.rd_kb = unknown_u64;
  stat.wr_kb = unknown_u64;
  stat.interval_ms = interval_ms;
  return stat;
}

// The device in another sample, null if it is not there or its counters are unknown.
const block_entry* known_in(const block_sample* sample, const block_entry& entry) {
  if (sample == nullptr) {
    return nullptr;
  }
  const auto found = std::find_if(
      sample->entries.begin(), sample->entries.end(),
      [&entry](const block_entry& other) { return same_name(other.name, entry.name); });
  return found == sample->entries.end() || found->rd_sectors == unknown_u64 ? nullptr : &*found;
}

}  // namespace

void parse_diskstats(std::string_view text, const std::vector<std::string>& whole_devices,
                     std::vector<block_entry>& entries) {
  entries.clear();
  while (!text.empty() && entries.size() < mon_fields::description<block_stat>::most) {
    block_entry entry;
    std::string_view name;
    if (parse_line(take_line(text), name, entry) && !is_virtual(name) &&
        is_whole_device(name, whole_devices)) {
      copy_name(name, entry.name);
      entries.push_back(entry);
    }
  }
}

int read_block_sample(const file_reader& machine, block_sample& sample) {
  std::string content;
  const int error = machine.read("proc/diskstats", content);
  sample.time_us = monotonic_us();
  sample.entries.clear();
  if (error != 0) {
    return error;
  }
  std::vector<std::string> whole_devices;
  machine.list("sys/block", whole_devices);
  parse_diskstats(content, whole_devices, sample.entries);
  return 0;
}

void doubt_zeros(const block_sample* before, block_sample& now) {
  for (block_entry& entry : now.entries) {
    const block_entry* start = known_in(before, entry);
    const bool zeros = entry.rd_sectors == 0 && entry.wr_sectors == 0;
    if (zeros && start != nullptr && (start->rd_sectors != 0 || start->wr_sectors != 0)) {
      entry.rd_sectors = entry.wr_sectors = unknown_u64;
    }
  }
}

std::vector<block_stat> block_rates(const block_sample* before, const block_sample& now) {
  std::vector<block_stat> stats;
  stats.reserve(now.entries.size());
  const bool has_interval = before != nullptr && before->time_us < now.time_us;
  const uint64_t interval_ms =
      has_interval ? static_cast<uint64_t>(now.time_us - before->time_us) / 1000 : 0;
  for (const block_entry& entry : now.entries) {
    block_stat stat = unknown_traffic(entry, interval_ms);
    const block_entry* start = has_interval ? known_in(before, entry) : nullptr;
    if (start != nullptr && entry.rd_sectors != unknown_u64 &&
        start->rd_sectors <= entry.rd_sectors && start->wr_sectors <= entry.wr_sectors) {
      stat.rd_kb = entry.rd_sectors / 2 - start->rd_sectors / 2;
      stat.wr_kb = entry.wr_sectors / 2 - start->wr_sectors / 2;
    }
    stats.push_back(stat);
  }
  return stats;
}

}  // namespace samplers
