#include "zorva/perf_switch.h"

#include <memory>

#include "zorva/log.h"
#include "zorva/monitor.h"
#include "zorva/settings.h"
#include "zorva/window_manager.h"

namespace {

// The counters' panel, filled by the worker of the CPU panel, beside a narrower process list.
void open_perf_panel(windows_manager& winds) {
  winds.place_process_panel(true);
  constexpr int cycle_ms = 1000;
  const position pos = winds.place_of("perf", true);
  const auto perf_info =
      std::make_shared<window_info>("perf", pos.x, pos.y, pos.width, pos.height, cycle_ms);
  winds.create_monitor_window(perf_info, nullptr, top);
}

void switch_perf_on() {
  LOG_I("Enable perf monitor\n");
  if (take_perf_counters(*top->cpu) < 0) {
    return;
  }
  if (top->winds != nullptr) {
    open_perf_panel(*top->winds);
  }
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
  if (ret == counters_taken) {
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
