// SPDX-License-Identifier: Apache-2.0
#include "cpu_stat_manager.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <sstream>
#include <utility>

#include "requests.h"
#include "text_tools.h"
#include "texts.h"

namespace {

// A server that has taken so long already is not asked for more: running into the time-out would
// cost the connection, and the rates with it.
constexpr int least_left_ms = 500;

// While no process is new to the list, command lines are asked for again after so many lists.
constexpr int lists_between_looks = 4;

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
  return mon_protocol::decode_records(rest, list) && list.size() == static_cast<size_t>(head[0]);
}

// The processes of a list, ascending: those in it, or those that its threads belong to.
std::vector<int32_t> processes_of(const std::vector<pid_msg>& list, bool threads) {
  std::vector<int32_t> processes(list.size());
  std::transform(list.begin(), list.end(), processes.begin(),
                 [threads](const pid_msg& msg) { return threads ? msg.ppid : msg.pid; });
  std::sort(processes.begin(), processes.end());
  return processes;
}

requests::request cpu_request(uint16_t sub_command) {
  return {mon_protocol::cmd_cpu, sub_command};
}

// What `cpu_text` leaves of the panel carries the machine's load, if the server knows it.
std::string system_text(client_comm& comm, const std::string& cpu_text, size_t width) {
  const auto lines = static_cast<size_t>(std::count(cpu_text.begin(), cpu_text.end(), '\n'));
  std::vector<system_stat> stat;
  if (lines >= texts::cpu_lines || comm.left_ms() < least_left_ms ||
      requests::ask_records(comm, cpu_request(mon_protocol::cpu_system), stat, 1) < 0) {
    return "";
  }
  return texts::system(stat.front(), texts::cpu_lines - lines, width);
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
  const requests::text_place place{"CPU", texts::text_form::ended_line,
                                   std::min(text_tools::line_width(), texts::cpu_columns)};
  return requests::query(*this, place, os, [&](client_comm& comm) {
    std::vector<cpu_usage> cpus;
    const int ret = requests::ask_records(comm, cpu_request(mon_protocol::cpu_usage_all), cpus);
    if (ret < 0) {
      return ret;
    }
    cpus_num = cpus.empty() ? 0 : static_cast<int>(cpus.size()) - 1;
    const std::string text = texts::cpu(cpus, place.width);
    *os << text << system_text(comm, text, place.width);
    return 0;
  });
}

int cpu_stat_manager::get_process_all(int mode, std::ostream* os) {
  const int32_t asked = mode;
  const int sort_key = sort_key_of(mode);
  const bool threads = asks_for_threads(mode);
  const requests::text_place place{"Processes", texts::text_form::ended_line,
                                   text_tools::line_width()};
  return requests::query(*this, place, os, [&](client_comm& comm) {
    const int ret =
        comm.request(mon_protocol::cmd_cpu, mon_protocol::cpu_process_list, &asked, sizeof asked);
    if (ret < 0) {
      return ret;
    }
    int total = 0;
    std::vector<pid_msg> list;
    if (!decode_process_list(comm.recv_buf, total, list)) {
      return comm.reject_answer();
    }
    update_command_lines(comm, processes_of(list, threads));
    *os << texts::processes(list, command_lines, total, sort_key, threads, place.width);
    return 0;
  });
}

// Asks for what is new and forgets what is not listed any more, as the server does. On a failure
// the connection is closed, or its server does not have them: without them the list is still good.
void cpu_stat_manager::update_command_lines(client_comm& comm,
                                            const std::vector<int32_t>& processes) {
  if (std::exchange(command_lines_of, comm.connections) != comm.connections) {
    command_lines.clear();
    command_lines_told.clear();
    command_lines_asked = true;
  }
  const bool all_told = std::includes(command_lines_told.begin(), command_lines_told.end(),
                                      processes.begin(), processes.end());
  if (!command_lines_asked || comm.left_ms() < least_left_ms || (all_told && lists_to_pass > 0)) {
    lists_to_pass -= lists_to_pass > 0 ? 1 : 0;
    return;
  }
  lists_to_pass = all_told ? lists_between_looks : 0;  // a new one's line comes a list later
  std::vector<process_command> changed;
  if (requests::ask_records(comm, cpu_request(mon_protocol::cpu_command_lines), changed) < 0) {
    command_lines.clear();
    command_lines_asked = false;
    return;
  }
  command_lines_told = processes;
  const auto is_listed = [&processes](int32_t pid) {
    return std::binary_search(processes.begin(), processes.end(), pid);
  };
  for (auto one = command_lines.begin(); one != command_lines.end();) {
    one = is_listed(one->first) ? std::next(one) : command_lines.erase(one);
  }
  for (const process_command& command : changed) {
    if (command.text[0] == '\0') {
      command_lines.erase(command.pid);
    } else if (is_listed(command.pid)) {
      command_lines[command.pid] = text_tools::clean_name(command.text);
    }
  }
}

int cpu_stat_manager::enable_perf_mon() {
  const int ret = requests::command_and_hold(*this, mon_protocol::cpu_enable_perf);
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
    return requests::command_release(comm, mon_protocol::cmd_cpu, mon_protocol::cpu_disable_perf,
                                     mon_protocol::cpu_enable_perf);
  });
}

// The counters' panel is closed once another client has them: nothing is said then.
int cpu_stat_manager::get_perf_data(std::ostream* os) {
  const size_t width = text_tools::counters_width(text_tools::terminal_columns());
  std::ostringstream text;
  const int ret = requests::query(
      *this, {"Counters", texts::text_form::ended_line, width}, &text, [&](client_comm& comm) {
        std::vector<perf_sample> sample;
        const int status =
            requests::ask_records(comm, cpu_request(mon_protocol::cpu_perf_data), sample, 1);
        if (status == -EBUSY) {
          comm.release(mon_protocol::cmd_cpu, mon_protocol::cpu_enable_perf);
        } else if (status == 0) {
          text << texts::counters(sample.front(), width);
        }
        return status;
      });
  if (ret != -EBUSY) {
    *os << text.str();
  }
  return ret;
}

int cpu_stat_manager::cpu_mon_exit() {
  return requests::ask(*this, mon_protocol::cpu_exit, nullptr, 0, [this](client_comm&) {
    command_lines.clear();  // the server tells them anew
    command_lines_told.clear();
    return 0;
  });
}
