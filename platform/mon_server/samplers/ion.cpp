// SPDX-License-Identifier: Apache-2.0
#include "samplers/ion.h"

#include <cerrno>
#include <string>

#include "samplers/memory.h"
#include "samplers/text.h"

namespace samplers {
namespace {

void add_heap(std::string_view name, uint64_t used, std::vector<ion_info>& heaps) {
  ion_info heap{};
  copy_name(name, heap.ion_name);
  heap.used = used;
  if (heaps.size() < mon_fields::description<ion_info>::most) {
    heaps.push_back(heap);
  }
}

void read_board_heaps(const file_reader& board, std::vector<ion_info>& heaps) {
  std::vector<std::string> names;
  board.list("ion", names);
  for (const std::string& name : names) {
    add_heap(name, board.read_u64(("ion/" + name).c_str()), heaps);
  }
}

void read_debugfs_heaps(const file_reader& machine, std::vector<ion_info>& heaps) {
  const std::string folder = "sys/kernel/debug/ion/heaps";
  std::vector<std::string> names;
  machine.list(folder.c_str(), names);
  std::string content;
  for (const std::string& name : names) {
    // A heap with a shrinker has a second file, which holds no use.
    const size_t shrinker = name.rfind("_shrink");
    if (shrinker == std::string::npos || shrinker + 7 != name.size()) {
      machine.read((folder + "/" + name).c_str(), content);
      add_heap(name, parse_ion_heap(content), heaps);
    }
  }
}

void read_ion_total(const file_reader& machine, std::vector<ion_info>& heaps) {
  const uint64_t total_kb = machine.read_u64("sys/kernel/ion/total_heaps_kb");
  if (total_kb != unknown_u64) {
    add_heap("ion", total_kb * 1024, heaps);
  }
}

void read_cma(const file_reader& machine, std::vector<ion_info>& heaps) {
  std::string content;
  machine.read("proc/meminfo", content);
  const uint64_t total_kb = meminfo_value(content, "CmaTotal");  // since Linux 3.1
  const uint64_t free_kb = meminfo_value(content, "CmaFree");
  if (total_kb != unknown_u64 && total_kb > 0) {
    // An unknown CmaFree is above every total, too.
    add_heap("cma", free_kb <= total_kb ? (total_kb - free_kb) * 1024 : unknown_u64, heaps);
  }
}

void read_dma_bufs(const file_reader& machine, std::vector<ion_info>& heaps) {
  std::string content;
  if (machine.read("sys/kernel/debug/dma_buf/bufinfo", content) == 0) {
    add_heap("dma-buf", parse_dma_buf_total(content), heaps);
  }
}

// Up to four words of a line; more are not told apart.
struct words {
  std::string_view word[4];
  int count = 0;
};

words split(std::string_view line) {
  words result;
  for (std::string_view word = take_word(line); !word.empty() && result.count < 4;
       word = take_word(line)) {
    result.word[result.count++] = word;
  }
  return result;
}

}  // namespace

// The text is a table of client, pid and size, then one of orphans ("total orphaned N"), then
// "total N". A client may be called "total" as well, but its row has three words. On old kernels
// the text ends after the first table.
uint64_t parse_ion_heap(std::string_view text) {
  uint64_t clients = unknown_u64;
  while (!text.empty()) {
    const words row = split(take_line(text));
    if (row.count == 2 && row.word[0] == "total" && to_u64(row.word[1]) != unknown_u64) {
      return to_u64(row.word[1]);
    }
    if (row.count == 3 && row.word[0] == "client" && row.word[2] == "size") {
      clients = 0;
    } else if (clients != unknown_u64 && row.count == 3 && to_u64(row.word[2]) != unknown_u64) {
      clients += to_u64(row.word[2]);
    }
  }
  return clients;
}

uint64_t parse_dma_buf_total(std::string_view text) {
  uint64_t total = unknown_u64;
  while (!text.empty()) {
    // "Total 12 objects, 8388608 bytes"
    const words row = split(take_line(text));
    if (row.count == 4 && row.word[0] == "Total" && row.word[2] == "objects,") {
      total = to_u64(row.word[3]);
    }
  }
  return total;
}

int read_ion(const file_reader& machine, const file_reader* board, std::vector<ion_info>& heaps) {
  heaps.clear();
  if (board != nullptr) {
    read_board_heaps(*board, heaps);
  }
  if (heaps.empty()) {
    read_debugfs_heaps(machine, heaps);
  }
  if (heaps.empty()) {
    read_ion_total(machine, heaps);
    read_cma(machine, heaps);
    read_dma_bufs(machine, heaps);
  }
  return heaps.empty() ? -ENOENT : 0;
}

}  // namespace samplers
