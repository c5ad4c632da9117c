// SPDX-License-Identifier: Apache-2.0
// Settings and run state of the program, and the command line that fills them.
#ifndef ZORVA_SETTINGS_H
#define ZORVA_SETTINGS_H

#include <fstream>
#include <string>
#include <vector>

#include "zorva/relaxed_atomic.h"

class zorva_manage {
 public:
  // Reads keys from standard input and acts on them until `q`, on the main thread. Does not return
  // at the end of input.
  static void read_input();

  // Waits up to `timeout_ms` in slices of 500 ms. Returns 1 when it saw `to_exit`, else 0: when the
  // time is over, when it found `flush_now` (which it clears), or at once for a negative time-out.
  static int handle_input(int timeout_ms);

  bool batch_mode = false;  // reports are printed whole; only looked at when tui_mode is off
  relaxed_atomic<bool> thread_mode{false};  // the process list shows threads
  bool tui_mode = true;                     // full screen
  // Counter monitoring is on. Written by `p`, and cleared when another client takes the counters.
  relaxed_atomic<bool> enable_perf{false};
  bool enable_net = true;  // network bandwidth monitoring is on
  // Cuts one wait short, so that a new setting shows at once. The wait that sees it clears it.
  relaxed_atomic<bool> flush_now{false};
  // Sort key of the process list: 1 CPU, 2 BPU, 3 IO, 4 NET, 5 RAM. Not range-tested.
  relaxed_atomic<int> sort_mode{1};
  relaxed_atomic<bool> to_exit{false};     // the program is ending; never goes back to false
  relaxed_atomic<bool> wind_ready{false};  // all panels exist and the refresher runs

  // Written by the option loop, before a second thread exists.
  int cycle_ms = 2000;     // cycle of the CPU and process figures; may be 0 or negative
  std::string file_name;   // file into which the full screen copies its panels; empty: none
  std::string log_file;    // file that takes the log in place of syslog; empty: none
  std::ofstream out_file;  // open on `file_name` once zorva_top_init has run
};

extern zorva_manage manager;

// Mount points whose usage is shown.
extern std::vector<const char*> parts;

// Writes the usage text to standard output and flushes it.
void show_help();

// Parses the command line into `manager`, `ip` and `port`. False when the usage text was asked for
// or an option was wrong: the program then prints it and ends.
bool parse_options(int argc, char** argv, std::string& ip, int& port);

// The mode word of the process list that the settings ask for now.
int process_list_mode();

#endif
