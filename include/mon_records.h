// SPDX-License-Identifier: Apache-2.0
// The records that the monitor server sends and the client library formats as text.
//
// Each is laid out the same on every target: fixed-width fields, natural alignment, padding spelled
// out, little-endian. They travel as they lie in memory. Behind each record is its description:
// what every field means, in which unit.
//
// Unknown values: NaN in a float or double, `unknown_u64` (all ones) in an unsigned field,
// `unknown_i64` in a signed one. An unknown value is shown as "-" and never as 0.
//
// Names are NUL-padded; one that fills its array has no NUL. They come from the machine as they are
// (a process may put escape sequences into its name) and are cleaned where they are formatted.
#ifndef MON_RECORDS_H
#define MON_RECORDS_H

#include <cstddef>
#include <cstdint>
#include <tuple>
#include <type_traits>

#include "mon_fields.h"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "messages hold these records as they lie in memory, which must be little-endian");

constexpr uint64_t unknown_u64 = UINT64_MAX;
constexpr int64_t unknown_i64 = -1;
constexpr uint32_t unknown_u32 = UINT32_MAX;

// CPUs that a machine may have.
constexpr size_t max_cpus = 1024;

// One CPU's time over the answered interval. The first record of an answer is the total over all
// CPUs. user does not hold nice; guest time is part of user.
struct cpu_usage {
  int32_t cpu;
  uint32_t freq_khz;
  float user;
  float nice;
  float system;
  float idle;
  float iowait;
  float irq;
  float softirq;
  float steal;
};
static_assert(sizeof(cpu_usage) == 40);
template <>
struct mon_fields::description<cpu_usage> {
  using record = cpu_usage;
  static constexpr const char* name = "cpu_usage";
  static constexpr size_t most = max_cpus + 1;
  static constexpr const char* source = "/proc/stat";
  static constexpr field fields[] = {
      MON_FIELD(cpu, none, key, "CPU number, -1 in the total"),
      MON_FIELD(freq_khz, khz, gauge, "cpufreq's current frequency; unknown in the total"),
      MON_FIELD(user, percent, share, "user code, guests included"),
      MON_FIELD(nice, percent, share, "user code of a lowered priority"),
      MON_FIELD(system, percent, share, "the kernel"),
      MON_FIELD(idle, percent, share, "nothing"),
      MON_FIELD(iowait, percent, share, "nothing, while a task waited for I/O"),
      MON_FIELD(irq, percent, share, "interrupts"),
      MON_FIELD(softirq, percent, share, "deferred work of interrupts"),
      MON_FIELD(steal, percent, share, "other guests of the host had the CPU"),
  };
};
static_assert(mon_fields::cover(mon_fields::description<cpu_usage>::fields, sizeof(cpu_usage)));

// Memory.
struct meminfo {
  uint64_t memTotal;
  uint64_t memfree;
  uint64_t memAvailable;
  uint64_t buffer;
  uint64_t cached;
  uint64_t slab;
  uint64_t file;
  uint64_t anon;
};
static_assert(sizeof(meminfo) == 64);
template <>
struct mon_fields::description<meminfo> {
  using record = meminfo;
  static constexpr const char* name = "meminfo";
  static constexpr size_t most = 1;
  static constexpr const char* source = "/proc/meminfo";
  static constexpr field fields[] = {
      MON_FIELD(memTotal, kib, gauge, ""),
      MON_FIELD(memfree, kib, gauge, ""),
      MON_FIELD(memAvailable, kib, gauge, "what programs could still have"),
      MON_FIELD(buffer, kib, gauge, "raw blocks of devices"),
      MON_FIELD(cached, kib, gauge, "the page cache"),
      MON_FIELD(slab, kib, gauge, "the kernel's own objects"),
      MON_FIELD(file, kib, gauge,
                "Active(file) + Inactive(file), the page cache on the kernel's lists"),
      MON_FIELD(anon, kib, gauge, "AnonPages, anonymous memory mapped into processes"),
  };
};
static_assert(mon_fields::cover(mon_fields::description<meminfo>::fields, sizeof(meminfo)));

// One ION heap, or what stands for it (the CMA area, all dma-bufs).
struct ion_info {
  char ion_name[16];
  uint64_t used;
};
static_assert(sizeof(ion_info) == 24);
template <>
struct mon_fields::description<ion_info> {
  using record = ion_info;
  static constexpr const char* name = "ion_info";
  static constexpr size_t most = 64;
  static constexpr const char* source = "the board, debugfs, /proc/meminfo";
  static constexpr field fields[] = {
      MON_FIELD(ion_name, none, key, ""),
      MON_FIELD(used, bytes, gauge, ""),
  };
};
static_assert(mon_fields::cover(mon_fields::description<ion_info>::fields, sizeof(ion_info)));

