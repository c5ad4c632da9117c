// SPDX-License-Identifier: Apache-2.0
// The performance counters: a line each, with its rate and what it means beside another one.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <string_view>

#include "text_tools.h"
#include "texts.h"

namespace texts {
namespace {

double known(uint64_t count) {
  return count == unknown_u64 ? NAN : static_cast<double>(count);
}

// A counter's figures; NaN where unknown, or without a ratio.
struct figures {
  const counter_description* of;
  double rate;   // a second
  double ratio;  // share in percent, or instructions a cycle
};

// Instructions a cycle are a ratio, the others shares.
bool is_per_cycle(const counter_description& one) {
  return one.count == &perf_counters::instructions;
}

figures figures_of(const counter_description& one, const perf_sample& sample) {
  const double count = known(sample.counters.*one.count);
  figures result{&one, count * 1e6 / static_cast<double>(sample.interval_us), NAN};
  if (one.whole != nullptr) {
    const double factor = is_per_cycle(one) ? 1 : 100;
    result.ratio = factor * count / known(sample.counters.*one.whole);
  }
  return result;
}

// "3.4%", "1.50"; empty without one.
std::string ratio_text(const figures& one) {
  if (!std::isfinite(one.ratio)) {
    return "";
  }
  return is_per_cycle(*one.of) ? fmt::format("{:.2f}", one.ratio) : text_tools::percent(one.ratio);
}

// The same in 4 columns.
std::string short_ratio_text(const figures& one) {
  std::string text = ratio_text(one);
  if (text.size() > 4) {
    text = is_per_cycle(*one.of) ? text_tools::short_count_text(one.ratio)
                                 : fmt::format("{:.0f}%", one.ratio);
  }
  return text.size() > 4 ? "" : text;
}

// `width` columns at most: a ratio that does not fit is left out.
std::string with_ratio(std::string line, const std::string& ratio, size_t width) {
  if (!ratio.empty() && line.size() + 2 + ratio.size() <= width) {
    line += "  " + ratio;
  }
  return line + '\n';
}

constexpr size_t long_width = 44;   // 17 of the name, 9 of the rate, 18 of "  100.0% of cycles"
constexpr size_t short_width = 21;  // 8 of the name, 5 of the rate, 8 of "  100.0%"

std::string long_line(const figures& one, size_t width) {
  const std::string ratio = ratio_text(one);
  return with_ratio(
      fmt::format("{:<17}{:>9}", one.of->field.name, text_tools::count_text(one.rate)),
      ratio.empty() ? ratio : fmt::format("{} {}", ratio, one.of->of_whole), width);
}

std::string short_line(const figures& one, size_t width) {
  return with_ratio(
      fmt::format("{:<8} {:>4}", one.of->short_name, text_tools::short_count_text(one.rate)),
      ratio_text(one), width);
}

// With the ratio in place of the rate.
std::string narrow_line(const figures& one) {
  const std::string ratio = short_ratio_text(one);
  const bool per_cycle = is_per_cycle(*one.of) && !ratio.empty();
  return fmt::format("{:<8} {:>4}\n", per_cycle ? "instr/cy" : one.of->short_name,
                     ratio.empty() ? text_tools::short_count_text(one.rate) : ratio);
}

std::string line(const figures& one, size_t width) {
  if (width >= long_width) {
    return long_line(one, width);
  }
  return width >= short_width ? short_line(one, width) : narrow_line(one);
}

}  // namespace

std::string counters(const perf_sample& sample, size_t width) {
  std::vector<figures> list;
  for (const counter_description& one : counter_fields::all) {
    list.push_back(figures_of(one, sample));
  }
  std::stable_partition(list.begin(), list.end(),
                        [](const figures& one) { return std::isfinite(one.rate); });
  std::string text = width >= long_width ? fmt::format("{:<17}{:>9}\n", "Counters", "a second")
                                         : "Counters   /s\n";
  for (const figures& one : list) {
    text += line(one, width);
  }
  return text;
}

}  // namespace texts
