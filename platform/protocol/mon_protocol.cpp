// SPDX-License-Identifier: Apache-2.0
#include "mon_protocol.h"

#include <zlib.h>

namespace mon_protocol {
namespace {

uint32_t crc_of(const message_header& header, const void* payload, size_t length) {
  uLong crc = crc32(0, reinterpret_cast<const Bytef*>(&header), offsetof(message_header, crc));
  // crc32 answers a null buffer with the initial value, so an empty payload is left out.
  if (length > 0) {
    crc = crc32(crc, static_cast<const Bytef*>(payload), static_cast<uInt>(length));
  }
  return static_cast<uint32_t>(crc);
}

}  // namespace

void encode(message_header header, const void* payload, size_t length, std::vector<uint8_t>& out) {
  header.magic = magic;
  header.version = version;
  header.length = static_cast<uint32_t>(length);
  header.packet = 0;
  header.packets = 1;
  header.crc = crc_of(header, payload, length);
  const auto* head = reinterpret_cast<const uint8_t*>(&header);
  out.insert(out.end(), head, head + header_size);
  if (length > 0) {
    const auto* body = static_cast<const uint8_t*>(payload);
    out.insert(out.end(), body, body + length);
  }
}

std::string decode_header(const uint8_t* bytes, message_type expected, uint32_t max_payload,
                          message_header& header) {
  std::memcpy(&header, bytes, header_size);
  if (header.magic != magic) {
    return "no message of this protocol";
  }
  if (header.version != version) {
    return "protocol version " + std::to_string(header.version) + ", expected " +
           std::to_string(version);
  }
  if (header.type != expected) {
    return "message type " + std::to_string(header.type) + ", expected " + std::to_string(expected);
  }
  if (header.packet != 0 || header.packets != 1) {
    return "packet " + std::to_string(header.packet) + " of " + std::to_string(header.packets);
  }
  if (header.length > max_payload) {
    return "payload of " + std::to_string(header.length) + " bytes, at most " +
           std::to_string(max_payload) + " allowed";
  }
  if (header.status > 0 || header.status < lowest_status) {
    return "status " + std::to_string(header.status);
  }
  return {};
}

bool crc_matches(const message_header& header, const uint8_t* payload) {
  return header.crc == crc_of(header, payload, header.length);
}

}  // namespace mon_protocol