// One file system, as statvfs(3) describes it; the four figures are unknown together.
struct part_info {
  char part_name[32];
  uint64_t f_bavail;
  uint64_t f_blocks;
  uint64_t f_frsize;
  uint64_t blocks_used;
};
static_assert(sizeof(part_info) == 64);
template <>
struct mon_fields::description<part_info> {
  using record = part_info;
  static constexpr const char* name = "part_info";
  static constexpr size_t most = 16;
  static constexpr const char* source = "statvfs(3)";
  static constexpr field fields[] = {
      MON_FIELD(part_name, none, key, "the path that was asked for"),
      MON_FIELD(f_bavail, blocks, gauge, "free to users without privileges"),
      MON_FIELD(f_blocks, blocks, gauge, "its size"),
      MON_FIELD(f_frsize, bytes, gauge, "a block"),
      MON_FIELD(blocks_used, blocks, gauge, "f_blocks - f_bfree"),
  };
};
static_assert(mon_fields::cover(mon_fields::description<part_info>::fields, sizeof(part_info)));

// One block device's traffic over the answered interval.
struct block_stat {
  char name[32];
  uint64_t rd_kb;
  uint64_t wr_kb;
  uint64_t interval_ms;
};
static_assert(sizeof(block_stat) == 56);
template <>
struct mon_fields::description<block_stat> {
  using record = block_stat;
  static constexpr const char* name = "block_stat";
  static constexpr size_t most = 256;
  static constexpr const char* source = "/proc/diskstats";
  static constexpr field fields[] = {
      MON_FIELD(name, none, key, ""),
      MON_FIELD(rd_kb, kib, amount, "read"),
      MON_FIELD(wr_kb, kib, amount, "written"),
      MON_FIELD(interval_ms, milliseconds, interval, "0 when there is none yet"),
  };
};
static_assert(mon_fields::cover(mon_fields::description<block_stat>::fields, sizeof(block_stat)));

// Hardware and software counters over the answered interval, summed over all CPUs and scaled for
// the time that each was really counting; see perf_event_open(2).
struct perf_counters {
  uint64_t cycles;
  uint64_t cs;
  uint64_t instructions;
  uint64_t migrations;
  uint64_t page_faults;
  uint64_t stall_frontend;
  uint64_t stall_backend;
  uint64_t l1d_misses;
  uint64_t l1d_load;
  uint64_t l1i_misses;
  uint64_t l1i_load;
  uint64_t l2d_cache;
  uint64_t l2d_cache_refill;
  uint64_t l3d_cache;
  uint64_t l3d_cache_refill;
  uint64_t llc_misses;
  uint64_t llc_load;
  uint64_t itlb_misses;
  uint64_t itlb_load;
  uint64_t dtlb_misses;
  uint64_t dtlb_load;
  uint64_t branch_misses;
  uint64_t branches;
};
static_assert(sizeof(perf_counters) == 184);

// What a counter's text needs beside its field.
struct counter_description {
  mon_fields::field field;
  const char* short_name;          // 8 columns at most
  uint64_t perf_counters::*count;  // the field
  uint64_t perf_counters::*whole;  // that it is a share of; null for none
  const char* of_whole;            // what that share is called
};
struct counter_fields {
  using record = perf_counters;
#define MON_COUNTER(member, short_name, whole, of_whole, meaning)                          \
  counter_description {                                                                    \
    MON_FIELD(member, none, amount, meaning), short_name, &record::member, whole, of_whole \
  }
  static constexpr uint64_t perf_counters::*none = nullptr;
  static constexpr const char* a_cycle = "a cycle";  // a ratio; the others are shares

