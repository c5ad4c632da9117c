// SPDX-License-Identifier: Apache-2.0
// Why figures are not read, or not as well as they could be, and what to do about it. One place for
// the log and for --check.
#ifndef OBSTACLES_H
#define OBSTACLES_H

#include <initializer_list>
#include <string>

#include "kernel_facts.h"
#include "samplers/process_sampler.h"

struct obstacle {
  std::string why;
  std::string remedy;  // empty: nothing helps on this machine with this version of the kernel
  std::string detail;  // what the kernel or a library said, in one line; mostly empty
};

// In one line.
std::string log_text(const obstacle& one);

// The option is off, or its module is not loaded. `when_on` is for a kernel that has it.
obstacle option_obstacle(kernel_facts& kernel, const std::string& why, const char* option,
                         const obstacle& when_on);

// The kernel came before the version that brought it.
obstacle version_obstacle(const kernel_facts& kernel, const char* since);

// Not all of `wanted` (numbers of capabilities) are there, or they do not count here.
obstacle rights_obstacle(const std::string& why, std::initializer_list<int> wanted);

// Too few descriptors to spare.
obstacle descriptors_obstacle();

// The errors are those that the readers return, negative errnos. `path` is as it is to be shown;
// `option` brings the file, null: none does.
obstacle file_obstacle(kernel_facts& kernel, const std::string& path, int error,
                       const char* option);
obstacle bpf_obstacle(kernel_facts& kernel, const samplers::bpf_refusal& refusal);
obstacle sockets_obstacle(kernel_facts& kernel, int error);
obstacle counters_obstacle(kernel_facts& kernel, int error);
// Of an event that no hardware seems to have.
obstacle hardware_events_obstacle(kernel_facts& kernel);
obstacle pressure_obstacle(kernel_facts& kernel, const std::string& path, int error);

// "CAP_BPF"
std::string capability_name(int capability);

#endif
