// SPDX-License-Identifier: Apache-2.0
// The texts of the figures: records in, text out, nothing else read or written. ASCII only. Which
// of them end with a line end is part of what their callers rely on. No line is wider than `width`
// (text_tools::least_columns at least, unless said otherwise); entries that do not fit are counted
// ("+57"), and the most telling ones come first.
#ifndef TEXTS_H
#define TEXTS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "mon_records.h"

namespace texts {

// Rows of the panel that the CPU text is for, and its columns.
constexpr size_t cpu_lines = 9;
constexpr size_t cpu_columns = 69;

// One line each, without its line end. memory and ion share one.
std::string thermal(const std::vector<thermal_stat>& zones, size_t width);
std::string memory(const meminfo& info, size_t width);
std::string ion(const std::vector<ion_info>& heaps, size_t width);
// Of a line of `width`, the columns for memory, and what is left for ION when memory took `taken`,
// with ", " between them. Memory leaves ION what it wanted last, and room to say that it failed,
// but may take more than half of the line where both are long.
size_t memory_width(size_t width, size_t ion_wanted);
size_t ion_width(size_t width, size_t taken);
std::string partitions(const std::vector<part_info>& parts, size_t width);

// At most 3 lines without the last line end.
std::string blocks(const std::vector<block_stat>& devices, size_t width);

// Lines, each ended: cpu at most cpu_lines of at most cpu_columns, bpu at most 2, net at most 3.
std::string cpu(const std::vector<cpu_usage>& cpus, size_t width);
std::string bpu(const std::vector<bpu_stat>& cores, size_t width);
std::string net(const std::vector<net_stat>& devices, size_t width);
std::string net(const std::vector<net_traffic>& devices, size_t width);
std::string vio(std::vector<vio_stat> pipelines, size_t width);
// With the command lines of the processes, clean, by process id; no line is wider than `width`, as
// long as a process id fits there.
std::string processes(const std::vector<pid_msg>& list,
                      const std::unordered_map<int32_t, std::string>& command_lines, int total,
                      int sort_key, bool threads, size_t width);
// 24 lines, from 13 columns on.
std::string counters(const perf_sample& sample, size_t width);

// Load, tasks, pressure and swap in at most `rows` lines, each ended: what the CPUs leave free of
// their panel.
std::string system(const system_stat& stat, size_t rows, size_t width);

// A query that failed, and where its text would have stood.
enum class text_form { line, ended_line, brackets };
struct failed_query {
  std::string_view name;    // what the text begins with
  text_form form;           // without a line end, with one, or "[name ...]"
  int status;               // negative errno
  bool answered;            // the status is the server's
  std::string_view server;  // "127.0.0.1:1234", "[::1]:1234"
};

// Why a server refuses a connection with -EUSERS.
std::string full_server();

// One short line that says why, from 13 columns on, in the text's own form.
std::string failure(const failed_query& query, size_t width);

}  // namespace texts

#endif