  // In the order in which they are shown.
  static constexpr counter_description all[] = {
      MON_COUNTER(cycles, "cycles", none, "", "CPU cycles"),
      MON_COUNTER(instructions, "instr", &record::cycles, a_cycle,
                  "instructions that were completed"),
      MON_COUNTER(stall_frontend, "stall fe", &record::cycles, "of cycles",
                  "cycles without instructions to begin"),
      MON_COUNTER(stall_backend, "stall be", &record::cycles, "of cycles",
                  "cycles without room to begin instructions"),
      MON_COUNTER(branches, "branches", none, "", "branches that were predicted"),
      MON_COUNTER(branch_misses, "br miss", &record::branches, "missed", "wrong predictions"),
      MON_COUNTER(l1d_load, "l1d load", none, "", "reads of the first data cache"),
      MON_COUNTER(l1d_misses, "l1d miss", &record::l1d_load, "missed",
                  "those that it did not have"),
      MON_COUNTER(l1i_load, "l1i load", none, "", "reads of the first instruction cache"),
      MON_COUNTER(l1i_misses, "l1i miss", &record::l1i_load, "missed",
                  "those that it did not have"),
      MON_COUNTER(l2d_cache, "l2d load", none, "", "accesses to the second cache"),
      MON_COUNTER(l2d_cache_refill, "l2d miss", &record::l2d_cache, "missed",
                  "those that it did not have"),
      MON_COUNTER(l3d_cache, "l3d load", none, "", "accesses to the third cache"),
      MON_COUNTER(l3d_cache_refill, "l3d miss", &record::l3d_cache, "missed",
                  "those that it did not have"),
      MON_COUNTER(llc_load, "llc load", none, "", "reads of the last cache before memory"),
      MON_COUNTER(llc_misses, "llc miss", &record::llc_load, "missed",
                  "those that it did not have"),
      MON_COUNTER(dtlb_load, "dtlb ld", none, "", "address translations of data"),
      MON_COUNTER(dtlb_misses, "dtlb mis", &record::dtlb_load, "missed",
                  "those that the first TLB did not have"),
      MON_COUNTER(itlb_load, "itlb ld", none, "", "address translations of instructions"),
      MON_COUNTER(itlb_misses, "itlb mis", &record::itlb_load, "missed",
                  "those that the first TLB did not have"),
      MON_COUNTER(cs, "cs", none, "", "context switches"),
      MON_COUNTER(migrations, "migrat.", none, "", "tasks that moved to another CPU"),
      MON_COUNTER(page_faults, "faults", none, "", ""),
  };
};
static_assert(mon_fields::cover(counter_fields::all, sizeof(perf_counters)));

// One answer to a counter query.
struct perf_sample {
  uint64_t interval_us;
  perf_counters counters;
};
static_assert(sizeof(perf_sample) == 192);
template <>
struct mon_fields::description<perf_sample> {
  using record = perf_sample;
  static constexpr const char* name = "perf_sample";
  static constexpr size_t most = 1;
  static constexpr const char* source = "perf_event_open(2)";
  static constexpr field fields[] = {
      MON_FIELD(interval_us, microseconds, interval, "over which `counters` counted"),
  };
};
static_assert(mon_fields::cover(mon_fields::description<perf_sample>::fields,
                                offsetof(perf_sample, counters)));

// Sort keys of the process list.
enum process_sort_key {
  sort_by_cpu = 1,
  sort_by_bpu = 2,
  sort_by_io = 3,
  sort_by_net = 4,
  sort_by_ram = 5,
};

// The mode word that asks for a process list: a sort key in its lowest byte, any other than those
// above as sort_by_cpu; all bits of `thread_view` for threads in place of processes.
constexpr int32_t thread_view = 0xff00;
constexpr int sort_key_of(int32_t mode) {
  const int key = mode & 0xff;
  return key >= sort_by_cpu && key <= sort_by_ram ? key : sort_by_cpu;
}
constexpr bool asks_for_threads(int32_t mode) {
  return (mode & thread_view) == thread_view;
}

// The most processes or threads that one answer lists.
constexpr int max_pid_msgs = 146;

// One process or thread of the process list.
struct pid_msg {
  int32_t pid;
  int32_t ppid;
  char comm[16];
  char state;
  char reserved0;
  int16_t priority;
  int16_t processor;
  int16_t reserved1;
  float io_per_second;
  float process_usage;
  float net_band;
  float bpu_usage;
  int64_t rss;
};
static_assert(sizeof(pid_msg) == 56);
template <>
struct mon_fields::description<pid_msg> {
  using record = pid_msg;
  static constexpr const char* name = "pid_msg";
  static constexpr size_t most = max_pid_msgs;
  static constexpr const char* source =
      "a BPF program or /proc/PID; sock_diag(7), DRM usage statistics";
  static constexpr field fields[] = {
      MON_FIELD(pid, none, key, "process id, in thread view the thread id"),
      MON_FIELD(ppid, none, gauge,
                "parent's process id, in thread view the process that the thread belongs to"),
      MON_FIELD(comm, none, gauge, "its name"),
      MON_FIELD(state, none, gauge, "as in proc_pid_stat(5): R, S, D, Z, ..."),
      MON_FIELD(reserved0, none, reserved, ""),
      MON_FIELD(priority, none, gauge, "as in proc_pid_stat(5): 0 to 39, real-time below 0"),
      MON_FIELD(processor, none, gauge, "CPU that it last ran on"),
      MON_FIELD(reserved1, none, reserved, ""),
      MON_FIELD(io_per_second, kib_per_second, rate, "read from and written to storage"),
      MON_FIELD(process_usage, percent, share, "of one CPU"),
      MON_FIELD(net_band, kib_per_second, rate, "received and sent over TCP"),
      MON_FIELD(bpu_usage, percent, share, "of one BPU core"),
      MON_FIELD(rss, kib, gauge, "resident memory; in thread view the whole process's"),
  };
};
static_assert(mon_fields::cover(mon_fields::description<pid_msg>::fields, sizeof(pid_msg)));

