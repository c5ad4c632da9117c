// SPDX-License-Identifier: Apache-2.0
#include "proc_files.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "test_tools.h"

namespace {

const double tick_s = 1.0 / static_cast<double>(sysconf(_SC_CLK_TCK));

uint64_t number_after(const std::string& path, const std::string& label) {
  return std::strtoull(word_after(path, label).c_str(), nullptr, 10);
}

// False when the task has gone.
bool read_task(const std::string& folder, task_files& task) {
  task.time_s = now_s();
  const std::string stat = read_file(folder + "/stat");
  const size_t name_end = stat.rfind(')');
  if (name_end == std::string::npos) {
    return false;
  }
  std::istringstream rest(stat.substr(name_end + 1));
  std::vector<std::string> fields(3);  // so that fields[n] is what proc_pid_stat(5) calls (n)
  for (std::string word; rest >> word;) {
    fields.push_back(word);
  }
  const auto number = [&](size_t field) { return std::atoll(fields.at(field).c_str()); };
  task.state = fields.at(3)[0];
  task.ppid = static_cast<pid_t>(number(4));
  task.cpu_s = static_cast<double>(number(14) + number(15)) * tick_s;
  task.priority = static_cast<int>(number(18));
  task.rss_kb = number(24) * sysconf(_SC_PAGESIZE) / 1024;
  task.processor = static_cast<int>(number(39));
  task.comm = read_file(folder + "/comm");
  if (!task.comm.empty()) {
    task.comm.pop_back();  // the line's end
  }
  task.run_ns = number_after(folder + "/schedstat", "");
  task.io_bytes = number_after(folder + "/io", "\nread_bytes:") +
                  number_after(folder + "/io", "\nwrite_bytes:");
  return true;
}

std::vector<std::string> numbered(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code gone;
  for (const auto& entry : std::filesystem::directory_iterator(folder, gone)) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") == std::string::npos) {
      names.push_back(name);
    }
  }
  return names;
}

}  // namespace

double now_s() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration<double>(now).count();
}

std::string word_after(const std::string& path, const std::string& label) {
  const std::string text = read_file(path);
  const size_t place = text.find(label);
  std::istringstream rest(place == std::string::npos ? "" : text.substr(place + label.size()));
  std::string word;
  rest >> word;
  return word;
}

std::map<pid_t, task_files> read_tasks(bool threads) {
  std::map<pid_t, task_files> tasks;
  for (const std::string& pid : numbered("/proc")) {
    const std::string folder = "/proc/" + pid;
    for (const std::string& id : threads ? numbered(folder + "/task") : std::vector{pid}) {
      task_files task;
      if (read_task(threads ? folder + "/task/" + id : folder, task)) {
        task.ppid = threads ? std::atoi(pid.c_str()) : task.ppid;
        tasks[std::atoi(id.c_str())] = task;
      }
    }
  }
  return tasks;
}

std::map<int, cpu_seconds> read_cpus() {
  std::map<int, cpu_seconds> cpus;
  std::istringstream text(read_file("/proc/stat"));
  for (std::string label; text >> label && label.compare(0, 3, "cpu") == 0;) {
    double columns[10];  // user nice system idle iowait irq softirq steal guest guest_nice
    for (double& column : columns) {
      text >> column;
      column *= tick_s;
    }
    cpu_seconds& cpu = cpus[label == "cpu" ? -1 : std::atoi(label.c_str() + 3)];
    cpu.idle = columns[3] + columns[4];
    cpu.busy = columns[0] + columns[1] + columns[2] + columns[5] + columns[6] + columns[7];
  }
  return cpus;
}
