// The CPU block: at most 9 lines of at most 69 columns, however many CPUs there are.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "text_tools.h"
#include "texts.h"

namespace texts {
namespace {

using text_tools::figure;

constexpr size_t columns = 69;
constexpr size_t cpu_lines = 7;  // left of 9 below the header and the total

// A share of the time as it is shown: rounding may have put it a little outside of 0 to 100; what
// lies further outside is no share.
double share(double percent) {
  return percent > -1 && percent < 101 ? std::clamp(percent, 0.0, 100.0) : NAN;
}

double busy(const cpu_usage& usage) {
  return share(100.0 - usage.idle - usage.iowait);
}

// At most 4 columns.
std::string mhz(const cpu_usage& usage) {
  const uint32_t freq_mhz = usage.freq_khz / 1000;
  return freq_mhz > 9999 ? text_tools::unknown_text : fmt::format("{}", freq_mhz);
}

std::string whole(double value) {
  return std::isfinite(value) ? fmt::format("{:.0f}", value) : text_tools::unknown_text;
}

std::string full_line(const std::string& name, const cpu_usage& usage) {
  const auto text = [](double percent) { return figure(share(percent), 5); };
  return fmt::format("{:<6}{:>6}{:>6}{:>6}{:>6}{:>6}{:>7}{:>6}{:>6}{:>6}{:>6}\n", name,
                     figure(busy(usage), 5), text(usage.user), text(usage.nice), text(usage.system),
                     text(usage.idle), text(usage.iowait), text(usage.irq), text(usage.softirq),
                     text(usage.steal), mhz(usage));
}

// No kernel numbers more CPUs than this; anything else comes from no kernel.
constexpr int32_t largest_cpu = 9999;

std::string number_of(const cpu_usage& usage) {
  return usage.cpu < 0 || usage.cpu > largest_cpu ? "?" : fmt::format("{}", usage.cpu);
}

std::string name_of(const cpu_usage& usage) {
  return "cpu" + number_of(usage);
}

// A CPU in half a line, 34 columns.
std::string half_line(const cpu_usage& usage) {
  const std::string name = usage.cpu > 999 ? number_of(usage) : name_of(usage);
  return fmt::format("{:<6}{:>6} us{:>4} sy{:>4} {:>4}MHz", name, text_tools::percent(busy(usage)),
                     whole(share(usage.user)), whole(share(usage.system)), mhz(usage));
}

// Lays cells of the same width out in rows.
std::string grid(const std::vector<std::string>& cells, std::string_view gap) {
  const size_t per_row = (columns + gap.size()) / (cells.front().size() + gap.size());
  std::string text;
  for (size_t i = 0; i < cells.size(); ++i) {
    text += cells[i];
    const bool row_ends = (i + 1) % per_row == 0 || i + 1 == cells.size();
    text += row_ends ? std::string_view("\n") : gap;
  }
  return text;
}

bool grid_fits(size_t cells, size_t width, size_t gap) {
  return cells <= cpu_lines * ((columns + gap) / (width + gap));
}

// "63: 12", the number as wide as the largest one.
std::string numbered_grid(const std::vector<cpu_usage>& cpus, size_t digits) {
  std::vector<std::string> cells;
  for (const cpu_usage& usage : cpus) {
    cells.push_back(fmt::format("{:>{}}:{:>3}", number_of(usage), digits, whole(busy(usage))));
  }
  return grid(cells, " ");
}

// Only the share, in the CPUs' order.
std::string bare_grid(const std::vector<cpu_usage>& cpus) {
  std::vector<std::string> cells;
  for (const cpu_usage& usage : cpus) {
    cells.push_back(fmt::format("{:>3}", whole(busy(usage))));
  }
  return grid(cells, " ");
}

// A digit a CPU, its share in tenths; with more CPUs than there is room for, the busiest of so many
// neighbours.
std::string digit_grid(const std::vector<cpu_usage>& cpus) {
  const size_t room = columns * cpu_lines;
  const size_t together = (cpus.size() + room - 1) / room;
  std::vector<std::string> cells;
  for (size_t i = 0; i < cpus.size(); i += together) {
    double busiest = NAN;
    for (size_t j = i; j < std::min(i + together, cpus.size()); ++j) {
      busiest = std::fmax(busiest, busy(cpus[j]));
    }
    const int tenths =
        std::isfinite(busiest) ? static_cast<int>(std::clamp(busiest, 0.0, 99.0)) / 10 : -1;
    cells.push_back(tenths < 0 ? text_tools::unknown_text : fmt::format("{}", tenths));
  }
  return grid(cells, "");
}

std::string cpu_rows(const std::vector<cpu_usage>& cpus) {
  std::string text;
  if (cpus.size() <= cpu_lines) {
    for (const cpu_usage& usage : cpus) {
      text += full_line(name_of(usage), usage);
    }
    return text;
  }
  if (cpus.size() <= 2 * cpu_lines) {
    std::vector<std::string> cells;
    for (const cpu_usage& usage : cpus) {
      cells.push_back(half_line(usage));
    }
    return grid(cells, " ");
  }
  size_t digits = 1;
  for (const cpu_usage& usage : cpus) {
    digits = std::max(digits, number_of(usage).size());
  }
  if (grid_fits(cpus.size(), digits + 4, 1)) {
    return numbered_grid(cpus, digits);
  }
  return grid_fits(cpus.size(), 3, 1) ? bare_grid(cpus) : digit_grid(cpus);
}

}  // namespace

std::string cpu(const std::vector<cpu_usage>& cpus) {
  std::string text =
      fmt::format("{:<6}{:>6}{:>6}{:>6}{:>6}{:>6}{:>7}{:>6}{:>6}{:>6}{:>6}\n", "CPU %", "busy",
                  "user", "nice", "sys", "idle", "iowait", "irq", "sirq", "steal", "MHz");
  if (cpus.empty()) {
    return text;
  }
  text += full_line("total", cpus.front());
  const std::vector<cpu_usage> single(cpus.begin() + 1, cpus.end());
  return single.empty() ? text : text + cpu_rows(single);
}

}  // namespace texts
