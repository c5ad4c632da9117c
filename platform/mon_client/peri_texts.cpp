// Thermal, memory, ION, partitions, block devices.
#include <fmt/format.h>

#include <cmath>

#include "text_tools.h"
#include "texts.h"

namespace texts {
namespace {

using text_tools::clean_name;
using text_tools::figure;
using text_tools::size_text;

std::string kib_text(uint64_t kib) {
  // A tenth of a unit is enough to take it: figures of one machine then share their unit.
  constexpr double least = 0.1;
  return size_text(kib <= UINT64_MAX / 1024 ? kib * 1024 : unknown_u64, least);
}

std::string celsius(uint64_t temp) {
  if (temp == unknown_u64) {
    return text_tools::unknown_text;
  }
  const std::string text = figure(static_cast<double>(static_cast<int64_t>(temp)) / 1000, 6);
  return text == text_tools::unknown_text ? text : text + 'C';
}

std::string partition(const part_info& part) {
  const std::string name = clean_name(part.part_name);
  const double block = static_cast<double>(part.f_frsize);
  const double size = static_cast<double>(part.f_blocks) * block;
  constexpr double largest = 1e18;  // below 2^63 bytes, so that no sum of blocks overflows
  const bool known = part.f_blocks != unknown_u64 && part.f_bavail != unknown_u64 &&
                     part.f_frsize != unknown_u64 && part.blocks_used != unknown_u64;
  if (!known || part.f_blocks == 0 || size > largest || part.blocks_used > part.f_blocks) {
    return name + " -";
  }
  // df(1)'s share: of what users without privileges can have, rounded up.
  const double used = static_cast<double>(part.blocks_used);
  const double usable = used + static_cast<double>(part.f_bavail);
  const double share = usable > 0 ? std::ceil(100 * used / usable) : 0;
  return fmt::format("{} {}/{} {:.0f}%", name, size_text(part.blocks_used * part.f_frsize),
                     size_text(part.f_blocks * part.f_frsize), share);
}

double kib_per_second(uint64_t kib, uint64_t interval_ms) {
  if (kib == unknown_u64 || interval_ms == 0) {
    return NAN;
  }
  return static_cast<double>(kib) * 1000 / static_cast<double>(interval_ms);
}

}  // namespace

std::string thermal(const std::vector<thermal_stat>& zones) {
  std::string text = "Thermal";
  std::string cooling;
  for (const thermal_stat& zone : zones) {
    if (zone.kind == thermal_cooling) {
      const std::string state = zone.stat == unknown_u64 ? "-" : fmt::format("{}", zone.stat);
      cooling += fmt::format(" {} {}", clean_name(zone.name), state);
    } else {
      text += fmt::format("  {} {}", clean_name(zone.name), celsius(zone.temp));
    }
  }
  if (zones.empty()) {
    text += "  none";
  }
  return cooling.empty() ? text : text + "  | cooling" + cooling;
}

std::string memory(const meminfo& info) {
  return fmt::format("[Mem total {} free {} avail {} buffers {} cached {} slab {} file {} anon {}]",
                     kib_text(info.memTotal), kib_text(info.memfree), kib_text(info.memAvailable),
                     kib_text(info.buffer), kib_text(info.cached), kib_text(info.slab),
                     kib_text(info.file), kib_text(info.anon));
}

std::string ion(const std::vector<ion_info>& heaps) {
  std::vector<std::string> items;
  for (const ion_info& heap : heaps) {
    items.push_back(clean_name(heap.ion_name) + ' ' + size_text(heap.used));
  }
  return fmt::format("[ION {}]",
                     items.empty() ? "none" : fmt::format("{}", fmt::join(items, "  ")));
}

std::string partitions(const std::vector<part_info>& parts) {
  std::string text = "Partitions";
  for (const part_info& part : parts) {
    text += "  " + partition(part);
  }
  return text;
}

std::string blocks(const std::vector<block_stat>& devices) {
  constexpr size_t rate_width = 9;
  std::vector<std::string> items;
  for (const block_stat& device : devices) {
    items.push_back(
        fmt::format("{} read {} write {}", clean_name(device.name),
                    figure(kib_per_second(device.rd_kb, device.interval_ms), rate_width),
                    figure(kib_per_second(device.wr_kb, device.interval_ms), rate_width)));
  }
  return text_tools::side_by_side("Block KB/s  ", items);
}

}  // namespace texts
