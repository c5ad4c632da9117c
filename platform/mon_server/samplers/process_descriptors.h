// SPDX-License-Identifier: Apache-2.0
// The open descriptors of a process: /proc/PID/fd.
#ifndef SAMPLERS_PROCESS_DESCRIPTORS_H
#define SAMPLERS_PROCESS_DESCRIPTORS_H

#include <cstdint>
#include <functional>
#include <string_view>
#include <unordered_map>

#include "samplers/file_reader.h"
#include "samplers/processes.h"

namespace samplers {

// What a descriptor leads to: "socket:[12345]", "/dev/dri/renderD128". Empty when it has been
// closed or may not be seen (that takes the rights to trace the process).
class descriptor_link {
 public:
  descriptor_link(const file_reader& machine, int32_t pid, int32_t number);
  std::string_view target() const { return {text, length}; }

 private:
  char text[64];  // a longer target is none of those looked for, and cut
  size_t length = 0;
};

// Calls `take` with the number and target of each descriptor of a piece of a process's, those from
// `next` on, the last opened mostly first, until it returns false. A piece takes some 0.3 ms at
// most. Sets `next` to where the piece after it begins, 0 when it was the last or `take` returned
// false. In a tree that stands in for the machine a piece is all of them. 0 or a negative errno.
int for_some_descriptors(const file_reader& machine, int32_t pid, int32_t& next,
                         const std::function<bool(int32_t, std::string_view)>& take);

// With CAP_SYS_PTRACE and CAP_DAC_READ_SEARCH, and not of another user namespace than the first:
// those say nothing about everybody.
bool sees_everybody();

// Whose descriptors this server may see: everybody's with CAP_SYS_PTRACE and CAP_DAC_READ_SEARCH,
// else mostly those of its own user, as each process is asked for.
class descriptor_rights {
 public:
  // Fills in descriptors_seen.
  void add_to(const file_reader& machine, process_sample& sample);

 private:
  struct asked {
    uint64_t start_ticks = UINT64_MAX;
    bool seen = false;
  };

  const bool everybody = sees_everybody();
  uint32_t turn = 0;                             // counts samples
  std::unordered_map<int32_t, asked> processes;  // by process id

  bool may_see(const file_reader& machine, const process_entry& process);
};

}  // namespace samplers

#endif
