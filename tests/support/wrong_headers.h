// SPDX-License-Identifier: Apache-2.0
// Headers that both sides must refuse though their CRC is right.
#ifndef WRONG_HEADERS_H
#define WRONG_HEADERS_H

#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "mon_protocol.h"

struct wrong_header {
  const char* why;  // what decode_header says of it
  void (*spoil)(mon_protocol::message_header&);

  // The same message with this header.
  std::vector<uint8_t> of(std::vector<uint8_t> message) const {
    mon_protocol::message_header header{};
    std::memcpy(&header, message.data(), sizeof header);
    spoil(header);
    std::memcpy(message.data(), &header, sizeof header);
    constexpr size_t crc_at = offsetof(mon_protocol::message_header, crc);
    uLong crc = crc32(0, message.data(), crc_at);
    crc = crc32_z(crc, &message[sizeof header - 1] + 1, message.size() - sizeof header);
    header.crc = static_cast<uint32_t>(crc);
    std::memcpy(message.data(), &header, sizeof header);
    return message;
  }
};

// For a request; in an answer the type is wrong the other way round.
inline const wrong_header wrong_headers[] = {
    {"no message of this protocol", [](auto& header) { header.magic ^= 1; }},
    {"protocol version 2, expected 1", [](auto& header) { header.version = 2; }},
    {"message type ", [](auto& header) { header.type ^= 3; }},
    {"message type 3, expected ", [](auto& header) { header.type = 3; }},
    {"packet 1 of 1", [](auto& header) { header.packet = 1; }},
    {"packet 0 of 2", [](auto& header) { header.packets = 2; }},
    {"payload of 4294967295 bytes, at most ", [](auto& header) { header.length = UINT32_MAX; }},
    {"status 1", [](auto& header) { header.status = 1; }},
    {"status -4096", [](auto& header) { header.status = -4096; }},
    {"status -2147483648", [](auto& header) { header.status = INT32_MIN; }},
};

#endif
