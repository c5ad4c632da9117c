// SPDX-License-Identifier: Apache-2.0
// What a client may send: an input is the requests of one session, back to back.
#include <algorithm>
#include <asio/io_context.hpp>
#include <chrono>
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz_tools.h"
#include "handlers.h"
#include "mon_protocol.h"

namespace {

using namespace mon_protocol;

server_options fixture_options() {
  server_options options;
  options.sysroot = ZORVA_FIXTURES "/cpu64";
  options.board = ZORVA_FIXTURES "/board-4core/board";
  options.use_bpf = false;
  return options;
}

struct machine {
  asio::io_context loop;
  machine_figures figures{loop, fixture_options()};
};

// The bytes as they are, which mostly fail a check.
void check_raw(const uint8_t* data, size_t size) {
  message_header header{};
  for (const message_type type : {type_request, type_answer}) {
    const uint32_t most = type == type_request ? max_request_payload : max_answer_payload;
    if (size >= header_size && decode_header(data, type, most, header).empty()) {
      expect(header.length <= most, "a message within its limit");
      if (header.length <= size - header_size) {
        crc_matches(header, data + header_size);
      }
    }
  }
}

// The next request of the input with everything put right that is checked before its commands are
// looked at. Takes it off the input.
std::vector<uint8_t> valid_request(const uint8_t*& data, size_t& size) {
  message_header header{};
  std::memcpy(&header, data, header_size);
  data += header_size;
  size -= header_size;
  const size_t length = std::min<size_t>(header.length % (max_request_payload + 1), size);
  header.type = type_request;
  header.status = 0;
  std::vector<uint8_t> message;
  encode(header, data, length, message);
  data += length;
  size -= length;
  return message;
}

void ask(machine& server, session_state& state, const std::vector<uint8_t>& message) {
  message_header header{};
  expect(decode_header(message.data(), type_request, max_request_payload, header).empty(),
         "a header that was encoded decodes");
  expect(crc_matches(header, message.data() + header_size), "the CRC is right");
  // Shared, since a second reply would come after the end of this function.
  const auto replies = std::make_shared<int>(0);
  const auto check = [replies](const answer& result) {
    ++*replies;
    expect(*replies == 1, "one answer a request");
    expect(result.status <= 0, "a status is 0 or a negative errno");
    expect(result.status == 0 || result.payload.empty(), "a refusal has no payload");
    expect(result.payload.size() <= max_answer_payload, "an answer within its limit");
  };
  const std::vector<uint8_t> payload(message.begin() + header_size, message.end());
  handle_request(header, payload, state, server.figures, check);
  server.loop.restart();
  while (*replies == 0 && server.loop.run_one_for(std::chrono::seconds(4)) > 0) {
  }
  expect(*replies == 1, "every request is answered");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Never destroyed: the threads of the slow reads end with the process.
  static machine& server = *new machine;
  check_raw(data, size);
  session_state state;
  constexpr int most_requests = 16;
  for (int i = 0; i < most_requests && size >= header_size; ++i) {
    ask(server, state, valid_request(data, size));
  }
  release_session(state, server.figures);
  server.loop.restart();
  server.loop.poll();
  return 0;
}
