// SPDX-License-Identifier: Apache-2.0
// CPU usage, the list of processes or threads, and the hardware performance counters.
#ifndef CPU_STAT_MANAGER_H
#define CPU_STAT_MANAGER_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <unordered_map>
#include <vector>

#include "client_comm.h"
#include "request_handler.h"

class cpu_stat_manager : public ns_req_template::request_handler {
 public:
  cpu_stat_manager();
  explicit cpu_stat_manager(std::shared_ptr<client_comm> connection);
  // Connects; throws a `const char*` text when that fails, as client_comm does.
  cpu_stat_manager(const std::string& ip, int port);
  ~cpu_stat_manager();

  // Appends the CPU usage block: at most 9 lines of at most 69 columns, each ended. Lines that the
  // CPUs leave show load, tasks, pressure and swap, if the server knows them.
  int get_cpu_usage(std::ostream* os);

  // Appends the list of processes or threads: a header line, then at most 146 lines, each ended,
  // and each cut to the width of the terminal on standard output less one column, at most 117. Bits
  // 0 to 7 of `mode` are the sort key (1 CPU, 2 BPU, 3 IO, 4 NET, 5 RAM; anything else sorts as 1),
  // bits 8 to 15 all set ask for threads.
  //
  // Behind the name stands the command line as far as the server knows it; a new process's mostly
  // follows with the next call. Where it begins with the program that the name is of, only what
  // comes after that: "python3 -c import time". Behind the name of a thread that is not called as
  // its process: the program without its folder, and its arguments. A list without command lines is
  // still an answer: 0.
  int get_process_all(int mode, std::ostream* os);

  // Starts counting for this client. -16 (-EBUSY) when another client has the counters.
  int enable_perf_mon();

  // Stops counting. Right after enable_perf_mon() returned -16 it takes the counters from whichever
  // client has them, so that the next enable_perf_mon() succeeds.
  int disable_perf_mon();

  // Appends the counters since the last call: a header, then a line a counter, known ones first, of
  // at most 80 columns, each ended; for a panel that begins at column 118 of the terminal. -16, and
  // no text, when another client has taken the counters over.
  int get_perf_data(std::ostream* os);

  // Ends this client's process monitoring on the server: the next get_process_all starts afresh.
  int cpu_mon_exit();

  // The last enable_perf_mon() was answered -EBUSY: the next disable_perf_mon() takes the counters.
  std::atomic<bool> perf_refused{false};
  int cpus_num = 0;  // CPUs in the last answer of get_cpu_usage

 private:
  void update_command_lines(client_comm& comm, const std::vector<int32_t>& processes);

  // What follows is guarded by req_lock. The command lines of the processes in the last list that
  // have one, by process id, as they may be shown. The server tells each once a connection: only
  // one cpu_stat_manager of a connection may list processes.
  std::unordered_map<int32_t, std::string> command_lines;
  std::vector<int32_t> command_lines_told;  // processes of the list that they were asked for last
  uint32_t command_lines_of = 0;     // the connection that they are of, as client_comm counts them
  bool command_lines_asked = false;  // whether its server is asked for them
  int lists_to_pass = 0;             // before they are asked for again
};

#endif
