// CPU usage, the list of processes or threads, and the hardware performance counters.
#ifndef CPU_STAT_MANAGER_H
#define CPU_STAT_MANAGER_H

#include <atomic>
#include <memory>
#include <ostream>
#include <string>

#include "client_comm.h"
#include "request_handler.h"

class cpu_stat_manager : public ns_req_template::request_handler {
 public:
  cpu_stat_manager();
  explicit cpu_stat_manager(std::shared_ptr<client_comm> connection);
  // Connects; throws a `const char*` text when that fails, as client_comm does.
  cpu_stat_manager(const std::string& ip, int port);
  ~cpu_stat_manager();

  // Appends the CPU usage block: at most 9 lines of at most 69 columns, each ended.
  int get_cpu_usage(std::ostream* os);

  // Appends the list of processes or threads: a header line, then at most 146 lines, of at most 117
  // columns, each ended. Bits 0 to 7 of `mode` are the sort key (1 CPU, 2 BPU, 3 IO, 4 NET, 5 RAM;
  // anything else sorts as 1), bits 8 to 15 all set ask for threads.
  int get_process_all(int mode, std::ostream* os);

  // Starts counting for this client. -16 (-EBUSY) when another client has the counters.
  int enable_perf_mon();

  // Stops counting. Right after enable_perf_mon() returned -16 it takes the counters from whichever
  // client has them, so that the next enable_perf_mon() succeeds.
  int disable_perf_mon();

  // Appends the counters since the last call: a header, then a line a counter, of at most 80
  // columns, each ended. -16 when another client has taken the counters over.
  int get_perf_data(std::ostream* os);

  // Ends this client's process monitoring on the server: the next get_process_all starts afresh.
  int cpu_mon_exit();

  // The last enable_perf_mon() was answered -EBUSY: the next disable_perf_mon() takes the counters.
  std::atomic<bool> perf_refused{false};
  int cpus_num = 0;  // CPUs in the last answer of get_cpu_usage
};

#endif
