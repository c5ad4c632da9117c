// SPDX-License-Identifier: Apache-2.0
#include "samplers/process_descriptors.h"

#include <linux/capability.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <utility>
#include <vector>

#include "samplers/rights.h"

namespace samplers {
namespace {

constexpr size_t path_size = 64;

// A process may become another user's, when it runs a program that has the set-user-ID bit: what is
// known of each is asked for again after so many samples.
constexpr uint32_t forget_turns = 64;

}  // namespace

descriptor_link::descriptor_link(const file_reader& machine, int32_t pid, int32_t number) {
  char path[path_size];
  std::snprintf(path, sizeof path, "proc/%d/fd/%d", pid, number);
  const int size = machine.read_link(path, text, sizeof text);
  length = size > 0 ? static_cast<size_t>(size) : 0;
}

// Listing the descriptors of a process goes on at any number: it is the position in the folder
// less 2 (the kernel's proc_readfd_common()).
int for_some_descriptors(const file_reader& machine, int32_t pid, int32_t& next,
                         const std::function<bool(int32_t, std::string_view)>& take) {
  constexpr off_t first_position = 2;
  constexpr size_t piece_size = 128;
  char path[path_size];
  std::snprintf(path, sizeof path, "proc/%d/fd", pid);
  const int32_t first = std::exchange(next, 0);
  const file_descriptor folder = machine.open_folder(path);
  if (!folder || (first != 0 && lseek(folder.get(), first + first_position, SEEK_SET) < 0)) {
    return -errno;
  }
  std::vector<int32_t> numbers;
  const int result =
      list_numbers(folder.get(), numbers, machine.own_machine ? piece_size : SIZE_MAX);
  for (auto number = numbers.rbegin(); number != numbers.rend(); ++number) {
    if (!take(*number, descriptor_link(machine, pid, *number).target())) {
      return result;
    }
  }
  if (numbers.size() >= piece_size && machine.own_machine) {
    next = numbers.back() + 1;
  }
  return result;
}

bool sees_everybody() {
  return has_capability(CAP_SYS_PTRACE) && has_capability(CAP_DAC_READ_SEARCH) &&
         in_initial_user_namespace();
}

// Opening the folder takes the rights of its owner, and following what is in it those to trace the
// process, which following another link tells just as well.
bool descriptor_rights::may_see(const file_reader& machine, const process_entry& process) {
  asked& known = processes[process.pid];
  if (known.start_ticks != process.start_ticks) {
    char path[path_size];
    char target[1];
    std::snprintf(path, sizeof path, "proc/%d/cwd", process.pid);
    known = {process.start_ticks, machine.read_link(path, target, sizeof target) > 0};
    std::snprintf(path, sizeof path, "proc/%d/fd", process.pid);
    known.seen = known.seen && machine.open_folder(path);
  }
  return known.seen;
}

void descriptor_rights::add_to(const file_reader& machine, process_sample& sample) {
  if (++turn % forget_turns == 0) {
    processes.clear();
  }
  for (process_entry& entry : sample.entries) {
    entry.descriptors_seen = everybody || !machine.own_machine || may_see(machine, entry);
  }
}

}  // namespace samplers
