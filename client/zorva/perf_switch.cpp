// SPDX-License-Identifier: Apache-2.0
#include "zorva/perf_switch.h"

#include <memory>
#include <mutex>

#include "zorva/log.h"
#include "zorva/monitor.h"
#include "zorva/settings.h"
#include "zorva/window_manager.h"

namespace {

std::mutex turn_lock;  // guards perf_turn, and enable_perf while it is set for a turn
unsigned perf_turn = 0;

// The counters' panel, filled by the worker of the CPU panel, beside a narrower process list. A
// change of the terminal's size in between may place both as if the counters were off; the next
// frame mends that.
void open_perf_panel(windows_manager& winds) {
  winds.place_process_panel(true);
  constexpr int cycle_ms = 1000;
  const position pos = winds.place_of("perf", true);
  auto perf_info =
      std::make_shared<window_info>("perf", pos.x, pos.y, pos.width, pos.height, cycle_ms);
  winds.create_monitor_window(perf_info, nullptr, top);
  // When the worker has not removed the last panel yet, that one stays, and this one goes.
  const std::lock_guard<std::mutex> win_lk(winds.lock);
  perf_info.reset();
}

void switch_perf_on() {
  LOG_I("Enable perf monitor\n");
  if (take_perf_counters(*top->cpu) < 0) {
    return;
  }
  if (top->winds != nullptr) {
    open_perf_panel(*top->winds);
  }
  const std::lock_guard<std::mutex> guard(turn_lock);
  ++perf_turn;
  manager.enable_perf = true;
  manager.flush_now = true;
}

void switch_perf_off() {
  manager.enable_perf = false;
  top->cpu->disable_perf_mon();
  if (top->winds != nullptr) {
    close_perf_panel(*top->winds);
  }
}

}  // namespace

int take_perf_counters(cpu_stat_manager& cpu) {
  int ret = cpu.enable_perf_mon();
  if (ret == counters_taken_errno) {
    LOG_W("Perf monitor only support one client, force show in this client\n");
    ret = cpu.disable_perf_mon();
    if (ret < 0) {
      LOG_E("Force disable perf monitor failed:%d\n", ret);
      return ret;
    }
    ret = cpu.enable_perf_mon();
  }
  if (ret < 0) {
    LOG_E("Enable perf monitor failed:%d\n", ret);
  }
  return ret;
}

unsigned turn_of_counters() {
  const std::lock_guard<std::mutex> guard(turn_lock);
  return perf_turn;
}

void lose_perf_counters(windows_manager& winds, unsigned turn) {
  {
    const std::lock_guard<std::mutex> guard(turn_lock);
    if (turn != perf_turn) {
      return;
    }
    manager.enable_perf = false;
  }
  close_perf_panel(winds);
}

void close_perf_panel(windows_manager& winds) {
  winds.destory_monitor_window("perf");
  winds.place_process_panel(false);
}

void switch_perf() {
  if (manager.enable_perf) {
    switch_perf_off();
  } else {
    switch_perf_on();
  }
}
