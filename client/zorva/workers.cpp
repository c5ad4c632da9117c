// SPDX-License-Identifier: Apache-2.0
#include "zorva/workers.h"

#include <sys/time.h>
#include <unistd.h>

#include <sstream>

#include "zorva/cycle.h"
#include "zorva/monitor.h"
#include "zorva/perf_switch.h"
#include "zorva/query.h"
#include "zorva/settings.h"
#include "zorva/window_manager.h"

// Each text is composed in a stream of the worker's own and handed over whole, so that the
// refresher never sees half of one.

namespace {

zorva& monitor_of(const window_info& panel) {
  return *static_cast<zorva*>(panel.priv);
}

// Waits, in the way of handle_input, also when there is no time left to wait. True when the program
// exits.
bool wait_or_exit(int timeout_ms) {
  if (timeout_ms <= 0) {
    return manager.to_exit;
  }
  return zorva_manage::handle_input(timeout_ms) != 0;
}

// The panel of that name if it is registered; the caller holds the manager's lock.
std::shared_ptr<window_info> find_panel(const windows_manager& winds, const char* name) {
  const auto found = winds.windows.find(name);
  return found == winds.windows.end() ? nullptr : found->second;
}

// The text of a panel that has nothing but what the library says. An empty one would leave the old
// figures on the screen: a query that failed makes the panel blank.
std::string or_blank(const std::stringstream& ss) {
  const std::string text = ss.str();
  return text.empty() ? "\n" : text;
}

std::string common_text(zorva& monitor) {
  std::stringstream ss;
  query_round query;
  query("get_all_thermal", [&] { return monitor.peri->get_all_thermal(&ss); });
  ss << "\n";
  query("get_meminfo", [&] { return monitor.peri->get_meminfo(&ss); });
  ss << ", ";
  query("get_ion_info", [&] { return monitor.peri->get_ion_info(&ss); });
  ss << "\n";
  query("get_partition_info", [&] { return monitor.peri->get_partition_info(parts, &ss); });
  ss << std::endl;
  return ss.str();
}

std::string bpu_text(zorva& monitor) {
  std::stringstream ss;
  query_round query;
  query("get_bpu_ratio_all", [&] { return monitor.bpu->get_bpu_ratio_all(&ss); });
  ss << "\n";
  if (monitor.net) {
    query("get_bandwidth_stat", [&] { return monitor.net->get_bandwidth_stat(&ss); });
    ss << "\n";
  }
  query("get_block_usage", [&] { return monitor.peri->get_block_usage(&ss); });
  ss << "\n";
  return ss.str();
}

std::string cpu_text(zorva& monitor) {
  std::stringstream ss;
  query_round query;
  query("get_cpu_usage", [&] { return monitor.cpu->get_cpu_usage(&ss); });
  ss << std::endl;
  return ss.str();
}

std::string process_text(zorva& monitor) {
  std::stringstream ss;
  query_round query;
  query("get_process_all", [&] { return monitor.cpu->get_process_all(process_list_mode(), &ss); });
  return or_blank(ss);
}

// `wperf` is the last counter panel that was found. A panel is destroyed with its last handle, so
// the handle changes with the manager's lock held.
void fill_perf_panel(zorva& monitor, windows_manager& winds, std::shared_ptr<window_info>& wperf) {
  {
    const std::lock_guard<std::mutex> win_lk(winds.lock);
    auto found = find_panel(winds, "perf");
    if (found) {
      wperf = std::move(found);
    }
  }
  if (!wperf) {
    return;
  }
  std::stringstream ss;
  const unsigned turn = turn_of_counters();
  if (monitor.cpu->get_perf_data(&ss) == counters_taken_errno) {
    lose_perf_counters(winds, turn);
  }
  wperf->publish(or_blank(ss));
}

}  // namespace

void wait_until_ready() {
  constexpr useconds_t poll_us = 100000;
  while (!manager.wind_ready) {
    usleep(poll_us);
  }
}

// NOLINTBEGIN(performance-unnecessary-value-param): each holds its panel for as long as it runs

void common_info_thread(std::shared_ptr<window_info> winfo) {
  zorva& monitor = monitor_of(*winfo);
  wait_until_ready();
  do {
    winfo->publish(common_text(monitor));
  } while (!wait_or_exit(winfo->cycle_ms));
}

void bpu_thread(std::shared_ptr<window_info> winfo) {
  zorva& monitor = monitor_of(*winfo);
  wait_until_ready();
  do {
    winfo->publish(bpu_text(monitor));
  } while (!wait_or_exit(winfo->cycle_ms));
}

void sys_core_thread(std::shared_ptr<window_info> winfo) {
  zorva& monitor = monitor_of(*winfo);
  windows_manager& winds = *winfo->win_mgr;
  std::shared_ptr<window_info> wproc;
  std::shared_ptr<window_info> wperf;
  {
    const std::lock_guard<std::mutex> win_lk(winds.lock);
    wproc = find_panel(winds, "process");
  }
  wait_until_ready();
  timeval time1{};
  timeval time2{};
  do {
    gettimeofday(&time1, nullptr);
    const std::string cpu = cpu_text(monitor);
    if (wproc) {
      wproc->publish(process_text(monitor));
    }
    if (manager.enable_perf) {
      fill_perf_panel(monitor, winds, wperf);
    }
    winfo->publish(cpu);
    gettimeofday(&time2, nullptr);
  } while (!wait_or_exit(rest_of_cycle(winfo->cycle_ms, time1, time2)));
  const std::lock_guard<std::mutex> win_lk(winds.lock);
  wperf.reset();
}

void process_thread(std::shared_ptr<window_info> winfo) {
  zorva& monitor = monitor_of(*winfo);
  timeval time1{};
  timeval time2{};
  do {
    gettimeofday(&time1, nullptr);
    winfo->publish(process_text(monitor));
    gettimeofday(&time2, nullptr);
  } while (!wait_or_exit(rest_of_cycle(manager.cycle_ms, time1, time2)));
}

void vio_thread(std::shared_ptr<window_info> /*winfo*/) {}

// NOLINTEND(performance-unnecessary-value-param)
