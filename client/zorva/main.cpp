// SPDX-License-Identifier: Apache-2.0
// The program's entry: the steps of a run.
#include <sys/prctl.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>

#include "zorva/monitor.h"
#include "zorva/report.h"
#include "zorva/screen_keeper.h"
#include "zorva/settings.h"
#include "zorva/signals.h"
#include "zorva/standard_streams.h"
#include "zorva/tui.h"

#ifdef ZORVA_OWN_LOG
#include "log_file.h"
#endif

namespace {

// With a board's own log library there is no such call, neither when we are built against it nor
// when it takes the place of ours later.
bool log_can_have_file() {
#ifdef ZORVA_OWN_LOG
  return zorva_log_to_file != nullptr;
#else
  return false;
#endif
}

int log_to_file(const char* path) {
#ifdef ZORVA_OWN_LOG
  return zorva_log_to_file(path);
#else
  static_cast<void>(path);
  return -ENOSYS;
#endif
}

// Returns where a person finds the log.
std::string open_log_file() {
  const std::string& path = manager.log_file;
  if (!log_can_have_file()) {
    if (!path.empty()) {
      std::cerr << "zorva: -l has no effect with this log library" << std::endl;
    }
    return "tag ZORVA";
  }
  if (path.empty()) {
    return "syslog, tag ZORVA; -l /dev/stderr shows it here";
  }
  const int ret = log_to_file(path.c_str());
  if (ret < 0) {
    const char* reason = ret == -ENXIO ? "nobody reads from it" : strerror(-ret);
    std::cerr << "zorva: cannot open log file " << path << ": " << reason
              << "; the log goes to syslog" << std::endl;
    return "syslog, tag ZORVA";
  }
  return path;
}

void run_reports() {
  std::thread top_thread(zorva_thread, top);
  zorva_manage::read_input();
  const output_dropper dropper;  // a report may be waiting for the terminal
  top_thread.join();
}

}  // namespace

int main(int argc, char** argv) {
  std::string ip = "127.0.0.1";
  int port = 1234;
  // Where a loader was called to start it, it is called ld-linux-...
  prctl(PR_SET_NAME, "zorva");
  fill_standard_streams();
  signal_guard signals;
  top = new zorva();
  if (!parse_options(argc, argv, ip, port)) {
    show_help();
    return 0;
  }
  const std::string log_place = open_log_file();
  if (top->zorva_top_init(ip, port) < 0) {
    std::cout << "zorva_top_init failed" << std::endl;
    std::cerr << "zorva: the log says why (" << log_place << ")" << std::endl;
    return -1;
  }
  if (manager.tui_mode) {
    run_tui(signals);
  } else {
    run_reports();
  }
  const auto shutdown = signals.hold_off();
  delete top;
  top = nullptr;
  return 0;
}
