// The records that the monitor server sends and the client library formats as text.
//
// Each is laid out the same on every target: fixed-width fields, natural alignment, padding spelled
// out, little-endian. They travel as they lie in memory.
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
#include <type_traits>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "messages hold these records as they lie in memory, which must be little-endian");

constexpr uint64_t unknown_u64 = UINT64_MAX;
constexpr int64_t unknown_i64 = -1;
constexpr uint32_t unknown_u32 = UINT32_MAX;

// One CPU's time over the answered interval, each share in percent of the interval. The first
// record of an answer is the total over all CPUs. user does not hold nice; guest time is part of
// user.
struct cpu_usage {
  int32_t cpu;        // CPU number, -1 in the total
  uint32_t freq_khz;  // cpufreq's current frequency; unknown_u32 without cpufreq and in the total
  float user;
  float nice;
  float system;
  float idle;
  float iowait;
  float irq;
  float softirq;
  float steal;
};

// /proc/meminfo, in KiB. file is Active(file) + Inactive(file), the page cache on the kernel's
// lists; anon is AnonPages, anonymous memory mapped into processes.
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

// One ION heap, or what stands for it (the CMA area, all dma-bufs).
struct ion_info {
  char ion_name[16];
  uint64_t used;  // bytes
};

// One file system, as statvfs(3) describes it; the four figures are unknown together.
struct part_info {
  char part_name[32];    // the path that was asked for
  uint64_t f_bavail;     // blocks free to users without privileges
  uint64_t f_blocks;     // size in blocks
  uint64_t f_frsize;     // bytes a block
  uint64_t blocks_used;  // f_blocks - f_bfree
};

// One block device's traffic over the answered interval.
struct block_stat {
  char name[32];
  uint64_t rd_kb;        // KiB read in the interval
  uint64_t wr_kb;        // KiB written in the interval
  uint64_t interval_ms;  // length of the interval; 0 when there is none yet
};

// Hardware and software counters over the answered interval, summed over all CPUs and scaled for
// the time that each was really counting; see perf_event_open(2).
struct perf_counters {
  uint64_t cycles;
  uint64_t cs;  // context switches
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

// One answer to a counter query.
struct perf_sample {
  uint64_t interval_us;  // time over which `counters` counted
  perf_counters counters;
};

// One process or thread of the process list.
struct pid_msg {
  int32_t pid;   // process id, in thread view the thread id
  int32_t ppid;  // parent's process id, in thread view the process that the thread belongs to
  char comm[16];
  char state;  // as in proc_pid_stat(5): R, S, D, Z, ...
  char reserved0;
  int16_t priority;   // kernel priority as in proc_pid_stat(5): 0 to 39, real-time below 0
  int16_t processor;  // CPU that it last ran on
  int16_t reserved1;
  float io_per_second;  // KiB/s read from and written to storage
  float process_usage;  // percent of one CPU
  float net_band;       // KiB/s received and sent over TCP
  float bpu_usage;      // percent of one BPU core
  int64_t rss;          // KiB resident; in thread view the whole process's
};

// The most processes or threads that one answer lists.
constexpr int max_pid_msgs = 146;

// One answer of the process list: this head, then `pid_num` records of pid_msg.
struct top_pid_info {
  int32_t pid_num;    // records that follow, 0 to max_pid_msgs
  int32_t pid_total;  // processes or threads that exist, listed or not
  pid_msg send_pid_info[max_pid_msgs];
};

// One network device; `dev_name` is its interface name.
struct net_stat {
  char dev_name[16];
  uint64_t total;  // bytes received and sent since the device came up
  double rate;     // KiB/s received and sent over the answered interval
};

// One network device's traffic, each direction by itself.
struct net_traffic {
  char dev_name[16];
  uint64_t total;   // bytes received and sent since the device came up
  double rx_rate;   // KiB/s received over the answered interval
  double tx_rate;   // KiB/s sent over the answered interval
  uint64_t errors;  // packets lost to errors since the device came up, both directions
  uint64_t drops;   // packets dropped since the device came up, both directions
};

// The machine as a whole.
struct system_stat {
  float load_1;  // load averages over 1, 5 and 15 minutes, as in proc_loadavg(5)
  float load_5;
  float load_15;
  uint32_t tasks;          // threads that exist
  uint32_t tasks_running;  // threads that run or are ready to
  uint32_t tasks_blocked;  // threads that wait for I/O
  uint64_t uptime_s;       // seconds since boot
  // Pressure stall information: percent of the answered interval in which some task, or every task
  // that had work, waited for the resource.
  float cpu_some;
  float io_some;
  float io_full;
  float memory_some;
  float memory_full;
  uint32_t reserved;
  uint64_t swap_total;  // KiB
  uint64_t swap_free;   // KiB
  uint64_t zram_data;   // KiB that zram devices hold, before compression; unknown without any
  uint64_t zram_used;   // KiB of memory that they take for it
};

// The command line of a listed process; arguments are separated by blanks.
struct process_command {
  int32_t pid;     // process id, in thread view that of the thread's process
  char text[124];  // its beginning; empty for a kernel thread, and where it cannot be read
};

// One thermal zone or cooling device; the other one's value is unknown_u64.
struct thermal_stat {
  char name[24];
  uint64_t temp;  // millidegrees Celsius, a negative reading as its two's complement
  uint64_t stat;  // cooling state, 0 is off
  uint64_t kind;  // thermal_zone or thermal_cooling
};
constexpr uint64_t thermal_zone = 0;
constexpr uint64_t thermal_cooling = 1;

struct bpu_stat {
  char name[16];
  float bpu_rat;  // percent busy
};

struct vio_stat {
  char name[32];
  float fps;
};

static_assert(sizeof(cpu_usage) == 40);
static_assert(sizeof(meminfo) == 64);
static_assert(sizeof(ion_info) == 24);
static_assert(sizeof(part_info) == 64);
static_assert(sizeof(block_stat) == 56);
static_assert(sizeof(perf_counters) == 184);
static_assert(sizeof(perf_sample) == 192);
static_assert(sizeof(pid_msg) == 56);
static_assert(offsetof(pid_msg, rss) == 48);
static_assert(offsetof(top_pid_info, send_pid_info) == 8);
static_assert(sizeof(net_stat) == 32);
static_assert(sizeof(net_traffic) == 56);
static_assert(sizeof(system_stat) == 88);
static_assert(offsetof(system_stat, swap_total) == 56);
static_assert(sizeof(process_command) == 128);
static_assert(sizeof(thermal_stat) == 48);
static_assert(sizeof(bpu_stat) == 20);
static_assert(sizeof(vio_stat) == 36);
static_assert(std::is_trivially_copyable_v<top_pid_info>);

#endif
