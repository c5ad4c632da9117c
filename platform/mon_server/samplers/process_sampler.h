// SPDX-License-Identifier: Apache-2.0
// Samples of all processes or all threads, taken in the cheapest way that this machine allows.
#ifndef SAMPLERS_PROCESS_SAMPLER_H
#define SAMPLERS_PROCESS_SAMPLER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "samplers/file_reader.h"
#include "samplers/process_bpu.h"
#include "samplers/process_descriptors.h"
#include "samplers/process_files.h"
#include "samplers/process_net.h"
#include "samplers/processes.h"
#include "samplers/task_entries.h"
#include "samplers/task_iterator.h"

namespace samplers {

struct process_sampler_options {
  size_t keep_files = 4096;  // descriptors of /proc files that stay open at most
  bool use_bpf = true;
};

// Why processes are not read by BPF though they were to be.
struct bpf_refusal {
  int error = 0;     // of task_iterator::open(), a negative errno; 0: it was not asked
  std::string said;  // what open() gave as the kernel's and libbpf's own words; may be empty
};

class process_sampler {
 public:
  process_sampler(std::shared_ptr<const file_reader> machine,
                  const process_sampler_options& options);

  // Takes a sample of the processes, or of all threads; the network figures in it may be as old as
  // `net_max_age_us`. 0 or a negative errno, after which the sample is of no use.
  int read(bool threads, int64_t net_max_age_us, process_sample& sample);

  // How samples are taken. Known once one has been.
  bool uses_bpf() const { return iterator != nullptr; }
  const bpf_refusal& why_not_bpf() const { return refusal; }
  bool leaves_idle_alone() const { return process_reader.leaves_idle_alone(); }
  size_t most_files_kept() const;
  int sockets_error() const { return net.dump_error(); }
  bool has_accelerator() const { return bpu.has_accelerator(); }

  // Closes the files of /proc that are kept open, for when nobody asks for samples.
  void release();

 private:
  void try_iterator();
  int read_tasks(process_sample& sample);
  void find_hidden(process_files& files, const process_sample& sample);
  int read_files(process_sample& sample);

  const std::shared_ptr<const file_reader> reader;
  const process_sampler_options options;
  process_files process_reader{false};
  process_files thread_reader{true};
  int64_t processes_read_us = 0;  // when the files of each view were last read
  int64_t threads_read_us = 0;
  bool iterator_tried = false;
  bpf_refusal refusal;
  std::unique_ptr<task_iterator> iterator;  // null: not to be had
  task_entries entries_of_tasks;
  std::vector<task_record> tasks;
  uint32_t tasks_turn = 0;        // counts samples of the iterator
  std::vector<int32_t> hidden;    // processes that it does not see
  std::vector<int32_t> left_out;  // those, and the ones that it has no consistent figures of
  descriptor_rights descriptors;
  process_net net;
  process_bpu bpu;
};

}  // namespace samplers

#endif
