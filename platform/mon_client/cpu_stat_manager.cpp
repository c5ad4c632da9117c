#include "cpu_stat_manager.h"

#include <cstddef>
#include <cstring>
#include <utility>

#include "requests.h"
#include "texts.h"

namespace {

constexpr size_t most_cpus = 1025;  // the total and 1,024 CPUs

// The process list has a head before its records.
bool decode_process_list(const std::vector<uint8_t>& payload, int& total,
                         std::vector<pid_msg>& list) {
  constexpr size_t head_size = offsetof(top_pid_info, send_pid_info);
  if (payload.size() < head_size) {
    return false;
  }
  int32_t head[2];
  std::memcpy(head, payload.data(), head_size);
  total = head[1];
  const std::vector<uint8_t> rest(payload.begin() + head_size, payload.end());
  return mon_protocol::decode_records(rest, max_pid_msgs, list) &&
         list.size() == static_cast<size_t>(head[0]);
}

}  // namespace

cpu_stat_manager::cpu_stat_manager() {
  request_cmd = mon_protocol::cmd_cpu;
}

cpu_stat_manager::cpu_stat_manager(std::shared_ptr<client_comm> connection)
    : request_handler(std::move(connection)) {
  request_cmd = mon_protocol::cmd_cpu;
}

cpu_stat_manager::cpu_stat_manager(const std::string& ip, int port)
    : cpu_stat_manager(std::make_shared<client_comm>(ip, port)) {}

cpu_stat_manager::~cpu_stat_manager() = default;

int cpu_stat_manager::get_cpu_usage(std::ostream* os) {
  const auto format = [this](const std::vector<cpu_usage>& cpus) {
    cpus_num = cpus.empty() ? 0 : static_cast<int>(cpus.size()) - 1;
    return texts::cpu(cpus);
  };
  return requests::query<cpu_usage>(*this, mon_protocol::cpu_usage_all, nullptr, 0, most_cpus,
                                    format, os);
}

int cpu_stat_manager::get_process_all(int mode, std::ostream* os) {
  const int32_t asked = mode;
  const int sort_key = mode & 0xff;
  const bool threads = (mode & 0xff00) == 0xff00;
  return requests::ask(*this, mon_protocol::cpu_process_list, &asked, sizeof asked,
                       [&](client_comm& comm) {
                         int total = 0;
                         std::vector<pid_msg> list;
                         if (!decode_process_list(comm.recv_buf, total, list)) {
                           return comm.reject_answer();
                         }
                         *os << texts::processes(list, total, sort_key, threads);
                         return 0;
                       });
}

int cpu_stat_manager::enable_perf_mon() {
  const int ret = requests::order_and_hold(*this, mon_protocol::cpu_enable_perf);
  perf_refused = ret == -EBUSY;
  return ret;
}

// Not sent when this client neither has the counters nor was just refused them: after a
// reconnection the server would take it for the second, and take them from the client that has them
// now.
int cpu_stat_manager::disable_perf_mon() {
  const bool take_over = perf_refused.exchange(false);
  return requests::with_connection(*this, [&](client_comm& comm) {
    if (!take_over && !comm.holds(mon_protocol::cmd_cpu, mon_protocol::cpu_enable_perf)) {
      return 0;
    }
    return requests::order_release(comm, mon_protocol::cmd_cpu, mon_protocol::cpu_disable_perf,
                                   mon_protocol::cpu_enable_perf);
  });
}

int cpu_stat_manager::get_perf_data(std::ostream* os) {
  return requests::with_connection(*this, [&](client_comm& comm) {
    const int ret = comm.request(mon_protocol::cmd_cpu, mon_protocol::cpu_perf_data, nullptr, 0);
    if (ret == -EBUSY) {
      comm.release(mon_protocol::cmd_cpu, mon_protocol::cpu_enable_perf);
    }
    return ret < 0 ? ret : requests::append_one<perf_sample>(comm, texts::counters, os);
  });
}

int cpu_stat_manager::cpu_mon_exit() {
  return requests::order(*this, mon_protocol::cpu_exit);
}
