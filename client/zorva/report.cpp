#include "zorva/report.h"

#include <sys/time.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <iostream>
#include <limits>
#include <mutex>
#include <sstream>
#include <string>

#include "common_func.h"
#include "zorva/log.h"
#include "zorva/monitor.h"
#include "zorva/settings.h"

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

// The microseconds are a plain number: 5000 of them read ".5000".
void write_time_line(const timeval& time) {
  tm local{};
  localtime_r(&time.tv_sec, &local);
  char timestamp[64];
  strftime(timestamp, sizeof timestamp, "\nTime: %Y-%m-%d %H:%M:%S.", &local);
  std::cout << timestamp << time.tv_usec << '\n';
}

void log_failure(const char* query, int ret) {
  if (ret < 0) {
    LOG_E("%s failed:%d\n", query, ret);
  }
}

void write_sections(zorva& monitor) {
  std::ostream* os = &std::cout;
  std::cout << dashes;
  log_failure("get_all_thermal", monitor.peri->get_all_thermal(os));
  std::cout << spaced_dashes;
  log_failure("get_meminfo", monitor.peri->get_meminfo(os));
  log_failure("get_ion_info", monitor.peri->get_ion_info(os));
  std::cout << spaced_dashes;
  log_failure("get_partition_info", monitor.peri->get_partition_info(parts, os));
  std::cout << spaced_dashes;
  log_failure("get_cpu_usage", monitor.cpu->get_cpu_usage(os));
  std::cout << dashes;
  log_failure("get_bpu_ratio_all", monitor.bpu->get_bpu_ratio_all(os));
  std::cout << dashes;
  if (monitor.net) {
    log_failure("get_bandwidth_stat", monitor.net->get_bandwidth_stat(os));
  }
  std::cout << dashes;
  log_failure("get_block_usage", monitor.peri->get_block_usage(os));
  std::cout << spaced_dashes;
  log_failure("sort_all_vio_fps", monitor.vio->sort_all_vio_fps(os));
  std::cout << dashes;
  log_failure("get_process_all", monitor.cpu->get_process_all(process_list_mode(), os));
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

// Milliseconds left of the cycle that began at `time1`; negative when its work took longer. A clock
// that was set forward by months looks like a long cycle, and must not overflow into a long wait.
int rest_of_cycle(timeval& time1, timeval& time2) {
  constexpr uint64_t longest = std::numeric_limits<int>::max();
  const auto loss_time = static_cast<int>(std::min(time_diff(time1, time2), longest));
  const int64_t rest = int64_t{manager.cycle_ms} - loss_time;
  return static_cast<int>(std::max<int64_t>(rest, -1));
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
      write_time_line(time1);
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
    if (zorva_manage::handle_input(rest_of_cycle(time1, time2)) != 0) {
      return;
    }
    first_loop = false;
  }
}
