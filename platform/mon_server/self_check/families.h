// SPDX-License-Identifier: Apache-2.0
// The families of figures, as --check asks for them.
#ifndef SELF_CHECK_FAMILIES_H
#define SELF_CHECK_FAMILIES_H

#include <cstddef>
#include <string>
#include <vector>

#include "kernel_facts.h"
#include "samplers/file_reader.h"
#include "self_check/findings.h"
#include "server_options.h"

struct check_context {
  explicit check_context(const server_options& server) : options(server) {}

  // Adds a family of which one file is the source: what came of reading it, and what to say behind
  // its path, which is an absolute one. `option` of the kernel brings the file; null: none does.
  void add_file(const char* family, const std::string& path, int error, const std::string& detail,
                const char* option = nullptr);

  // Adds a family whose figures come with those of another one that is not read.
  void add_with(const char* family, const char* other);

  const server_options& options;
  const samplers::file_reader machine{options.sysroot};
  kernel_facts kernel{machine};  // of that tree
  std::vector<finding> findings;
};

// Each adds its findings.
void check_system(check_context& context);     // CPUs, memory, devices: files of /proc and /sys
void check_processes(check_context& context);  // what the process list shows
void check_counters(check_context& context);   // perf_event_open(2)
void check_drivers(check_context& context);    // what may hang

// "1 zone", "3 zones", "2 processes"
std::string count_of(size_t number, const std::string& what);

// Of notes on paths that hold `part`, the first that failed, else the first; null without one.
const samplers::read_note* find_note(const std::vector<samplers::read_note>& notes,
                                     const std::string& part);

// The error of that note; 0 without one.
int error_of(const std::vector<samplers::read_note>& notes, const std::string& part);

// Appends a name behind a comma.
void append_name(std::string& list, const std::string& name);

#endif