// One answer of the process list: this head, then `pid_num` records of pid_msg.
struct top_pid_info {
  int32_t pid_num;    // records that follow, 0 to max_pid_msgs
  int32_t pid_total;  // processes or threads that exist, listed or not
  pid_msg send_pid_info[max_pid_msgs];
};
static_assert(offsetof(top_pid_info, send_pid_info) == 8);
static_assert(std::is_trivially_copyable_v<top_pid_info>);

// One network device, both directions together.
struct net_stat {
  char dev_name[16];
  uint64_t total;
  double rate;
};
static_assert(sizeof(net_stat) == 32);
template <>
struct mon_fields::description<net_stat> {
  using record = net_stat;
  static constexpr const char* name = "net_stat";
  static constexpr size_t most = 512;
  static constexpr const char* source = "/proc/net/dev";
  static constexpr field fields[] = {
      MON_FIELD(dev_name, none, key, "interface name"),
      MON_FIELD(total, bytes, total, "received and sent"),
      MON_FIELD(rate, kib_per_second, rate, "received and sent"),
  };
};
static_assert(mon_fields::cover(mon_fields::description<net_stat>::fields, sizeof(net_stat)));

// One network device's traffic, each direction by itself.
struct net_traffic {
  char dev_name[16];
  uint64_t total;
  double rx_rate;
  double tx_rate;
  uint64_t errors;
  uint64_t drops;
};
static_assert(sizeof(net_traffic) == 56);
template <>
struct mon_fields::description<net_traffic> {
  using record = net_traffic;
  static constexpr const char* name = "net_traffic";
  static constexpr size_t most = 512;
  static constexpr const char* source = "/proc/net/dev";
  static constexpr field fields[] = {
      MON_FIELD(dev_name, none, key, "interface name"),
      MON_FIELD(total, bytes, total, "received and sent"),
      MON_FIELD(rx_rate, kib_per_second, rate, "received"),
      MON_FIELD(tx_rate, kib_per_second, rate, "sent"),
      MON_FIELD(errors, packets, total, "lost to errors, both directions"),
      MON_FIELD(drops, packets, total, "dropped, both directions"),
  };
};
static_assert(mon_fields::cover(mon_fields::description<net_traffic>::fields, sizeof(net_traffic)));

// The machine as a whole. Pressure (PSI) is the time in which some task, or every task that had
// work, waited for the resource.
struct system_stat {
  float load_1;
  float load_5;
  float load_15;
  uint32_t tasks;
  uint32_t tasks_running;
  uint32_t tasks_blocked;
  uint64_t uptime_s;
  float cpu_some;
  float io_some;
  float io_full;
  float memory_some;
  float memory_full;
  uint32_t reserved;
  uint64_t swap_total;
  uint64_t swap_free;
  uint64_t zram_data;
  uint64_t zram_used;
};
static_assert(sizeof(system_stat) == 88);
template <>
struct mon_fields::description<system_stat> {
  using record = system_stat;
  static constexpr const char* name = "system_stat";
  static constexpr size_t most = 1;
  static constexpr const char* source =
      "/proc/loadavg, /proc/stat, /proc/pressure, /proc/meminfo, zram";
  static constexpr field fields[] = {
      MON_FIELD(load_1, none, gauge, "load average over a minute, as in proc_loadavg(5)"),
      MON_FIELD(load_5, none, gauge, "over 5 minutes"),
      MON_FIELD(load_15, none, gauge, "over 15 minutes"),
      MON_FIELD(tasks, none, gauge, "threads that exist"),
      MON_FIELD(tasks_running, none, gauge, "threads that run or are ready to"),
      MON_FIELD(tasks_blocked, none, gauge, "threads that wait for I/O"),
      MON_FIELD(uptime_s, seconds, total, "time since boot, asleep or not"),
      MON_FIELD(cpu_some, percent, share, "some task waited for a CPU"),
      MON_FIELD(io_some, percent, share, "some task waited for I/O"),
      MON_FIELD(io_full, percent, share, "every task that had work did"),
      MON_FIELD(memory_some, percent, share, "some task waited for memory"),
      MON_FIELD(memory_full, percent, share, "every task that had work did"),
      MON_FIELD(reserved, none, reserved, ""),
      MON_FIELD(swap_total, kib, gauge, ""),
      MON_FIELD(swap_free, kib, gauge, ""),
      MON_FIELD(zram_data, kib, gauge,
                "what zram devices hold, before compression; unknown without any"),
      MON_FIELD(zram_used, kib, gauge, "memory that they take for it"),
  };
};
static_assert(mon_fields::cover(mon_fields::description<system_stat>::fields, sizeof(system_stat)));

