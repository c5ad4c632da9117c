// What a server may answer: the first byte chooses the kind of the records, the rest is the payload
// (after two bytes of what was asked for, with processes). Whatever it is, the text keeps to
// printable ASCII and to the room that its panel has.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_tools.h"
#include "mon_protocol.h"
#include "texts.h"

namespace {

struct room {
  size_t lines;
  size_t columns;
  bool last_is_ended;
};

constexpr size_t any = SIZE_MAX;

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
void check_list(const std::vector<uint8_t>& payload, size_t most, formatter format, room room) {
  std::vector<record> records;
  if (mon_protocol::decode_records(payload, most, records)) {
    expect(records.size() <= most, "no record too many");
    check_text(format(records), room);
  }
}

template <class record, class formatter>
void check_one(const std::vector<uint8_t>& payload, formatter format, room room) {
  std::vector<record> records;
  if (mon_protocol::decode_records(payload, 1, records) && !records.empty()) {
    check_text(format(records.front()), room);
  }
}

void check_processes(const uint8_t* data, size_t size) {
  const int sort_key = take_byte(data, size);
  const bool threads = (take_byte(data, size) & 1) != 0;
  int32_t head[2] = {};
  if (size >= sizeof head) {
    std::memcpy(head, data, sizeof head);
    const auto format = [&](const std::vector<pid_msg>& list) {
      return texts::processes(list, head[1], sort_key, threads);
    };
    const std::vector<uint8_t> rest(data + sizeof head, data + size);
    check_list<pid_msg>(rest, max_pid_msgs, format, {1 + max_pid_msgs, 117, true});
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr size_t wrapped = 118;
  const int kind = take_byte(data, size) % 11;
  const std::vector<uint8_t> payload(data, data + size);
  switch (kind) {
    case 0:
      check_processes(data, size);
      break;
    case 1:
      check_list<cpu_usage>(payload, 1025, texts::cpu, {9, 69, true});
      break;
    case 2:
      check_list<net_stat>(payload, 512, texts::net, {any, wrapped, true});
      break;
    case 3:
      check_list<block_stat>(payload, 256, texts::blocks, {any, wrapped, false});
      break;
    case 4:
      check_list<bpu_stat>(payload, 64, texts::bpu, {any, wrapped, true});
      break;
    case 5:
      check_list<vio_stat>(payload, 64, texts::vio, {65, 41, true});
      break;
    case 6:
      check_list<thermal_stat>(payload, 512, texts::thermal, {1, any, false});
      break;
    case 7:
      check_list<ion_info>(payload, 64, texts::ion, {1, any, false});
      break;
    case 8:
      check_list<part_info>(payload, 16, texts::partitions, {1, any, false});
      break;
    case 9:
      check_one<meminfo>(payload, texts::memory, {1, wrapped, false});
      break;
    default:
      check_one<perf_sample>(payload, texts::counters, {24, 80, true});
      break;
  }
  return 0;
}
