// SPDX-License-Identifier: Apache-2.0
#include "zorva/monitor.h"

#include <curses.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "zorva/log.h"
#include "zorva/perf_switch.h"
#include "zorva/settings.h"
#include "zorva/signals.h"

zorva* top = nullptr;

namespace {

constexpr int file_failed = -1;
constexpr int connect_failed = -2;

// Those of most terminals on serial lines, and what ncurses takes.
constexpr unsigned short serial_rows = 24;

int constructor_failed(const char* message) {
  LOG_E("Exception caught: \"%s\" when constructor parse manager\n", message);
  return connect_failed;
}

}  // namespace

zorva::~zorva() {
  if (manager.tui_mode) {
    curs_set(1);
    endwin();
  }
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): callers hand over a copy
int zorva::zorva_top_init(std::string ip, int port) {
  if (!manager.file_name.empty()) {
    manager.out_file.open(manager.file_name, std::ios::out | std::ios::app);
    if (!manager.out_file.is_open()) {
      LOG_E("Open target file failed\n");
      return file_failed;
    }
  }
  int ret = connect_clients(ip, port);
  if (ret < 0) {
    return ret;
  }
  if (manager.enable_net) {
    ret = start_network(ip, port);
    if (ret < 0) {
      return ret;
    }
  }
  if (!manager.enable_perf) {
    return 0;
  }
  ret = take_perf_counters(*cpu);
  return ret < 0 ? ret : 0;
}

int zorva::connect_clients(const std::string& ip, int port) {
  try {
    cpu = std::make_shared<cpu_stat_manager>(ip, port);
    clean_up_objects.cpu = cpu.get();
    peri = std::make_shared<peri_stat_manager>(ip, port);
    bpu = std::make_shared<bpu_ratio_manager>(ip, port);
    vio = std::make_shared<vio_info_manager>(ip, port);
  } catch (const char* message) {
    return constructor_failed(message);
  }
  return 0;
}

int zorva::start_network(const std::string& ip, int port) {
  try {
    net = std::make_shared<net_stat_manager>(ip, port);
    clean_up_objects.net = net.get();
  } catch (const char* message) {
    return constructor_failed(message);
  }
  const int ret = net->start_net_monitor();
  if (ret < 0) {
    LOG_E("start_net_monitor failed\n");
    return ret;
  }
  return 0;
}

int zorva::get_terminal_size() {
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &tsize) < 0) {
    std::cerr << "Failed to get terminal size" << std::endl;
    return 1;
  }
  if (tsize.ws_row == 0) {
    const char* const told = std::getenv("LINES");
    const int rows = told == nullptr ? 0 : std::atoi(told);
    tsize.ws_row = rows > 0 ? static_cast<unsigned short>(rows) : serial_rows;
  }
  return 0;
}
