// SPDX-License-Identifier: Apache-2.0
// What the process list shows: the processes, their IO, network and accelerator use, command lines.
#include <linux/capability.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

#include "line_reader.h"
#include "samplers/command_line.h"
#include "samplers/process_descriptors.h"
#include "samplers/process_sampler.h"
#include "self_check/families.h"

namespace {

using samplers::process_entry;
using samplers::process_sample;

// Files that are read of a process in each sample, as far as it has run.
constexpr size_t files_a_process = 3;

template <class condition>
size_t count_if(const process_sample& sample, const condition& fits) {
  return static_cast<size_t>(std::count_if(sample.entries.begin(), sample.entries.end(), fits));
}

// "12 of 70 processes"
std::string share_of(size_t some, const process_sample& sample) {
  return std::to_string(some) + " of " + count_of(sample.entries.size(), "process");
}

// The kernel shows everybody the first process unless it hides those of others.
bool hides_others(const samplers::file_reader& machine) {
  std::string text;
  return machine.own_machine && machine.read("proc/1/stat", text) != 0;
}

obstacle hiding_obstacle(const samplers::file_reader& machine) {
  std::string mounts;
  machine.read("proc/self/mountinfo", mounts);
  const size_t place = mounts.find("hidepid=");
  const std::string option =
      place == std::string::npos
          ? ""
          : mounts.substr(place, mounts.find_first_of(", \n", place) - place);
  obstacle one = rights_obstacle("/proc hides processes of other users" +
                                     (option.empty() ? "" : " (" + option + ")") + "; to see them",
                                 {CAP_SYS_PTRACE});
  return one;
}

class process_check {
 public:
  explicit process_check(check_context& checked)
      : context(checked),
        machine(std::make_shared<const samplers::file_reader>(checked.options.sysroot)),
        sampler(machine, {checked.options.keep_files, checked.options.use_bpf}) {}

  void run() {
    error = sampler.read(false, 0, processes);
    process_sample threads;
    const int threads_error = sampler.read(true, 0, threads);
    error = error == 0 ? threads_error : error;
    thread_count = threads.entries.size();
    hidden = hides_others(*machine);
    add_processes();
    if (error != 0 || processes.entries.empty()) {
      for (const char* family :
           {"IO of processes", "network of processes", "BPU of processes", "command lines"}) {
        context.add_with(family, "processes");
      }
    } else {
      add_io();
      add_network();
      add_accelerators();
      add_command_lines();
    }
  }

 private:
  void add_processes() {
    finding one{"processes, threads", error == 0 && !processes.entries.empty(), ""};
    if (!one.is_read) {
      one.obstacles.push_back(
          file_obstacle(context.kernel, "/proc/PID/stat", error == 0 ? -ENOENT : error, nullptr));
      context.findings.push_back(std::move(one));
      return;
    }
    one.source = std::string(sampler.uses_bpf() ? "BPF pass over the kernel's tasks"
                                                : "files /proc/PID/stat") +
                 " (" + count_of(processes.entries.size(), "process") + ", " +
                 count_of(thread_count, "thread") + ")";
    if (!sampler.uses_bpf()) {
      add_obstacles_of_files(one);
    }
    context.findings.push_back(std::move(one));
  }

  void add_obstacles_of_files(finding& one) {
    if (!machine->own_machine) {
      return;
    }
    if (!context.options.use_bpf) {
      one.obstacles.push_back({"not by BPF, as --no-bpf wants it", {}, {}});
    } else {
      one.obstacles.push_back(bpf_obstacle(context.kernel, sampler.why_not_bpf()));
      one.obstacles.back().why.insert(0, "not by BPF, which would cost a third: ");
    }
    if (hidden) {
      one.obstacles.push_back(hiding_obstacle(*machine));
    }
    if (!sampler.leaves_idle_alone()) {
      one.obstacles.push_back(option_obstacle(
          context.kernel, "all are read in each sample, also those that have not run",
          "CONFIG_SCHED_INFO",
          {"/proc/PID/schedstat is all 0",
           "look whether the kernel was booted with nodelayacct",
           {}}));
    }
    const size_t wanted =
        std::min(context.options.keep_files, files_a_process * processes.entries.size());
    if (sampler.most_files_kept() < wanted) {
      obstacle few = descriptors_obstacle();
      few.why += " to keep " + std::to_string(wanted) + " files open";
      one.obstacles.push_back(few);
    }
  }

