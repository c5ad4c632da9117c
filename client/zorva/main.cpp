// The program's entry: the steps of a run.
#include <cerrno>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>

#include "zorva/monitor.h"
#include "zorva/report.h"
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
int log_to_file(const char* path) {
#ifdef ZORVA_OWN_LOG
  if (zorva_log_to_file != nullptr) {
    return zorva_log_to_file(path);
  }
#endif
  static_cast<void>(path);
  return -ENOSYS;
}

void open_log_file() {
  if (manager.log_file.empty()) {
    return;
  }
  const int ret = log_to_file(manager.log_file.c_str());
  if (ret == -ENOSYS) {
    std::cerr << "zorva: -l has no effect with this log library" << std::endl;
  } else if (ret < 0) {
    std::cerr << "zorva: cannot open log file " << manager.log_file << ": " << strerror(-ret)
              << "; the log goes to syslog" << std::endl;
  }
}

void run_reports() {
  std::thread top_thread(zorva_thread, top);
  zorva_manage::read_input();
  top_thread.join();
}

}  // namespace

int main(int argc, char** argv) {
  std::string ip = "127.0.0.1";
  int port = 1234;
  fill_standard_streams();
  signal_guard signals;
  top = new zorva();
  if (!parse_options(argc, argv, ip, port)) {
    show_help();
    return 0;
  }
  open_log_file();
  if (top->zorva_top_init(ip, port) < 0) {
    std::cout << "zorva_top_init failed" << std::endl;
    std::cerr << "zorva: the log says why (tag ZORVA; -l FILE writes it to FILE)" << std::endl;
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
