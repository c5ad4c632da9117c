// SPDX-License-Identifier: Apache-2.0
// Thermal, memory, ION, partitions: a line each.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <set>

#include "text_tools.h"
#include "texts.h"

namespace texts {
namespace {

using text_tools::clean_name;
using text_tools::figure;
using text_tools::kib_text;
using text_tools::side_by_side;
using text_tools::size_text;

std::string celsius(uint64_t temp) {
  if (temp == unknown_u64) {
    return text_tools::unknown_text;
  }
  const std::string text = figure(static_cast<double>(static_cast<int64_t>(temp)) / 1000, 6);
  return text == text_tools::unknown_text ? text : text + 'C';
}

// Without the word that every zone's name has: "cpu" for "cpu-thermal".
std::string without_thermal(std::string name) {
  for (const char* end : {"-thermal", "_thermal"}) {
    const size_t length = std::string_view(end).size();
    if (name.size() > length && name.compare(name.size() - length, length, end) == 0) {
      name.resize(name.size() - length);
    }
  }
  for (const char* begin : {"thermal-", "thermal_"}) {
    const size_t length = std::string_view(begin).size();
    if (name.size() > length && name.compare(0, length, begin) == 0) {
      name.erase(0, length);
    }
  }
  return name;
}

// A zone or cooling device as it is shown.
struct named_zone {
  std::string name;
  thermal_stat stat;
};

// Those of one kind, in the server's order. Of two that would have the same name, the second gets a
// number: "cpu#2".
std::vector<named_zone> named(const std::vector<thermal_stat>& zones, bool cooling) {
  std::vector<named_zone> list;
  std::set<std::string> taken;
  for (const thermal_stat& zone : zones) {
    if ((zone.kind == thermal_cooling) != cooling) {
      continue;
    }
    const std::string name = without_thermal(clean_name(zone.name));
    std::string shown = name;
    for (int number = 2; !taken.insert(shown).second; ++number) {
      shown = fmt::format("{}#{}", name, number);
    }
    list.push_back({shown, zone});
  }
  return list;
}

// Hottest first, unknown ones last.
std::vector<std::string> zone_items(const std::vector<thermal_stat>& all) {
  std::vector<named_zone> zones = named(all, false);
  std::stable_sort(zones.begin(), zones.end(), [](const named_zone& left, const named_zone& right) {
    const auto temp = [](const named_zone& zone) {
      return zone.stat.temp == unknown_u64 ? INT64_MIN : static_cast<int64_t>(zone.stat.temp);
    };
    return temp(left) > temp(right);
  });
  std::vector<std::string> items;
  for (const named_zone& zone : zones) {
    items.push_back(zone.name + ' ' + celsius(zone.stat.temp));
  }
  return items;
}

// Active ones first, unknown ones last.
std::vector<std::string> cooling_items(const std::vector<thermal_stat>& all) {
  std::vector<named_zone> devices = named(all, true);
  std::stable_sort(devices.begin(), devices.end(),
                   [](const named_zone& left, const named_zone& right) {
                     const auto rank = [](uint64_t state) {
                       return state == unknown_u64 ? 2 : (state == 0 ? 1 : 0);
                     };
                     return rank(left.stat.stat) < rank(right.stat.stat);
                   });
  std::vector<std::string> items;
  for (const named_zone& device : devices) {
    const uint64_t state = device.stat.stat;
    items.push_back(device.name + ' ' +
                    (state == unknown_u64 ? text_tools::unknown_text : fmt::format("{}", state)));
  }
  return items;
}

// used/size and the share, or the share of the size.
void add_partition(std::vector<std::vector<std::string>>& forms, const part_info& part) {
  const std::string name = clean_name(part.part_name);
  const double block = static_cast<double>(part.f_frsize);
  const double size = static_cast<double>(part.f_blocks) * block;
  constexpr double largest = 1e18;  // below 2^63 bytes, so that no sum of blocks overflows
  const bool known = part.f_blocks != unknown_u64 && part.f_bavail != unknown_u64 &&
                     part.f_frsize != unknown_u64 && part.blocks_used != unknown_u64;
  if (!known || part.f_blocks == 0 || size > largest || part.blocks_used > part.f_blocks) {
    for (auto& form : forms) {
      form.push_back(name + " -");
    }
    return;
  }
  // df(1)'s share: of what users without privileges can have, rounded up.
  const double used = static_cast<double>(part.blocks_used);
  const double usable = used + static_cast<double>(part.f_bavail);
  const double share = usable > 0 ? std::ceil(100 * used / usable) : 0;
  const std::string used_text = size_text(part.blocks_used * part.f_frsize);
  const std::string size_of_all = size_text(part.f_blocks * part.f_frsize);
  forms[0].push_back(fmt::format("{} {}/{} {:.0f}%", name, used_text, size_of_all, share));
  forms[1].push_back(fmt::format("{} {:.0f}% of {}", name, share, size_of_all));
}

}  // namespace

std::string thermal(const std::vector<thermal_stat>& zones, size_t width) {
  const std::vector<std::string> temperatures = zone_items(zones);
  const std::vector<std::string> cooling = cooling_items(zones);
  if (cooling.empty()) {
    return side_by_side("Thermal  ", temperatures, {width});
  }
  // The temperatures leave a third of the line to cooling devices that need it.
  const std::string all_temperatures = side_by_side("Thermal  ", temperatures, {width});
  const size_t left = width - std::min(all_temperatures.size(), width);
  const std::string end = side_by_side("  | ", cooling, {std::max(left, width / 3)});
  return side_by_side("Thermal  ", temperatures, {width - std::min(end.size(), width)}) + end;
}

std::string memory(const meminfo& info, size_t width) {
  const std::vector<std::string> items = {
      "total " + kib_text(info.memTotal), "avail " + kib_text(info.memAvailable),
      "free " + kib_text(info.memfree),   "cached " + kib_text(info.cached),
      "anon " + kib_text(info.anon),      "slab " + kib_text(info.slab),
      "buffers " + kib_text(info.buffer), "file " + kib_text(info.file),
  };
  return side_by_side("[Mem ", items, {width - std::min<size_t>(width, 1)}, " ") + ']';
}

std::string ion(const std::vector<ion_info>& heaps, size_t width) {
  std::vector<ion_info> fullest = heaps;
  std::stable_sort(fullest.begin(), fullest.end(), [](const ion_info& left, const ion_info& right) {
    // One more than unknown is 0.
    return left.used + 1 > right.used + 1;
  });
  std::vector<std::string> items;
  for (const ion_info& heap : fullest) {
    items.push_back(clean_name(heap.ion_name) + ' ' + size_text(heap.used));
  }
  return side_by_side("[ION ", items, {width - std::min<size_t>(width, 1)}) + ']';
}

constexpr size_t separator = 2;  // ", "

size_t memory_width(size_t width, size_t ion_wanted) {
  constexpr size_t least_ion = 16;  // "[ION no answer]"
  const size_t both = width - std::min(width, separator);
  return std::max(both - std::clamp(ion_wanted, std::min(least_ion, both), both), both * 4 / 7);
}

size_t ion_width(size_t width, size_t taken) {
  return width - std::min(width, taken == 0 ? 0 : taken + separator);
}

std::string partitions(const std::vector<part_info>& parts, size_t width) {
  std::vector<std::vector<std::string>> forms(2);
  for (const part_info& part : parts) {
    add_partition(forms, part);
  }
  return side_by_side("Partitions  ", forms, {width});
}

}  // namespace texts
