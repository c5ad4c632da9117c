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

constexpr uint64_t perf_counters::*none = nullptr;

// A counter, and the one that it is a share of.
struct counter {
  const char* name;
  const char* short_name;  // 8 columns at most
  uint64_t perf_counters::*count;
  uint64_t perf_counters::*whole;
  std::string_view meaning;  // of the ratio
};

using c = perf_counters;
constexpr std::string_view a_cycle = "a cycle";  // a ratio; the others are shares
constexpr counter table[] = {
    {"cycles", "cycles", &c::cycles, none, ""},
    {"instructions", "instr", &c::instructions, &c::cycles, a_cycle},
    {"stall_frontend", "stall fe", &c::stall_frontend, &c::cycles, "of cycles"},
    {"stall_backend", "stall be", &c::stall_backend, &c::cycles, "of cycles"},
    {"branches", "branches", &c::branches, none, ""},
    {"branch_misses", "br miss", &c::branch_misses, &c::branches, "missed"},
    {"l1d_load", "l1d load", &c::l1d_load, none, ""},
    {"l1d_misses", "l1d miss", &c::l1d_misses, &c::l1d_load, "missed"},
    {"l1i_load", "l1i load", &c::l1i_load, none, ""},
    {"l1i_misses", "l1i miss", &c::l1i_misses, &c::l1i_load, "missed"},
    {"l2d_cache", "l2d load", &c::l2d_cache, none, ""},
    {"l2d_cache_refill", "l2d miss", &c::l2d_cache_refill, &c::l2d_cache, "missed"},
    {"l3d_cache", "l3d load", &c::l3d_cache, none, ""},
    {"l3d_cache_refill", "l3d miss", &c::l3d_cache_refill, &c::l3d_cache, "missed"},
    {"llc_load", "llc load", &c::llc_load, none, ""},
    {"llc_misses", "llc miss", &c::llc_misses, &c::llc_load, "missed"},
    {"dtlb_load", "dtlb ld", &c::dtlb_load, none, ""},
    {"dtlb_misses", "dtlb mis", &c::dtlb_misses, &c::dtlb_load, "missed"},
    {"itlb_load", "itlb ld", &c::itlb_load, none, ""},
    {"itlb_misses", "itlb mis", &c::itlb_misses, &c::itlb_load, "missed"},
    {"cs", "cs", &c::cs, none, ""},
    {"migrations", "migrat.", &c::migrations, none, ""},
    {"page_faults", "faults", &c::page_faults, none, ""},
};

// A counter's figures; NaN where unknown, or without a ratio.
struct figures {
  const counter* of;
  double rate;   // a second
  double ratio;  // share in percent, or instructions a cycle
};

figures figures_of(const counter& one, const perf_sample& sample) {
  const double count = known(sample.counters.*one.count);
  figures result{&one, count * 1e6 / static_cast<double>(sample.interval_us), NAN};
  if (one.whole != none) {
    const double factor = one.meaning == a_cycle ? 1 : 100;
    result.ratio = factor * count / known(sample.counters.*one.whole);
  }
  return result;
}

// "3.4%", "1.50"; empty without one.
std::string ratio_text(const figures& one) {
  if (!std::isfinite(one.ratio)) {
    return "";
  }
  return one.of->meaning == a_cycle ? fmt::format("{:.2f}", one.ratio)
                                    : text_tools::percent(one.ratio);
}

// The same in 4 columns.
std::string short_ratio_text(const figures& one) {
  std::string text = ratio_text(one);
  if (text.size() > 4) {
    text = one.of->meaning == a_cycle ? text_tools::short_count_text(one.ratio)
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
  return with_ratio(fmt::format("{:<17}{:>9}", one.of->name, text_tools::count_text(one.rate)),
                    ratio.empty() ? ratio : fmt::format("{} {}", ratio, one.of->meaning), width);
}

std::string short_line(const figures& one, size_t width) {
  return with_ratio(
      fmt::format("{:<8} {:>4}", one.of->short_name, text_tools::short_count_text(one.rate)),
      ratio_text(one), width);
}

// With the ratio in place of the rate.
std::string narrow_line(const figures& one) {
  const std::string ratio = short_ratio_text(one);
  const bool is_per_cycle = one.of->meaning == a_cycle && !ratio.empty();
  return fmt::format("{:<8} {:>4}\n", is_per_cycle ? "instr/cy" : one.of->short_name,
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
  for (const counter& one : table) {
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