// The command line of a listed process; arguments are separated by blanks.
struct process_command {
  int32_t pid;
  char text[124];
};
static_assert(sizeof(process_command) == 128);
template <>
struct mon_fields::description<process_command> {
  using record = process_command;
  static constexpr const char* name = "process_command";
  static constexpr size_t most = max_pid_msgs;
  static constexpr const char* source = "/proc/PID/cmdline";
  static constexpr field fields[] = {
      MON_FIELD(pid, none, key, "process id, in thread view that of the thread's process"),
      MON_FIELD(text, none, gauge,
                "its beginning; empty for a kernel thread, and where it cannot be read"),
  };
};
static_assert(mon_fields::cover(mon_fields::description<process_command>::fields,
                                sizeof(process_command)));

constexpr uint64_t thermal_zone = 0;
constexpr uint64_t thermal_cooling = 1;

// Of each kind; a board has some ten, a large machine one cooling device a CPU.
constexpr size_t max_thermal_devices = 256;

// One thermal zone or cooling device; the other one's value is unknown.
struct thermal_stat {
  char name[24];
  uint64_t temp;
  uint64_t stat;
  uint64_t kind;
};
static_assert(sizeof(thermal_stat) == 48);
template <>
struct mon_fields::description<thermal_stat> {
  using record = thermal_stat;
  static constexpr const char* name = "thermal_stat";
  static constexpr size_t most = 2 * max_thermal_devices;
  static constexpr const char* source = "/sys/class/thermal";
  static constexpr field fields[] = {
      MON_FIELD(name, none, key, ""),
      MON_FIELD(temp, millidegrees, gauge, "a negative reading as its two's complement"),
      MON_FIELD(stat, none, gauge, "cooling state, 0 is off"),
      MON_FIELD(kind, none, key, "0 a thermal zone, 1 a cooling device"),
  };
};
static_assert(mon_fields::cover(mon_fields::description<thermal_stat>::fields,
                                sizeof(thermal_stat)));

// One BPU core.
struct bpu_stat {
  char name[16];
  float bpu_rat;
};
static_assert(sizeof(bpu_stat) == 20);
template <>
struct mon_fields::description<bpu_stat> {
  using record = bpu_stat;
  static constexpr const char* name = "bpu_stat";
  static constexpr size_t most = 64;
  static constexpr const char* source = "the board, devfreq";
  static constexpr field fields[] = {
      MON_FIELD(name, none, key, ""),
      MON_FIELD(bpu_rat, percent, gauge, "busy"),
  };
};
static_assert(mon_fields::cover(mon_fields::description<bpu_stat>::fields, sizeof(bpu_stat)));

// One VIO pipeline.
struct vio_stat {
  char name[32];
  float fps;
};
static_assert(sizeof(vio_stat) == 36);
template <>
struct mon_fields::description<vio_stat> {
  using record = vio_stat;
  static constexpr const char* name = "vio_stat";
  static constexpr size_t most = 64;
  static constexpr const char* source = "the board";
  static constexpr field fields[] = {
      MON_FIELD(name, none, key, ""),
      MON_FIELD(fps, per_second, gauge, "frames"),
  };
};
static_assert(mon_fields::cover(mon_fields::description<vio_stat>::fields, sizeof(vio_stat)));

// Every record that travels in answers.
using all_records =
    std::tuple<cpu_usage, meminfo, ion_info, part_info, block_stat, perf_sample, pid_msg, net_stat,
               net_traffic, system_stat, process_command, thermal_stat, bpu_stat, vio_stat>;

#endif
