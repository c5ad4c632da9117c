// SPDX-License-Identifier: Apache-2.0
// The machine as a whole, in the rows that the CPUs leave free of their panel.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "text_tools.h"
#include "texts.h"

namespace texts {
namespace {

using text_tools::kib_text;
using text_tools::unknown_text;

// Of one line, the most telling first.
using line_items = std::vector<std::string>;

std::string load(float average) {
  const bool fits = average >= 0 && average < 1000;
  return fits ? fmt::format("{:.2f}", average) : text_tools::figure(average, 6);
}

std::string count(uint32_t number) {
  return number == unknown_u32 ? unknown_text : fmt::format("{}", number);
}

std::string uptime(uint64_t seconds) {
  if (seconds == unknown_u64) {
    return unknown_text;
  }
  const uint64_t days = seconds / 86400;
  const std::string hours = fmt::format("{:02}:{:02}", seconds / 3600 % 24, seconds / 60 % 60);
  return days == 0 ? hours : fmt::format("{}d {}", days, hours);
}

line_items load_line(const system_stat& stat) {
  return {fmt::format("load {} {} {}", load(stat.load_1), load(stat.load_5), load(stat.load_15)),
          fmt::format("tasks {}, {} running, {} blocked", count(stat.tasks),
                      count(stat.tasks_running), count(stat.tasks_blocked)),
          "up " + uptime(stat.uptime_s)};
}

// Empty for a kernel that knows no pressure.
line_items pressure_line(const system_stat& stat) {
  const float all[] = {stat.cpu_some, stat.io_some, stat.io_full, stat.memory_some,
                       stat.memory_full};
  if (std::none_of(std::begin(all), std::end(all), [](float one) { return std::isfinite(one); })) {
    return {};
  }
  const auto text = [](float percent) {
    return text_tools::percent(text_tools::share_of_time(percent));
  };
  return {fmt::format("pressure  cpu {}", text(stat.cpu_some)),
          fmt::format("io {} (all {})", text(stat.io_some), text(stat.io_full)),
          fmt::format("memory {} (all {})", text(stat.memory_some), text(stat.memory_full))};
}

line_items swap_line(const system_stat& stat) {
  line_items items = {"no swap"};
  if (stat.swap_total != 0) {
    const bool known = stat.swap_total != unknown_u64 && stat.swap_free <= stat.swap_total;
    items = {fmt::format("swap {} of {}",
                         kib_text(known ? stat.swap_total - stat.swap_free : unknown_u64),
                         kib_text(stat.swap_total))};
  }
  if (stat.zram_data != unknown_u64) {
    items.push_back(
        fmt::format("zram {} in {}", kib_text(stat.zram_data), kib_text(stat.zram_used)));
  }
  return items;
}

// Items that do not fit are left out.
std::string line_of(const line_items& items, size_t width) {
  constexpr std::string_view gap = "  ";
  std::string line;
  for (const std::string& item : items) {
    const size_t needed = item.size() + (line.empty() ? 0 : gap.size());
    if (line.size() + needed <= width) {
      line += (line.empty() ? "" : std::string(gap)) + item;
    }
  }
  return line.empty() ? line : line + '\n';
}

}  // namespace

std::string system(const system_stat& stat, size_t rows, size_t width) {
  std::string text;
  size_t line = 0;
  for (const line_items& items : {load_line(stat), pressure_line(stat), swap_line(stat)}) {
    const std::string one = line_of(items, width);
    if (line < rows && !one.empty()) {
      text += one;
      ++line;
    }
  }
  return text;
}

}  // namespace texts
