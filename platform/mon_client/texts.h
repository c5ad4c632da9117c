// The texts of the figures: records in, text out, nothing else read or written. ASCII only. Which
// of them end with a line end is part of what their callers rely on.
#ifndef TEXTS_H
#define TEXTS_H

#include <string>
#include <vector>

#include "mon_records.h"

namespace texts {

// One line each, without its line end.
std::string thermal(const std::vector<thermal_stat>& zones);
std::string memory(const meminfo& info);
std::string ion(const std::vector<ion_info>& heaps);
std::string partitions(const std::vector<part_info>& parts);

// Lines without the last line end.
std::string blocks(const std::vector<block_stat>& devices);

// Lines, each ended.
std::string cpu(const std::vector<cpu_usage>& cpus);
std::string bpu(const std::vector<bpu_stat>& cores);
std::string net(const std::vector<net_stat>& devices);
std::string vio(std::vector<vio_stat> pipelines);
std::string processes(const std::vector<pid_msg>& list, int total, int sort_key, bool threads);
std::string counters(const perf_sample& sample);

}  // namespace texts

#endif