  void add_io() {
    const size_t known =
        count_if(processes, [](const process_entry& one) { return one.io_bytes != unknown_u64; });
    finding one{"IO of processes", known > 0,
                sampler.uses_bpf() ? "the same BPF pass" : "/proc/PID/io"};
    one.source += " (" + share_of(known, processes) + ")";
    if (known < processes.entries.size() && machine->own_machine) {
      add_io_obstacle(one);
    }
    if (!one.is_read) {
      one.source.clear();
    }
    context.findings.push_back(std::move(one));
  }

  // One that has ended since has no file any more, and needs no reason.
  size_t count_refused_io() const {
    return count_if(processes, [this](const process_entry& one) {
      std::string text;
      const std::string path = "proc/" + std::to_string(one.pid) + "/io";
      const int result = one.io_bytes == unknown_u64 ? machine->read(path.c_str(), text) : 0;
      return result == -EACCES || result == -EPERM;
    });
  }

  void add_io_obstacle(finding& one) {
    std::string text;
    const int own = machine->read("proc/self/io", text);
    if (own != 0) {
      one.obstacles.push_back(
          file_obstacle(context.kernel, "/proc/self/io", own, "CONFIG_TASK_IO_ACCOUNTING"));
      return;
    }
    const size_t refused = count_refused_io();
    if (refused == 0) {
      return;
    }
    one.obstacles.push_back(
        rights_obstacle("IO of other users' processes", {CAP_SYS_PTRACE, CAP_DAC_READ_SEARCH}));
    if (samplers::sees_everybody()) {
      one.obstacles.back() = {
          "a security module keeps the IO of " + count_of(refused, "process") + " from it", {}, {}};
    }
  }

  // What other users' descriptors tell.
  void add_seen(finding& one, size_t seen) const {
    if (seen < processes.entries.size()) {
      one.obstacles.push_back(rights_obstacle("looking into other users' processes",
                                              {CAP_SYS_PTRACE, CAP_DAC_READ_SEARCH}));
    }
  }

  size_t count_seen() const {
    return count_if(processes, [](const process_entry& one) { return one.descriptors_seen; });
  }

  void add_network() {
    finding one{"network of processes", false, "not read with --sysroot", {}, true};
    if (machine->own_machine && sampler.sockets_error() != 0) {
      one = {"network of processes",
             false,
             "",
             {sockets_obstacle(context.kernel, sampler.sockets_error())}};
    } else if (machine->own_machine) {
      const size_t seen = count_seen();
      one = {"network of processes", true,
             "sock_diag(7), and owners of sockets by /proc/PID/fd (" + share_of(seen, processes) +
                 "); TCP of this network namespace"};
      add_seen(one, seen);
    }
    context.findings.push_back(std::move(one));
  }

  void add_accelerators() {
    finding one{"BPU of processes", sampler.has_accelerator(),
                "none here: nothing in /dev/dri and /dev/accel"};
    if (one.is_read) {
      const size_t seen = count_seen();
      one.source = "/proc/PID/fdinfo, drm-engine-* (" + share_of(seen, processes) + ")";
      add_seen(one, seen);
    }
    context.findings.push_back(std::move(one));
  }

  // Each may hang: by the threads that the server has for them, until they have told enough.
  void add_command_lines() {
    line_reader reader(
        [root = machine](int32_t pid) { return samplers::read_command_line(*root, pid); });
    for (const process_entry& process : processes.entries) {
      reader.ask({process.pid, process.start_ticks});
    }
    size_t known = 0;
    size_t answered = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (answered < processes.entries.size() && std::chrono::steady_clock::now() < end) {
      for (const line_reader::result& one : reader.take()) {
        ++answered;
        known += one.line.empty() ? 0 : 1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    finding one{"command lines", known > 0,
                "/proc/PID/cmdline (" + share_of(known, processes) + "; kernel threads have none)"};
    if (known == 0) {
      one.source = machine->own_machine ? "" : "none here";
    }
    if (hidden) {
      one.obstacles.push_back(hiding_obstacle(*machine));
    } else if (known == 0 && machine->own_machine) {
      one.obstacles.push_back(
          {"none could be read within a second", "look for processes that hang (state D)", {}});
    }
    context.findings.push_back(std::move(one));
  }

  check_context& context;
  const std::shared_ptr<const samplers::file_reader> machine;
  samplers::process_sampler sampler;
  process_sample processes;
  size_t thread_count = 0;
  int error = 0;
  bool hidden = false;
};

}  // namespace

void check_processes(check_context& context) {
  process_check(context).run();
}
