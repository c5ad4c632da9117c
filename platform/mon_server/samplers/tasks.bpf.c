// SPDX-License-Identifier: MIT OR GPL-2.0-only
// Called by the kernel for each task (thread), and once with none at the end: writes a record of
// it.
//
// The members below are looked up by their names in the kernel that runs it (BTF, "CO-RE"), so they
// need neither the kernel's order nor all of its members. Members that other kernels name or place
// differently stand side by side. What decides which of them is there is a constant once the
// program is loaded, and the branch that is not taken is not checked.
//
// Searching the kernel's types for a structure takes a millisecond at start: each of those marked
// below is one search.
typedef signed int __s32;
typedef unsigned char __u8;
typedef unsigned short __u16;
typedef unsigned int __u32;
typedef signed long long __s64;
typedef unsigned long long __u64;
typedef __u16 __be16;
typedef __u32 __be32;
typedef __u32 __wsum;
typedef char bool;

typedef __s32 int32_t;
typedef __u32 uint32_t;
typedef __u64 uint64_t;

#include <bpf/bpf_helpers.h>

#include <bpf/bpf_core_read.h>

#include "samplers/task_record.h"

#define FROM_KERNEL __attribute__((preserve_access_index))

struct seq_file;

// The arguments lie where bpf_iter.h of Linux 5.8 put them; they are part of the interface.
struct bpf_iter_meta {
  struct seq_file* seq;
};
struct bpf_iter__task {
  struct bpf_iter_meta* meta;
  struct task_struct* task;
};

struct task_io_accounting {
  uint64_t read_bytes;
  uint64_t write_bytes;
} FROM_KERNEL;

struct signal_struct {
  int nr_threads;
  uint64_t sum_sched_runtime;
  struct task_io_accounting ioac;
} FROM_KERNEL;

struct percpu_counter {
  __s64 count;
} FROM_KERNEL;

// MM_FILEPAGES, MM_ANONPAGES, MM_SWAPENTS, MM_SHMEMPAGES
#define MM_COUNTERS 4

struct mm_struct {
  struct percpu_counter rss_stat[MM_COUNTERS];
} FROM_KERNEL;

// Before Linux 6.2.
struct atomic {
  __s64 counter;
} FROM_KERNEL;
struct mm_rss_stat {
  struct atomic count[MM_COUNTERS];
} FROM_KERNEL;
struct mm_struct___plain {
  struct mm_rss_stat rss_stat;
} FROM_KERNEL;

struct ns_common {
  uint32_t inum;
} FROM_KERNEL;
struct net {
  struct ns_common ns;
} FROM_KERNEL;
struct nsproxy {
  struct net* net_ns;
} FROM_KERNEL;

struct thread_info {
  uint32_t cpu;
} FROM_KERNEL;
struct sched_entity {
  uint64_t sum_exec_runtime;
} FROM_KERNEL;

struct task_struct {
  struct thread_info thread_info;  // cpu is in it, or
  uint32_t cpu;                    // beside it
  uint32_t __state;                // since Linux 5.14
  long state;                      // before
  uint32_t exit_state;
  int prio;
  int32_t pid;
  int32_t tgid;
  struct task_struct* real_parent;
  struct sched_entity se;
  struct task_io_accounting ioac;
  uint64_t start_boottime;
  char comm[16];
  struct mm_struct* mm;
  struct nsproxy* nsproxy;
  struct signal_struct* signal;
} FROM_KERNEL;

static uint64_t not_negative(__s64 count) {
  return count < 0 ? 0 : (uint64_t)count;
}

// Resident pages are those of files, anonymous ones and shared ones. The counters may read below
// zero; /proc/PID/stat takes the same figure.
static uint64_t resident_pages(struct mm_struct* mm) {
  if (bpf_core_field_exists(struct mm_struct___plain, rss_stat.count)) {
    // The verifier of Linux 6.1 does not look into this array.
    struct mm_struct___plain* plain = (void*)mm;
    __s64 counts[MM_COUNTERS] = {};
    bpf_core_read(counts, sizeof counts, &plain->rss_stat.count);
    return not_negative(counts[0]) + not_negative(counts[1]) + not_negative(counts[3]);
  }
  return not_negative(mm->rss_stat[0].count) + not_negative(mm->rss_stat[1].count) +
         not_negative(mm->rss_stat[3].count);
}

static uint32_t net_namespace(struct task_struct* task) {
  struct nsproxy* namespaces = task->nsproxy;
  if (!namespaces) {
    return 0;
  }
  struct net* net = namespaces->net_ns;
  return net ? net->ns.inum : 0;
}

SEC("iter/task")
int mon_tasks(struct bpf_iter__task* context) {
  struct task_struct* task = context->task;
  if (!task) {
    return 0;
  }
  struct task_record record;
  record.pid = task->pid;
  record.tgid = task->tgid;
  record.parent_tgid = task->real_parent->tgid;
  record.state = bpf_core_field_exists(task->__state) ? task->__state : (uint32_t)task->state;
  record.exit_state = task->exit_state;
  record.prio = task->prio;
  record.cpu = bpf_core_field_exists(task->thread_info.cpu) ? task->thread_info.cpu : task->cpu;
  bpf_core_read(record.comm, sizeof record.comm, &task->comm);
  record.start_boottime = task->start_boottime;
  record.sum_exec_runtime = task->se.sum_exec_runtime;
  record.read_bytes = task->ioac.read_bytes;
  record.write_bytes = task->ioac.write_bytes;
  struct signal_struct* signal = task->signal;
  record.nr_threads = signal->nr_threads;
  record.gone_exec_runtime = signal->sum_sched_runtime;
  record.gone_read_bytes = signal->ioac.read_bytes;
  record.gone_write_bytes = signal->ioac.write_bytes;
  struct mm_struct* mm = task->mm;
  record.rss_pages = mm ? resident_pages(mm) : 0;
  record.net_namespace = net_namespace(task);
  record.reserved = 0;
  bpf_seq_write(context->meta->seq, &record, sizeof record);
  return 0;
}

// The kernel gives bpf_seq_write() to programs under a licence that fits its own only.
char licence[] SEC("license") = "Dual MIT/GPL";
