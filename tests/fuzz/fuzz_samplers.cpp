// SPDX-License-Identifier: Apache-2.0
// What the kernel and a board's drivers may write: the first byte chooses a parser, or the file
// that the rest is written into before its sampler reads a tree of it.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_tools.h"
#include "samplers/blocks.h"
#include "samplers/board.h"
#include "samplers/counter_events.h"
#include "samplers/cpu.h"
#include "samplers/ion.h"
#include "samplers/memory.h"
#include "samplers/net_devices.h"
#include "samplers/process_bpu.h"
#include "samplers/process_sampler.h"
#include "samplers/process_stat.h"
#include "samplers/socket_dump.h"
#include "samplers/system.h"
#include "samplers/task_iterator.h"
#include "samplers/text.h"
#include "samplers/thermal.h"

namespace {

namespace fs = std::filesystem;
using namespace samplers;

// A folder that stands for the machine's root and for a board folder, in memory where there is
// such a place. Removed at exit.
struct tree {
  tree() {
    std::error_code error;
    const fs::path memory = "/dev/shm";
    std::string name =
        ((fs::is_directory(memory, error) ? memory : fs::temp_directory_path()) / "fuzz-XXXXXX")
            .string();
    expect(mkdtemp(name.data()) != nullptr, "a temporary folder");
    root = name;
    machine = std::make_shared<const file_reader>(name);
  }
  ~tree() {
    std::error_code error;
    fs::remove_all(root, error);
  }

