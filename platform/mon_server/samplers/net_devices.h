// SPDX-License-Identifier: Apache-2.0
// Traffic of network devices: /proc/net/dev.
#ifndef SAMPLERS_NET_DEVICES_H
#define SAMPLERS_NET_DEVICES_H

#include <cstdint>
#include <string_view>
#include <vector>

#include "mon_records.h"
#include "samplers/file_reader.h"

namespace samplers {

// Counters since the device came up; any may be unknown_u64.
struct net_entry {
  char dev_name[16] = {};
  uint64_t received = unknown_u64;  // bytes
  uint64_t sent = unknown_u64;      // bytes
  uint64_t errors = unknown_u64;    // packets, both directions
  uint64_t drops = unknown_u64;     // packets, both directions
};

struct net_sample {
  int64_t time_us = 0;             // monotonic
  std::vector<net_entry> entries;  // in the kernel's order
};

void parse_net_dev(std::string_view text, std::vector<net_entry>& entries);
int read_net_sample(const file_reader& machine, net_sample& sample);

// Makes each count of 0 unknown where `before`, the sample taken before, has more: the device began
// anew, or its driver gave zeros for once, and a rate from there would be all that it ever carried.
void doubt_zeros(const net_sample* before, net_sample& now);

// The rates between two samples, of both directions together or of each. A rate is unknown without
// `before`, for a device that is new since then, and when a counter of it went down (32 bits wide
// on some drivers).
std::vector<net_stat> net_rates(const net_sample* before, const net_sample& now);
std::vector<net_traffic> net_rates_by_direction(const net_sample* before, const net_sample& now);

}  // namespace samplers

#endif
