// The performance counters: a line each, with its rate and what it means beside another one.
#include <fmt/format.h>

#include <cmath>

#include "text_tools.h"
#include "texts.h"

namespace texts {
namespace {

double known(uint64_t count) {
  return count == unknown_u64 ? NAN : static_cast<double>(count);
}

std::string line(const char* name, double rate, const std::string& ratio) {
  std::string text = fmt::format("{:<17}{:>9}", name, text_tools::count_text(rate));
  if (!ratio.empty()) {
    text += "  " + ratio;
  }
  return text + '\n';
}

// `part` in percent of `whole`, with what that is called; empty where either is unknown.
std::string share(uint64_t part, uint64_t whole, const char* meaning) {
  const double value = 100 * known(part) / known(whole);
  return std::isfinite(value) ? text_tools::percent(value) + ' ' + meaning : "";
}

std::string instructions_per_cycle(const perf_counters& counters) {
  const double value = known(counters.instructions) / known(counters.cycles);
  return std::isfinite(value) ? fmt::format("{:.2f} a cycle", value) : "";
}

}  // namespace

std::string counters(const perf_sample& sample) {
  const perf_counters& c = sample.counters;
  const double seconds = static_cast<double>(sample.interval_us) / 1e6;
  const auto rate = [seconds](uint64_t count) { return known(count) / seconds; };
  std::string text = fmt::format("{:<17}{:>9}\n", "Counters", "a second");
  text += line("cycles", rate(c.cycles), "");
  text += line("instructions", rate(c.instructions), instructions_per_cycle(c));
  text += line("stall_frontend", rate(c.stall_frontend),
               share(c.stall_frontend, c.cycles, "of cycles"));
  text +=
      line("stall_backend", rate(c.stall_backend), share(c.stall_backend, c.cycles, "of cycles"));
  text += line("branches", rate(c.branches), "");
  text +=
      line("branch_misses", rate(c.branch_misses), share(c.branch_misses, c.branches, "missed"));
  text += line("l1d_load", rate(c.l1d_load), "");
  text += line("l1d_misses", rate(c.l1d_misses), share(c.l1d_misses, c.l1d_load, "missed"));
  text += line("l1i_load", rate(c.l1i_load), "");
  text += line("l1i_misses", rate(c.l1i_misses), share(c.l1i_misses, c.l1i_load, "missed"));
  text += line("l2d_cache", rate(c.l2d_cache), "");
  text += line("l2d_cache_refill", rate(c.l2d_cache_refill),
               share(c.l2d_cache_refill, c.l2d_cache, "missed"));
  text += line("l3d_cache", rate(c.l3d_cache), "");
  text += line("l3d_cache_refill", rate(c.l3d_cache_refill),
               share(c.l3d_cache_refill, c.l3d_cache, "missed"));
  text += line("llc_load", rate(c.llc_load), "");
  text += line("llc_misses", rate(c.llc_misses), share(c.llc_misses, c.llc_load, "missed"));
  text += line("dtlb_load", rate(c.dtlb_load), "");
  text += line("dtlb_misses", rate(c.dtlb_misses), share(c.dtlb_misses, c.dtlb_load, "missed"));
  text += line("itlb_load", rate(c.itlb_load), "");
  text += line("itlb_misses", rate(c.itlb_misses), share(c.itlb_misses, c.itlb_load, "missed"));
  text += line("cs", rate(c.cs), "");
  text += line("migrations", rate(c.migrations), "");
  text += line("page_faults", rate(c.page_faults), "");
  return text;
}

}  // namespace texts
