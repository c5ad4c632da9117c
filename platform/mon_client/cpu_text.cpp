// SPDX-License-Identifier: Apache-2.0
// The CPU block: at most 9 lines of at most 69 columns, however many CPUs there are.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "text_tools.h"
#include "texts.h"

namespace texts {
namespace {

using text_tools::figure;

using text_tools::share_of_time;

constexpr size_t rows = cpu_lines - 2;  // below the header and the total

double busy(const cpu_usage& usage) {
  return share_of_time(100.0 - usage.idle - usage.iowait);
}

// At most 4 columns.
std::string mhz(const cpu_usage& usage) {
  const uint32_t freq_mhz = usage.freq_khz / 1000;
  return freq_mhz > 9999 ? text_tools::unknown_text : fmt::format("{}", freq_mhz);
}

std::string whole(double value) {
  return std::isfinite(value) ? fmt::format("{:.0f}", value) : text_tools::unknown_text;
}

std::string share_text(double percent) {
  return figure(share_of_time(percent), 5);
}

struct column {
  const char* title;
  size_t width;
  std::string (*value)(const cpu_usage& usage);
};

constexpr size_t name_width = 6;
constexpr column table[] = {
    {"busy", 6, [](const cpu_usage& usage) { return figure(busy(usage), 5); }},
    {"user", 6, [](const cpu_usage& usage) { return share_text(usage.user); }},
    {"nice", 6, [](const cpu_usage& usage) { return share_text(usage.nice); }},
    {"sys", 6, [](const cpu_usage& usage) { return share_text(usage.system); }},
    {"idle", 6, [](const cpu_usage& usage) { return share_text(usage.idle); }},
    {"iowait", 7, [](const cpu_usage& usage) { return share_text(usage.iowait); }},
    {"irq", 6, [](const cpu_usage& usage) { return share_text(usage.irq); }},
    {"sirq", 6, [](const cpu_usage& usage) { return share_text(usage.softirq); }},
    {"steal", 6, [](const cpu_usage& usage) { return share_text(usage.steal); }},
    {"MHz", 6, mhz},
};

// A line of the table, with the columns that `width` has room for: those of `usage`, or the titles.
std::string table_line(const std::string& name, const cpu_usage* usage, size_t width) {
  std::string line = name;
  line.resize(std::max(name.size(), name_width), ' ');
  for (const column& one : table) {
    if (line.size() + one.width > width) {
      break;
    }
    text_tools::append_right(line, usage == nullptr ? one.title : one.value(*usage), one.width);
  }
  return line + '\n';
}

// No kernel numbers more CPUs than this; anything else comes from no kernel.
constexpr int32_t largest_cpu = 9999;

std::string number_of(const cpu_usage& usage) {
  return usage.cpu < 0 || usage.cpu > largest_cpu ? "?" : fmt::format("{}", usage.cpu);
}

std::string name_of(const cpu_usage& usage) {
  return "cpu" + number_of(usage);
}

// A CPU in half a line of the panel.
constexpr size_t half_width = 34;
std::string half_line(const cpu_usage& usage) {
  const std::string name = usage.cpu > 999 ? number_of(usage) : name_of(usage);
  return fmt::format("{:<6}{:>6} us{:>4} sy{:>4} {:>4}MHz", name, text_tools::percent(busy(usage)),
                     whole(share_of_time(usage.user)), whole(share_of_time(usage.system)),
                     mhz(usage));
}

size_t cells_per_row(size_t width, size_t cell_width, size_t gap) {
  return std::max<size_t>((width + gap) / (cell_width + gap), 1);
}

// Lays the CPUs out in rows, in cells of the same width.
template <class cell_maker>
std::string grid(const std::vector<cpu_usage>& cpus, size_t width, cell_maker cell) {
  const size_t per_row = cells_per_row(width, cell(cpus.front()).size(), 1);
  std::string text;
  for (size_t i = 0; i < cpus.size(); ++i) {
    text += cell(cpus[i]);
    text += (i + 1) % per_row == 0 || i + 1 == cpus.size() ? '\n' : ' ';
  }
  return text;
}

bool grid_fits(size_t cells, size_t width, size_t cell_width) {
  return cells <= rows * cells_per_row(width, cell_width, 1);
}

// A digit a CPU, its share in tenths; with more CPUs than there is room for, the busiest of so many
// neighbours.
std::string digit_grid(const std::vector<cpu_usage>& cpus, size_t width) {
  const size_t room = width * rows;
  const size_t together = (cpus.size() + room - 1) / room;
  std::string text;
  size_t column = 0;
  for (size_t i = 0; i < cpus.size(); i += together) {
    double busiest = NAN;
    for (size_t j = i; j < std::min(i + together, cpus.size()); ++j) {
      busiest = std::fmax(busiest, busy(cpus[j]));
    }
    if (column == width) {
      text += '\n';
      column = 0;
    }
    text += std::isfinite(busiest)
                ? fmt::format("{}", static_cast<int>(std::min(busiest, 99.0)) / 10)
                : text_tools::unknown_text;
    ++column;
  }
  return text + '\n';
}

std::string cpu_rows(const std::vector<cpu_usage>& cpus, size_t width) {
  if (cpus.size() <= rows) {
    std::string text;
    for (const cpu_usage& usage : cpus) {
      text += table_line(name_of(usage), &usage, width);
    }
    return text;
  }
  if (width >= half_width && grid_fits(cpus.size(), width, half_width)) {
    return grid(cpus, width, half_line);
  }
  size_t digits = 1;
  for (const cpu_usage& usage : cpus) {
    digits = std::max(digits, number_of(usage).size());
  }
  if (grid_fits(cpus.size(), width, digits + 4)) {  // "63: 12"
    return grid(cpus, width, [digits](const cpu_usage& usage) {
      return fmt::format("{:>{}}:{:>3}", number_of(usage), digits, whole(busy(usage)));
    });
  }
  if (grid_fits(cpus.size(), width, 3)) {  // only the share, in the CPUs' order
    return grid(cpus, width,
                [](const cpu_usage& usage) { return fmt::format("{:>3}", whole(busy(usage))); });
  }
  return digit_grid(cpus, width);
}

}  // namespace

std::string cpu(const std::vector<cpu_usage>& cpus, size_t width) {
  width = std::clamp(width, text_tools::least_columns, cpu_columns);
  std::string text = table_line("CPU %", nullptr, width);
  if (cpus.empty()) {
    return text;
  }
  text += table_line("total", &cpus.front(), width);
  const std::vector<cpu_usage> single(cpus.begin() + 1, cpus.end());
  return single.empty() ? text : text + cpu_rows(single, width);
}

}  // namespace texts
