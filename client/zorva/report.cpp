// SPDX-License-Identifier: Apache-2.0
#include "zorva/report.h"

#include <sys/time.h>

#include <iostream>
#include <mutex>
#include <sstream>
#include <string>

#include "zorva/cycle.h"
#include "zorva/monitor.h"
#include "zorva/query.h"
#include "zorva/settings.h"
#include "zorva/time_stamp.h"

namespace {

constexpr char dashes[] =
    "----------------------------------------------------------------------\n";
constexpr char spaced_dashes[] =
    "\n----------------------------------------------------------------------\n";

// While it lives, what anybody writes to standard output lands in `buffer`.
class output_capture {
 public:
  explicit output_capture(std::stringstream& buffer)
      : coutBuffer(std::cout.rdbuf(buffer.rdbuf())) {}
  // Also clears the failure that an earlier write may have left (a full disk, say), so that the
  // next report is tried again.
  ~output_capture() { std::cout.rdbuf(coutBuffer); }
  output_capture(const output_capture&) = delete;
  output_capture& operator=(const output_capture&) = delete;

 private:
  std::streambuf* coutBuffer;
};

void write_sections(zorva& monitor) {
  std::ostream* os = &std::cout;
  query_round query;
  std::cout << dashes;
  query("get_all_thermal", [&] { return monitor.peri->get_all_thermal(os); });
  std::cout << spaced_dashes;
  query("get_meminfo", [&] { return monitor.peri->get_meminfo(os); });
  query("get_ion_info", [&] { return monitor.peri->get_ion_info(os); });
  std::cout << spaced_dashes;
  query("get_partition_info", [&] { return monitor.peri->get_partition_info(parts, os); });
  std::cout << spaced_dashes;
  query("get_cpu_usage", [&] { return monitor.cpu->get_cpu_usage(os); });
  std::cout << dashes;
  query("get_bpu_ratio_all", [&] { return monitor.bpu->get_bpu_ratio_all(os); });
  std::cout << dashes;
  if (monitor.net) {
    query("get_bandwidth_stat", [&] { return monitor.net->get_bandwidth_stat(os); });
  }
  std::cout << dashes;
  query("get_block_usage", [&] { return monitor.peri->get_block_usage(os); });
  std::cout << spaced_dashes;
  query("sort_all_vio_fps", [&] { return monitor.vio->sort_all_vio_fps(os); });
  std::cout << dashes;
  query("get_process_all", [&] { return monitor.cpu->get_process_all(process_list_mode(), os); });
}

// Writes as many lines as fill a terminal of `rows` rows. The last of a report that is cut keeps
// the cursor in the bottom row; the empty line that the next report starts with closes it.
void write_cut_to(std::stringstream& report, int rows) {
  std::string sline;
  int num = 0;
  while (std::getline(report, sline)) {
    std::cout << sline;
    if (num == rows) {
      std::cout << std::flush;
      return;
    }
    std::cout << std::endl;
    ++num;
  }
}

}  // namespace

void zorva_thread(zorva* zorva) {
  bool first_loop = true;
  while (true) {
    std::stringstream ss;
    timeval time1{};
    std::unique_lock<std::mutex> cycle_lock;
    {
      const output_capture capture(ss);
      gettimeofday(&time1, nullptr);
      if (!manager.batch_mode) {
        zorva->get_terminal_size();
      }
      cycle_lock = std::unique_lock<std::mutex>(zorva->lk);
      if (manager.to_exit) {
        return;
      }
      write_time_stamp(std::cout, "\nTime: %Y-%m-%d %H:%M:%S.", time1);
      std::cout << '\n';
      write_sections(*zorva);
    }
    // The first report has nothing to take rates from.
    if (!first_loop) {
      if (manager.batch_mode) {
        std::cout << ss.str() << std::endl;
      } else {
        write_cut_to(ss, zorva->tsize.ws_row);
      }
    }
    timeval time2{};
    gettimeofday(&time2, nullptr);
    if (zorva_manage::handle_input(rest_of_cycle(manager.cycle_ms, time1, time2)) != 0) {
      return;
    }
    first_loop = false;
  }
}
