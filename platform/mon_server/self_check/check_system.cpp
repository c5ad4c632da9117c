// SPDX-License-Identifier: Apache-2.0
// CPUs, the machine as a whole, memory, block and network devices: files that answer at once.
#include <algorithm>
#include <cerrno>

#include "mon_records.h"
#include "samplers/blocks.h"
#include "samplers/cpu.h"
#include "samplers/memory.h"
#include "samplers/net_devices.h"
#include "samplers/system.h"
#include "self_check/families.h"

namespace {

using samplers::file_reader;
using samplers::read_note;

// Why not all CPUs have a frequency.
obstacle frequency_obstacle(check_context& context, const std::vector<read_note>& notes,
                            bool none_known) {
  const std::string folder = "sys/devices/system/cpu/cpufreq";
  std::vector<std::string> policies;
  const int listing = context.machine.list(folder.c_str(), policies);
  if (none_known && listing != 0) {
    return file_obstacle(context.kernel, '/' + folder, listing, "CONFIG_CPU_FREQ");
  }
  if (none_known && policies.empty()) {
    return {
        "no driver sets frequencies (on a board: is it built in, and are the operating points "
        "in the device tree?)",
        {},
        {}};
  }
  const read_note* failed = find_note(notes, "scaling_cur_freq");
  return failed->error != 0
             ? file_obstacle(context.kernel, '/' + failed->path, failed->error, nullptr)
             : obstacle{"some hold no number", "look at the cpufreq driver (dmesg)", {}};
}

void check_cpus(check_context& context) {
  std::vector<read_note> notes;
  samplers::cpu_sample sample;
  const int error = samplers::read_cpu_sample(file_reader(context.options.sysroot, &notes), sample);
  const size_t all = sample.cpus.empty() ? 0 : sample.cpus.size() - 1;  // without the total
  context.add_file("CPU", "/proc/stat", error, " (" + count_of(all, "CPU") + ")");
  if (all == 0) {
    return context.add_with("CPU frequency", "CPU");
  }
  const auto known = static_cast<size_t>(
      std::count_if(sample.cpus.begin(), sample.cpus.end(),
                    [](const samplers::cpu_times& one) { return one.freq_khz != unknown_u32; }));
  finding one{"CPU frequency", known > 0, ""};
  if (one.is_read) {
    one.source = "/sys/devices/system/cpu/cpu*/cpufreq/scaling_cur_freq (" + std::to_string(known) +
                 " of " + count_of(all, "CPU") + ")";
  }
  if (known < all) {
    one.obstacles.push_back(frequency_obstacle(context, notes, known == 0));
  }
  context.findings.push_back(std::move(one));
}

void check_pressure(check_context& context, const samplers::system_sample& sample,
                    const std::vector<read_note>& notes) {
  const bool some_known = sample.memory.some != unknown_u64;
  const bool known = some_known && sample.cpu.some != unknown_u64 && sample.io.some != unknown_u64;
  finding one{"pressure", some_known, "/proc/pressure/cpu, io, memory"};
  if (!known) {
    const read_note* failed = find_note(notes, "proc/pressure");
    const int error = failed->error == 0 ? -EBADMSG : failed->error;
    one.source = some_known ? one.source + ", in part" : "";
    const std::string path = '/' + failed->path;
    one.obstacles.push_back(some_known ? file_obstacle(context.kernel, path, error, nullptr)
                                       : pressure_obstacle(context.kernel, path, error));
  }
  context.findings.push_back(std::move(one));
}

void check_load(check_context& context) {
  std::vector<read_note> notes;
  samplers::system_sample sample;
  samplers::system_sampler().read(file_reader(context.options.sysroot, &notes), nullptr, nullptr,
                                  sample);
  const std::string uptime = context.machine.own_machine ? "CLOCK_BOOTTIME" : "/proc/uptime";
  context.add_file("load, tasks, uptime", "/proc/loadavg", error_of(notes, "proc/loadavg"),
                   ", /proc/stat, " + uptime);
  check_pressure(context, sample, notes);
}

void check_memory(check_context& context) {
  samplers::memory_sample sample;
  const int error = samplers::read_memory_sample(context.machine, sample);
  context.add_file("memory", "/proc/meminfo", error, "");
  if (error != 0) {
    return context.add_with("swap", "memory");
  }
  const bool has_swap = sample.swap_total != unknown_u64 && sample.swap_total > 0;
  context.findings.push_back({"swap", has_swap, has_swap ? "/proc/meminfo" : "none here"});
}

void check_devices(check_context& context) {
  samplers::block_sample blocks;
  int error = samplers::read_block_sample(context.machine, blocks);
  if (error == 0 && blocks.entries.empty()) {
    context.findings.push_back({"block devices", false, "none here"});
  } else {
    context.add_file("block devices", "/proc/diskstats", error,
                     " (" + count_of(blocks.entries.size(), "device") + ")", "CONFIG_BLOCK");
  }
  samplers::net_sample devices;
  error = samplers::read_net_sample(context.machine, devices);
  context.add_file("network devices", "/proc/net/dev", error,
                   " (" + count_of(devices.entries.size(), "device") + " of this namespace)",
                   "CONFIG_NET");
}

}  // namespace

void check_system(check_context& context) {
  check_cpus(context);
  check_load(context);
  check_memory(context);
  check_devices(context);
}