  fs::path root;
  std::shared_ptr<const file_reader> machine;
};

// Samples of the same kind as the server answers them; the client takes no more than `most`.
template <class sample, class reader, class rates>
void sample_twice(const tree& tree, size_t most, reader read, rates rates_of) {
  static sample before;  // of an earlier input
  sample now;
  if (read(*tree.machine, now) == 0) {
    expect(rates_of(nullptr, now).size() <= most, "no record too many");
    rates_of(&before, now);
    before = now;
  }
}

void rank(const process_sample& before, const process_sample& now) {
  process_ranking ranking;
  top_pid_info list{};
  for (int sort_key = 1; sort_key <= 5; ++sort_key) {
    for (const process_sample* start : {static_cast<const process_sample*>(nullptr), &before}) {
      ranking.top(start, now, sort_key, list);
      expect(list.pid_num >= 0 && list.pid_num <= max_pid_msgs, "no process too many");
    }
  }
}

void read_processes(const tree& tree) {
  process_sampler sampler(tree.machine, {16, false});
  process_sample before;
  process_sample now;
  for (const bool threads : {false, true}) {
    sampler.read(threads, 0, before);
    sampler.read(threads, 0, now);
    rank(before, now);
  }
}

// What is read from sysfs, debugfs and the board folder, and memory.
void read_gauges(const tree& tree) {
  const file_reader& machine = *tree.machine;
  std::vector<ion_info> heaps;
  std::vector<bpu_stat> cores;
  std::vector<vio_stat> pipelines;
  std::vector<thermal_stat> zones;
  memory_sample memory;
  read_ion(machine, &machine, heaps);
  read_bpu(machine, &machine, cores);
  read_vio(&machine, pipelines);
  read_thermal(machine, zones);
  read_memory_sample(machine, memory);
}

void read_events(const tree& tree) {
  plan_events(read_pmus(*tree.machine), 0);
}

void read_cpus(const tree& tree) {
  sample_twice<cpu_sample>(tree, max_cpus + 1, read_cpu_sample, cpu_rates);
}

void read_blocks(const tree& tree) {
  sample_twice<block_sample>(tree, 256, read_block_sample, block_rates);
}

void read_net(const tree& tree) {
  sample_twice<net_sample>(tree, 512, read_net_sample, net_rates);
}

void read_system(const tree& tree) {
  const auto read = [](const file_reader& machine, system_sample& sample) {
    system_sampler sampler;
    sampler.read(machine, nullptr, nullptr, sample);
    read_zram(machine, sampler.zram_devices());
    return 0;
  };
  const auto figures = [](const system_sample* before, const system_sample& now) {
    const system_stat stat = system_figures(before, now);
    for (const float share : {stat.cpu_some, stat.io_some, stat.memory_some, stat.memory_full}) {
      expect(!(share < 0 || share > 100), "a share of the interval");
    }
    return std::vector<system_stat>{stat};
  };
  sample_twice<system_sample>(tree, 1, read, figures);
}

constexpr struct {
  const char* path;
  void (*read)(const tree&);
} files[] = {
    {"proc/stat", read_cpus},
    {"proc/meminfo", read_gauges},
    {"proc/diskstats", read_blocks},
    {"proc/net/dev", read_net},
    {"sys/class/thermal/thermal_zone0/temp", read_gauges},
    {"sys/class/thermal/cooling_device0/type", read_gauges},
    {"sys/kernel/debug/ion/heaps/system", read_gauges},
    {"sys/kernel/debug/dma_buf/bufinfo", read_gauges},
    {"ion/cma", read_gauges},
    {"bpu/bpu0", read_gauges},
    {"vio/isp0", read_gauges},
    {"sys/bus/event_source/devices/core/cpus", read_events},
    {"sys/bus/event_source/devices/core/events/l2d_cache", read_events},
    {"proc/7/stat", read_processes},
    {"proc/pressure/memory", read_system},
    {"proc/loadavg", read_system},
    {"sys/block/zram0/mm_stat", read_system},
};

void read_file(size_t index, std::string_view text) {
  static const tree tree;
  const fs::path path = tree.root / files[index].path;
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
  files[index].read(tree);
  fs::remove(path);  // one file alone: samplers take the first source that there is
}

void parse_tasks(std::string_view bytes) {
  std::vector<task_record> tasks(bytes.size() / sizeof(task_record));
  if (!tasks.empty()) {
    std::memcpy(tasks.data(), bytes.data(), tasks.size() * sizeof(task_record));
  }
  // The kernel's order.
  std::sort(tasks.begin(), tasks.end(),
            [](const task_record& a, const task_record& b) { return a.pid < b.pid; });
  task_entries maker;
  process_sample threads;
  threads.threads = true;
  maker.make_threads(tasks, threads.entries);
  process_sample processes;
  std::vector<int32_t> torn;
  maker.make_processes(tasks, processes.entries, torn);
  expect(processes.entries.size() + torn.size() <= tasks.size(), "no process twice");
  threads.time_us = processes.time_us = 1000000;
  rank(threads, threads);
  rank(processes, processes);
}

void parse_process(std::string_view text) {
  process_entry entry;
  parse_process_stat(text, stat_units(), entry);
  expect(entry.comm[sizeof entry.comm - 1] == '\0', "a name of at most 15 bytes");
}

void parse_figures(std::string_view text) {
  uint64_t run_ns = 0;
  uint64_t times_run = 0;
  drm_usage usage;
  parse_io(text);
  parse_schedstat(text, run_ns, times_run);
  parse_uptime(text, 100);
  parse_drm_usage(text, usage);
  leading_number(text);
}

void parse_cpus(std::string_view text) {
  const std::vector<int32_t> cpus = parse_cpu_list(text);
  expect(std::is_sorted(cpus.begin(), cpus.end()), "CPUs ascend");
  expect(cpus.size() <= max_cpus, "no CPU too many");
}

void parse_sockets(std::string_view bytes) {
  std::vector<tcp_socket> sockets;
  parse_socket_dump(bytes.data(), bytes.size(), sockets);
  for (const tcp_socket& socket : sockets) {
    expect(socket.inode != 0, "only sockets that are open");
  }
}

constexpr void (*parsers[])(std::string_view) = {parse_tasks, parse_process, parse_figures,
                                                 parse_cpus, parse_sockets};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const size_t choice = take_byte(data, size) % (std::size(parsers) + std::size(files));
  // A copy that ends with the input, so that reading past it is found.
  const std::vector<char> copy(data, data + size);
  const std::string_view text(copy.data(), copy.size());
  if (choice < std::size(parsers)) {
    parsers[choice](text);
  } else {
    read_file(choice - std::size(parsers), text);
  }
  return 0;
}
