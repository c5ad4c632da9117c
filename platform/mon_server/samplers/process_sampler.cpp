// SPDX-License-Identifier: Apache-2.0
#include "samplers/process_sampler.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <tuple>
#include <utility>

#include "samplers/clock.h"
#include "samplers/descriptor_limit.h"
#include "samplers/room.h"

namespace samplers {
namespace {

// A view that nobody has asked for so long gives its descriptors back.
constexpr int64_t unused_us = 60 * 1000000LL;

// Samples of the program between two listings of /proc.
constexpr uint32_t list_turns = 16;

// Room for the records of so many tasks is kept for the next sample: a quarter of a megabyte.
constexpr size_t most_tasks_kept = 2048;

bool by_pid_and_start(const process_entry& a, const process_entry& b) {
  return std::tie(a.pid, a.start_ticks) < std::tie(b.pid, b.start_ticks);
}

void sort_entries(process_sample& sample) {
  if (!std::is_sorted(sample.entries.begin(), sample.entries.end(), by_pid_and_start)) {
    std::sort(sample.entries.begin(), sample.entries.end(), by_pid_and_start);
  }
}

}  // namespace

process_sampler::process_sampler(std::shared_ptr<const file_reader> machine,
                                 const process_sampler_options& sampler_options)
    : reader(std::move(machine)), options(sampler_options) {}

int process_sampler::read(bool threads, int64_t net_max_age_us, process_sample& sample) {
  try_iterator();
  sample.ticks_per_second = sysconf(_SC_CLK_TCK);
  sample.threads = threads;
  sample.time_us = monotonic_us();
  sample.uptime_ticks = read_uptime(*reader, sample.ticks_per_second);
  const int result = iterator ? read_tasks(sample) : read_files(sample);
  sort_entries(sample);
  give_room_back(sample.entries);
  descriptors.add_to(*reader, sample);
  net.add_to(*reader, net_max_age_us, sample);
  bpu.add_to(*reader, sample);
  return result;
}

// It takes a while on a slow board, so it comes before a sample's time.
void process_sampler::try_iterator() {
  if (!std::exchange(iterator_tried, true) && options.use_bpf && reader->own_machine) {
    iterator = std::make_unique<task_iterator>();
    refusal.error = spare_descriptors() > 0 ? iterator->open(refusal.said) : -EMFILE;
    if (refusal.error != 0) {
      iterator.reset();
    }
  }
}

int process_sampler::read_tasks(process_sample& sample) {
  const int result = iterator->read(tasks);
  if (result != 0) {
    return result;
  }
  process_files& files = sample.threads ? thread_reader : process_reader;
  left_out.clear();
  if (sample.threads) {
    entries_of_tasks.make_threads(tasks, sample.entries);
  } else {
    entries_of_tasks.make_processes(tasks, sample.entries, left_out);
  }
  if (tasks.size() > most_tasks_kept) {
    empty_with_room(tasks);
  }
  sort_entries(sample);
  find_hidden(files, sample);
  left_out.insert(left_out.end(), hidden.begin(), hidden.end());
  std::sort(left_out.begin(), left_out.end());
  left_out.erase(std::unique(left_out.begin(), left_out.end()), left_out.end());
  const auto read_by_program = static_cast<std::ptrdiff_t>(sample.entries.size());
  const int files_result = files.read_some(*reader, left_out, sample.entries);
  // A few behind many in order, which sorting all of them would take long to bring in.
  std::vector<process_entry>& entries = sample.entries;
  std::sort(entries.begin() + read_by_program, entries.end(), by_pid_and_start);
  std::inplace_merge(entries.begin(), entries.begin() + read_by_program, entries.end(),
                     by_pid_and_start);
  return files_result;
}

// A security module may keep processes from the program that /proc shows. Listing /proc takes
// longer than the program does, so it is done every now and then.
void process_sampler::find_hidden(process_files& files, const process_sample& sample) {
  const auto seen = [&](int32_t pid) { return find_process(sample, pid) != nullptr; };
  if (tasks_turn++ % list_turns == 0 && files.list(*reader, hidden) != 0) {
    hidden.clear();
  }
  hidden.erase(std::remove_if(hidden.begin(), hidden.end(), seen), hidden.end());
}

// Two clients may look at one view each: the files of both are kept then, within one bound.
int process_sampler::read_files(process_sample& sample) {
  process_files& shown = sample.threads ? thread_reader : process_reader;
  process_files& other = sample.threads ? process_reader : thread_reader;
  int64_t& shown_us = sample.threads ? threads_read_us : processes_read_us;
  const int64_t other_us = sample.threads ? processes_read_us : threads_read_us;
  if (sample.time_us - other_us > unused_us) {
    other.release();
  }
  shown_us = sample.time_us;
  const size_t most = most_files_kept();
  return shown.read(*reader, most - std::min(most, other.kept_open()), sample.entries);
}

// Half of what is to spare; counters may have the rest.
size_t process_sampler::most_files_kept() const {
  return std::min(options.keep_files, spare_descriptors() / 2);
}

void process_sampler::release() {
  process_reader.release();
  thread_reader.release();
}

}  // namespace samplers
