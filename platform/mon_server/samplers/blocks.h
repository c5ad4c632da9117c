// SPDX-License-Identifier: Apache-2.0
// Traffic of block devices: /proc/diskstats.
#ifndef SAMPLERS_BLOCKS_H
#define SAMPLERS_BLOCKS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "mon_records.h"
#include "samplers/file_reader.h"

namespace samplers {

// Counters since the device came up, in sectors of 512 bytes whatever the device's own are; both
// may be unknown_u64.
struct block_entry {
  char name[32] = {};
  uint64_t rd_sectors = 0;
  uint64_t wr_sectors = 0;
};

struct block_sample {
  int64_t time_us = 0;  // monotonic
  std::vector<block_entry> entries;
};

// Whole devices but those in memory or on a file of another device (ram, zram, loop), in the
// kernel's order. `whole_devices` are the names of /sys/block, sorted; when it is empty the form of
// a name says whether it is a partition.
void parse_diskstats(std::string_view text, const std::vector<std::string>& whole_devices,
                     std::vector<block_entry>& entries);
int read_block_sample(const file_reader& machine, block_sample& sample);

// Makes counters that are 0 unknown where `before`, the sample taken before, has more: the device
// began anew, or its driver gave zeros for once, and the traffic from there would be all that there
// ever was.
void doubt_zeros(const block_sample* before, block_sample& now);

// The traffic between two samples. It is unknown without `before`, for a device that is new since
// then, and when a counter went down. KiB are counted from the counters' own starts, so that what
// is left of an odd sector is in the next interval and nothing is lost.
std::vector<block_stat> block_rates(const block_sample* before, const block_sample& now);

}  // namespace samplers

#endif
