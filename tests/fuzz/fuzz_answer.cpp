// SPDX-License-Identifier: Apache-2.0
// What a server may answer: the first byte chooses the kind of the records, the rest is the payload
// (after the width; of processes, after two bytes of what was asked for and the width). Whatever it
// is, the text keeps to printable ASCII and to the room that its panel has.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>
#include <unordered_map>
#include <vector>

#include "fuzz_tools.h"
#include "mon_protocol.h"
#include "text_tools.h"
#include "texts.h"

namespace {

struct room {
  size_t lines;
  size_t columns;
  bool last_is_ended;
};

void check_text(const std::string& text, const room& room) {
  size_t lines = 0;
  size_t column = 0;
  for (const char c : text) {
    expect(c == '\n' || (c >= ' ' && c <= '~'), "printable ASCII");
    lines += column == 0 ? 1 : 0;
    column = c == '\n' ? 0 : column + 1;
    expect(column <= room.columns, "no line is too wide");
    expect(c != '\n' || column == 0, "a line end begins a line");
  }
  expect(lines <= room.lines, "no line too many");
  expect(!text.empty() && (text.back() == '\n') == room.last_is_ended, "the end of the last line");
}

template <class record, auto format>
void check_list(const std::vector<uint8_t>& payload, const room& room) {
  std::vector<record> records;
  if (mon_protocol::decode_records(payload, records)) {
    check_text(format(records, room.columns), room);
  }
}

template <class record, auto format>
void check_one(const std::vector<uint8_t>& payload, const room& room) {
  std::vector<record> records;
  if (mon_protocol::decode_records(payload, records) && !records.empty()) {
    check_text(format(records.front(), room.columns), room);
  }
}

template <class record>
std::string net(const std::vector<record>& devices, size_t width) {
  return texts::net(devices, width);
}

std::string system_in_three_rows(const system_stat& stat, size_t width) {
  return texts::system(stat, 3, width);
}

constexpr size_t any_width = SIZE_MAX;

constexpr struct {
  void (*check)(const std::vector<uint8_t>&, const room&);
  room most;
} kinds[] = {
    {check_list<cpu_usage, texts::cpu>, {9, 69, true}},
    {check_list<net_stat, net<net_stat>>, {3, any_width, true}},
    {check_list<block_stat, texts::blocks>, {3, any_width, false}},
    {check_list<bpu_stat, texts::bpu>, {2, any_width, true}},
    {check_list<vio_stat, texts::vio>, {65, any_width, true}},
    {check_list<thermal_stat, texts::thermal>, {1, any_width, false}},
    {check_list<ion_info, texts::ion>, {1, any_width, false}},
    {check_list<part_info, texts::partitions>, {1, any_width, false}},
    {check_one<meminfo, texts::memory>, {1, any_width, false}},
    {check_list<net_traffic, net<net_traffic>>, {3, any_width, true}},
    {check_one<system_stat, system_in_three_rows>, {3, any_width, true}},
    {check_one<perf_sample, texts::counters>, {24, any_width, true}},
};

// All processes have the bytes behind the first of the list as their command line.
void check_processes(const uint8_t* data, size_t size) {
  const int sort_key = take_byte(data, size);
  const bool threads = (take_byte(data, size) & 1) != 0;
  const size_t width = 7 + take_byte(data, size) % 111U;
  int32_t head[2] = {};
  if (size >= sizeof head) {
    std::memcpy(head, data, sizeof head);
    const std::vector<uint8_t> rest(data + sizeof head, data + size);
    const size_t skipped = std::min(rest.size(), sizeof(pid_msg));
    const char* line = reinterpret_cast<const char*>(rest.data()) + skipped;
    const size_t length = std::min(rest.size() - skipped, sizeof(process_command::text));
    std::vector<pid_msg> list;
    if (!mon_protocol::decode_records(rest, list)) {
      return;
    }
    std::unordered_map<int32_t, std::string> lines;
    for (const pid_msg& one : list) {
      lines[threads ? one.ppid : one.pid] = text_tools::clean_name(line, length);
    }
    check_text(texts::processes(list, lines, head[1], sort_key, threads, width),
               {1 + max_pid_msgs, width, true});
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const size_t kind = take_byte(data, size) % (1 + std::size(kinds));
  if (kind == 0) {
    check_processes(data, size);
    return 0;
  }
  const size_t width = text_tools::least_columns + take_byte(data, size) % 98U;
  const auto& [check, most] = kinds[kind - 1];
  check({data, data + size}, {most.lines, std::min(most.columns, width), most.last_is_ended});
  return 0;
}
