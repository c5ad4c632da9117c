// SPDX-License-Identifier: Apache-2.0
// The monitor object: the client objects that every figure comes from.
#ifndef ZORVA_MONITOR_H
#define ZORVA_MONITOR_H

#include <sys/ioctl.h>

#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "bpu_ratio_manager.h"
#include "cpu_stat_manager.h"
#include "net_stat_manager.h"
#include "peri_stat_manager.h"
#include "vio_info_manager.h"

class windows_manager;

// One per run. The client objects are made by zorva_top_init, before a second thread uses them, and
// never reassigned; any thread may call them without a lock.
class zorva {
 public:
  zorva() = default;
  // Shows the cursor again and ends curses in full-screen mode, then releases the client objects.
  ~zorva();
  zorva(const zorva&) = delete;
  zorva& operator=(const zorva&) = delete;

  // Opens the output file, if one was named, connects the client objects, and starts network and
  // counter monitoring as the settings ask. Returns 0, or a negative value after it has logged why:
  // -1 the output file, -2 a connection, else the status of the call that failed.
  int zorva_top_init(std::string ip, int port);

  // Reads the size of the terminal on standard output into `tsize`. Returns 0, or 1 after a line on
  // standard error; `tsize` then stays as it was. A terminal that does not say, as one on a serial
  // line, has as many rows as the environment's LINES, else 24.
  int get_terminal_size();

  winsize tsize{};  // belongs to the report thread
  std::shared_ptr<cpu_stat_manager> cpu;
  std::shared_ptr<bpu_ratio_manager> bpu;
  std::shared_ptr<peri_stat_manager> peri;
  std::shared_ptr<vio_info_manager> vio;
  std::shared_ptr<net_stat_manager> net;  // empty when network monitoring is off
  std::mutex lk;                          // held by the report thread during each of its cycles
  windows_manager* winds = nullptr;       // full screen only; owned by the entry
  std::thread flusher;                    // the screen refresher; full screen only

 private:
  int connect_clients(const std::string& ip, int port);
  int start_network(const std::string& ip, int port);
};

// The run's monitor object; null until the entry has made it.
extern zorva* top;

#endif
