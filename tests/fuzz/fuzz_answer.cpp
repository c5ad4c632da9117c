// SPDX-License-Identifier: Apache-2.0
// What a server may answer: the first byte chooses the kind of the records, the rest is the payload
// (after the width; of processes, after two bytes of what was asked for and the width). Whatever it
// is, the text keeps to printable ASCII and to the room that its panel has.
#include <algorithm>
#include <cstring>
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

template <class record, class formatter>
void check_list(const std::vector<uint8_t>& payload, formatter format, room room) {
  std::vector<record> records;
  if (mon_protocol::decode_records(payload, records)) {
    check_text(format(records), room);
  }
}

template <class record, class formatter>
void check_one(const std::vector<uint8_t>& payload, formatter format, room room) {
  std::vector<record> records;
  if (mon_protocol::decode_records(payload, records) && !records.empty()) {
    check_text(format(records.front()), room);
  }
}

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
    const auto format = [&](const std::vector<pid_msg>& list) {
      std::unordered_map<int32_t, std::string> lines;
      for (const pid_msg& one : list) {
        lines[threads ? one.ppid : one.pid] = text_tools::clean_name(line, length);
      }
      return texts::processes(list, lines, head[1], sort_key, threads, width);
    };
    check_list<pid_msg>(rest, format, {1 + max_pid_msgs, width, true});
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const int kind = take_byte(data, size) % 13;
  const size_t width =
      text_tools::least_columns + (kind == 0 ? 0 : static_cast<size_t>(take_byte(data, size)) % 98);
  const auto laid_out = [width](auto format) {
    return [width, format](const auto& records) { return format(records, width); };
  };
  const auto net = [width](const auto& devices) { return texts::net(devices, width); };
  const std::vector<uint8_t> payload(data, data + size);
  switch (kind) {
    case 0:
      check_processes(data, size);
      break;
    case 1:
      check_list<cpu_usage>(payload, laid_out(texts::cpu), {9, 69, true});
      break;
    case 2:
      check_list<net_stat>(payload, net, {3, width, true});
      break;
    case 3:
      check_list<block_stat>(payload, laid_out(texts::blocks), {3, width, false});
      break;
    case 4:
      check_list<bpu_stat>(payload, laid_out(texts::bpu), {2, width, true});
      break;
    case 5:
      check_list<vio_stat>(payload, laid_out(texts::vio), {65, width, true});
      break;
    case 6:
      check_list<thermal_stat>(payload, laid_out(texts::thermal), {1, width, false});
      break;
    case 7:
      check_list<ion_info>(payload, laid_out(texts::ion), {1, width, false});
      break;
    case 8:
      check_list<part_info>(payload, laid_out(texts::partitions), {1, width, false});
      break;
    case 9:
      check_one<meminfo>(payload, laid_out(texts::memory), {1, width, false});
      break;
    case 10:
      check_list<net_traffic>(payload, net, {3, width, true});
      break;
    case 11:
      check_one<system_stat>(
          payload, [width](const system_stat& stat) { return texts::system(stat, 3, width); },
          {3, width, true});
      break;
    default:
      check_one<perf_sample>(payload, laid_out(texts::counters), {24, width, true});
      break;
  }
  return 0;
}
