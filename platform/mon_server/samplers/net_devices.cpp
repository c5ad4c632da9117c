#include "samplers/net_devices.h"

#include <algorithm>
#include <limits>
#include <string>

#include "samplers/clock.h"
#include "samplers/text.h"

namespace samplers {
namespace {

constexpr size_t max_devices = 512;

// "  eth0:123 ...", where the first number may touch the colon. An alias has a colon of its own
// ("eth0:1:"), the counters have none. The columns are 8 of received packets, then 8 of sent ones,
// each beginning with the bytes; see proc_pid_net(5).
bool parse_line(std::string_view line, net_entry& entry) {
  const size_t colon = line.rfind(':');
  if (colon == std::string_view::npos) {
    return false;
  }
  std::string_view label = line.substr(0, colon);
  copy_name(take_word(label), entry.dev_name);
  line.remove_prefix(colon + 1);
  constexpr int received_column = 1;
  constexpr int sent_column = 9;
  uint64_t received = unknown_u64;
  uint64_t sent = unknown_u64;
  for (int column = received_column; column <= sent_column; ++column) {
    const std::string_view word = take_word(line);
    if (column == received_column) {
      received = to_u64(word);
    } else if (column == sent_column) {
      sent = to_u64(word);
    }
  }
  entry.bytes = received + sent;
  return received != unknown_u64 && sent != unknown_u64;
}

// The count of that device in another sample, unknown_u64 if it has none.
uint64_t bytes_in(const net_sample* sample, const net_entry& entry) {
  if (sample == nullptr) {
    return unknown_u64;
  }
  const auto found = std::find_if(
      sample->entries.begin(), sample->entries.end(),
      [&entry](const net_entry& other) { return same_name(other.dev_name, entry.dev_name); });
  return found == sample->entries.end() ? unknown_u64 : found->bytes;
}

// KiB/s, NaN when it is unknown.
double rate_since(const net_sample* before, const net_sample& now, const net_entry& entry) {
  const uint64_t start = bytes_in(before, entry);
  if (start == unknown_u64 || entry.bytes == unknown_u64 || start > entry.bytes ||
      before->time_us >= now.time_us) {
    return std::numeric_limits<double>::quiet_NaN();
  }
  const double seconds = static_cast<double>(now.time_us - before->time_us) / 1e6;
  return static_cast<double>(entry.bytes - start) / 1024 / seconds;
}

}  // namespace

int parse_net_dev(std::string_view text, std::vector<net_entry>& entries) {
  entries.clear();
  while (!text.empty() && entries.size() < max_devices) {
    net_entry entry;
    if (parse_line(take_line(text), entry)) {
      entries.push_back(entry);
    }
  }
  return 0;
}

int read_net_sample(const file_reader& machine, net_sample& sample) {
  std::string content;
  const int error = machine.read("proc/net/dev", content);
  sample.time_us = monotonic_us();
  const int result = parse_net_dev(content, sample.entries);
  return error != 0 ? error : result;
}

void doubt_zeros(const net_sample* before, net_sample& now) {
  for (net_entry& entry : now.entries) {
    const uint64_t start = bytes_in(before, entry);
    if (entry.bytes == 0 && start != 0 && start != unknown_u64) {
      entry.bytes = unknown_u64;
    }
  }
}

std::vector<net_stat> net_rates(const net_sample* before, const net_sample& now) {
  std::vector<net_stat> stats;
  stats.reserve(now.entries.size());
  for (const net_entry& entry : now.entries) {
    net_stat stat{};
    copy_name(std::string_view(entry.dev_name, sizeof entry.dev_name), stat.dev_name);
    stat.total = entry.bytes;
    stat.rate = rate_since(before, now, entry);
    stats.push_back(stat);
  }
  return stats;
}

}  // namespace samplers
