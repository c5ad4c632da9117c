// SPDX-License-Identifier: Apache-2.0
// The messages between the client library and the monitor server; docs/protocol.md describes them
// byte by byte. Shared by both sides, so that neither has a decoder of its own.
#ifndef MON_PROTOCOL_H
#define MON_PROTOCOL_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "mon_fields.h"

namespace mon_protocol {

// First four bytes of every message: F5 'Z' 'M' 'P'. No text protocol starts with 0xF5, so a
// browser that was led to this port is turned away at its first byte.
constexpr uint32_t magic = 0x504D5AF5;
// Raised when a layout or a meaning changes; both sides must have the same.
constexpr uint16_t version = 1;

// Clients that the server takes at a time; it answers the first message of a further one with
// -EUSERS and closes that connection.
constexpr size_t most_connections = 64;

constexpr uint32_t max_request_payload = 4096;
// 1,024 CPUs of 40 bytes are the largest answer that a real machine gives.
constexpr uint32_t max_answer_payload = 64 * 1024;
// The kernel's errnos end there (MAX_ERRNO in its err.h). A status can be negated without a
// thought.
constexpr int32_t lowest_status = -4095;

enum message_type : uint16_t { type_request = 1, type_answer = 2 };

enum command : uint16_t {
  cmd_connection = 1,
  cmd_cpu = 2,
  cmd_peri = 3,
  cmd_bpu = 4,
  cmd_vio = 5,
  cmd_net = 6,
};

enum connection_sub : uint16_t { connection_hello = 1, connection_back_id = 2 };
enum cpu_sub : uint16_t {
  cpu_usage_all = 1,
  cpu_process_list = 2,
  cpu_enable_perf = 3,
  cpu_disable_perf = 4,
  cpu_perf_data = 5,
  cpu_exit = 6,
  cpu_system = 7,
  cpu_command_lines = 8,
};
enum peri_sub : uint16_t {
  peri_thermal = 1,
  peri_meminfo = 2,
  peri_ion = 3,
  peri_partitions = 4,
  peri_blocks = 5,
};
enum bpu_sub : uint16_t { bpu_ratio = 1 };
enum vio_sub : uint16_t { vio_fps = 1 };
enum net_sub : uint16_t { net_start = 1, net_bandwidth = 2, net_exit = 3, net_by_direction = 4 };

struct message_header {
  uint32_t magic;
  uint16_t version;
  uint16_t command;
  uint16_t sub_command;
  uint16_t type;          // message_type
  uint32_t length;        // payload bytes that follow the header
  uint16_t packet;        // number of this packet, from 0
  uint16_t packets;       // packets of this message; this version sends 1
  uint32_t client_id;     // 0 until the server has given one
  uint64_t timestamp_us;  // sender's CLOCK_REALTIME; an answer repeats its request's
  int32_t status;         // answers: 0, or a negative errno; requests: 0
  uint32_t crc;           // CRC-32 (zlib's) of the header up to here, then the payload
};
static_assert(sizeof(message_header) == 40);
static_assert(offsetof(message_header, timestamp_us) == 24);
static_assert(offsetof(message_header, crc) == 36);

constexpr size_t header_size = sizeof(message_header);

// Appends the message that `header` and the payload make to `out`. Magic, version, length, packet
// numbering and CRC are filled in here.
void encode(message_header header, const void* payload, size_t length, std::vector<uint8_t>& out);

// Reads a header from `header_size` bytes. Returns an empty text, or why the bytes cannot be one:
// wrong magic, version, type or packet numbering, a payload above `max_payload`, or a status that
// is neither 0 nor a negative errno. Nothing but the CRC is left to check when it returns an empty
// text.
std::string decode_header(const uint8_t* bytes, message_type expected, uint32_t max_payload,
                          message_header& header);

// True when `header.crc` is that of `header` and the `header.length` bytes at `payload`.
bool crc_matches(const message_header& header, const uint8_t* payload);

// Takes a payload of records apart. Every read is bounded; a payload that holds a fraction of a
// record, or more records than an answer may have, yields false and an empty list.
template <class record>
bool decode_records(const std::vector<uint8_t>& payload, std::vector<record>& records) {
  static_assert(std::is_trivially_copyable_v<record>);
  records.clear();
  if (payload.size() % sizeof(record) != 0 ||
      payload.size() / sizeof(record) > mon_fields::description<record>::most) {
    return false;
  }
  records.resize(payload.size() / sizeof(record));
  if (!records.empty()) {
    std::memcpy(records.data(), payload.data(), payload.size());
  }
  return true;
}

}  // namespace mon_protocol

#endif
