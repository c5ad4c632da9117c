#include "zorva/perf_switch.h"

#include "zorva/log.h"
#include "zorva/monitor.h"
#include "zorva/settings.h"

namespace {

// -EBUSY, as a contract of the client library: another client has the counters.
constexpr int counters_taken = -16;

void switch_perf_on() {
  LOG_I("Enable perf monitor\n");
  if (take_perf_counters(*top->cpu) < 0) {
    return;
  }
  manager.enable_perf = true;
  manager.flush_now = true;
}

void switch_perf_off() {
  manager.enable_perf = false;
  top->cpu->disable_perf_mon();
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

void switch_perf() {
  if (manager.enable_perf) {
    switch_perf_off();
  } else {
    switch_perf_on();
  }
}
