// SPDX-License-Identifier: Apache-2.0
#include "zorva/settings.h"

#include <getopt.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "mon_records.h"

zorva_manage manager;

std::vector<const char*> parts = {"/log", "/map", "/userdata"};

namespace {

constexpr char usage[] =
    "Real-time performance monitoring for Meridian series platforms\n"
    "Options:\n"
    "\t-i Server IP, default: 127.0.0.1\n"
    "\t-p Server Port, default port:1234\n"
    "\t-d $cycle_ms, Monitoring the CPU&Process/thread cycle(millisecond), default:2000ms\n"
    "\t-o $target_file, Save monitor data to target file, only available in TUI mode\n"
    "\t-g, TUI mode(default)\n"
    "\t-b, Batch mode, Show all info to terminal\n"
    "\t-t, Text mode\n"
    "\t-P, Enable perf monitor, default disabled, only one client can enable perf monitor\n"
    "\t-H, Thread monitor mode, defalut process monitor mode\n"
    "\t-n 0/1, Net monitor status, 0=>disable, 1=>enable(default)\n"
    "\t-m $sort_mode, Process sorting order\n"
    "\t  1 - CPU usage\n"
    "\t  2 - BPU usage\n"
    "\t  3 - IO usage\n"
    "\t  4 - NET usage\n"
    "\t  5 - RAM(rss) usage\n"
    "\t-l $log_file, Save zorva log to $log_file, only used in zorva.pc mode\n"
    "\t-h, help\n"
    "\n"
    "Keys:\n"
    "\tc: toggle sort by CPU usage\n"
    "\tb: toggle sort by BPU usage\n"
    "\ti: toggle sort by IO usage\n"
    "\tn: toggle sort by NET usage\n"
    "\tr: toggle sort by RAM(rss) usage\n"
    "\tp: Enable/disable perf monitor\n"
    "\tH: toggle thread mode\n"
    "\tP: toggle process mode\n"
    "\tq: quit\n";

// Whatever strtoul(3) makes of the text; nothing is refused.
unsigned long number(const char* text) {
  return strtoul(text, nullptr, 10);
}

}  // namespace

void show_help() {
  std::cout << usage << std::flush;
}

bool parse_options(int argc, char** argv, std::string& ip, int& port) {
  int opt;
  while ((opt = getopt(argc, argv, "gPHn:tf:hbd:m:i:p:o:l:")) != -1) {
    switch (opt) {
      case 'i':
        ip = optarg;
        break;
      case 'p':
        port = static_cast<int>(number(optarg));
        break;
      case 'd':
        manager.cycle_ms = static_cast<int>(number(optarg));
        break;
      case 'o':
        manager.file_name = optarg;
        break;
      case 'g':
        manager.tui_mode = true;
        break;
      case 'b':
        manager.batch_mode = true;
        manager.tui_mode = false;
        break;
      case 't':
        manager.batch_mode = false;
        manager.tui_mode = false;
        break;
      case 'P':
        manager.enable_perf = true;
        break;
      case 'H':
        manager.thread_mode = true;
        break;
      case 'n':
        manager.enable_net = number(optarg) != 0;
        break;
      case 'm':
        manager.sort_mode = static_cast<int>(number(optarg));
        break;
      case 'l':
        manager.log_file = optarg;
        break;
      default:
        return false;
    }
  }
  return true;
}

int process_list_mode() {
  const int mode = manager.sort_mode;
  return manager.thread_mode ? mode | thread_view : mode;
}

int zorva_manage::handle_input(int timeout_ms) {
  constexpr int check_interval_ms = 500;
  if (timeout_ms < 0) {
    return 0;
  }
  int loop_check = timeout_ms / check_interval_ms;
  int rem = timeout_ms % check_interval_ms;
  while (loop_check > 0 || rem != 0) {
    if (manager.flush_now.exchange(false)) {
      return 0;
    }
    int time = check_interval_ms;
    if (loop_check <= 0) {
      time = rem;
      rem = 0;
    }
    --loop_check;
    if (manager.to_exit) {
      return 1;
    }
    usleep(static_cast<useconds_t>(time) * 1000);
  }
  return 0;
}
