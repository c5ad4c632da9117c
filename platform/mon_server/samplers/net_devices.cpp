// SPDX-License-Identifier: Apache-2.0
#include "samplers/net_devices.h"

#include <algorithm>
#include <limits>
#include <string>

#include "samplers/clock.h"
#include "samplers/text.h"

namespace samplers {
namespace {

uint64_t sum(uint64_t a, uint64_t b) {
  return a == unknown_u64 || b == unknown_u64 ? unknown_u64 : a + b;
}

// "  eth0:123 ...", where the first number may touch the colon. An alias has a colon of its own
// ("eth0:1:"), the counters have none. The columns are 8 of received packets, then 8 of sent ones;
// see proc_pid_net(5).
bool parse_line(std::string_view line, net_entry& entry) {
  const size_t colon = line.rfind(':');
  if (colon == std::string_view::npos) {
    return false;
  }
  std::string_view label = line.substr(0, colon);
  copy_name(take_word(label), entry.dev_name);
  line.remove_prefix(colon + 1);
  // Of each direction: bytes, packets, errs, drop, and four others.
  constexpr size_t columns = 12;
  uint64_t column[columns];
  for (uint64_t& value : column) {
    value = to_u64(take_word(line));
  }
  entry.received = column[0];
  entry.sent = column[8];
  entry.errors = sum(column[2], column[10]);
  entry.drops = sum(column[3], column[11]);
  return entry.received != unknown_u64 && entry.sent != unknown_u64;
}

// The device in another sample, null if it is not there.
const net_entry* find_device(const net_sample* sample, const net_entry& entry) {
  if (sample == nullptr) {
    return nullptr;
  }
  const auto found = std::find_if(
      sample->entries.begin(), sample->entries.end(),
      [&entry](const net_entry& other) { return same_name(other.dev_name, entry.dev_name); });
  return found == sample->entries.end() ? nullptr : &*found;
}

// KiB/s over an interval, NaN when it is unknown.
double rate_between(uint64_t before, uint64_t now, int64_t interval_us) {
  if (before == unknown_u64 || now == unknown_u64 || before > now || interval_us <= 0) {
    return std::numeric_limits<double>::quiet_NaN();
  }
  return static_cast<double>(now - before) / 1024 / (static_cast<double>(interval_us) / 1e6);
}

}  // namespace

void parse_net_dev(std::string_view text, std::vector<net_entry>& entries) {
  entries.clear();
  while (!text.empty() && entries.size() < mon_fields::description<net_traffic>::most) {
    net_entry entry;
    if (parse_line(take_line(text), entry)) {
      entries.push_back(entry);
    }
  }
}

int read_net_sample(const file_reader& machine, net_sample& sample) {
  std::string content;
  const int error = machine.read("proc/net/dev", content);
  sample.time_us = monotonic_us();
  parse_net_dev(content, sample.entries);
  return error;
}

void doubt_zeros(const net_sample* before, net_sample& now) {
  for (net_entry& entry : now.entries) {
    const net_entry* start = find_device(before, entry);
    for (const auto count :
         {&net_entry::received, &net_entry::sent, &net_entry::errors, &net_entry::drops}) {
      const bool had_more = start != nullptr && start->*count != 0 && start->*count != unknown_u64;
      if (entry.*count == 0 && had_more) {
        entry.*count = unknown_u64;
      }
    }
  }
}

std::vector<net_traffic> net_rates_by_direction(const net_sample* before, const net_sample& now) {
  std::vector<net_traffic> all;
  all.reserve(now.entries.size());
  const int64_t interval_us = before == nullptr ? 0 : now.time_us - before->time_us;
  for (const net_entry& entry : now.entries) {
    const net_entry* found = find_device(before, entry);
    const net_entry start = found == nullptr ? net_entry() : *found;
    net_traffic traffic{};
    copy_name(std::string_view(entry.dev_name, sizeof entry.dev_name), traffic.dev_name);
    traffic.total = sum(entry.received, entry.sent);
    traffic.rx_rate = rate_between(start.received, entry.received, interval_us);
    traffic.tx_rate = rate_between(start.sent, entry.sent, interval_us);
    traffic.errors = entry.errors;
    traffic.drops = entry.drops;
    all.push_back(traffic);
  }
  return all;
}

std::vector<net_stat> net_rates(const net_sample* before, const net_sample& now) {
  std::vector<net_stat> stats;
  for (const net_traffic& traffic : net_rates_by_direction(before, now)) {
    net_stat stat{};
    copy_name(std::string_view(traffic.dev_name, sizeof traffic.dev_name), stat.dev_name);
    stat.total = traffic.total;
    stat.rate = traffic.rx_rate + traffic.tx_rate;
    stats.push_back(stat);
  }
  return stats;
}

}  // namespace samplers
