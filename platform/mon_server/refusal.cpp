// SPDX-License-Identifier: Apache-2.0
#include "refusal.h"

#include <asio/buffer.hpp>
#include <asio/read.hpp>
#include <cerrno>
#include <chrono>
#include <utility>
#include <vector>

namespace {

// A client sends its first message as soon as it is connected.
constexpr std::chrono::seconds patience{1};

}  // namespace

refusal::refusal(asio::ip::tcp::socket connection, std::shared_ptr<void> held_place)
    : socket(std::move(connection)),
      deadline(socket.get_executor()),
      place(std::move(held_place)) {}

void refusal::start() {
  deadline.expires_after(patience);
  deadline.async_wait([weak = weak_from_this()](const asio::error_code& error) {
    const auto self = weak.lock();
    if (!error && self) {
      asio::error_code ignored;
      self->socket.close(ignored);
    }
  });
  asio::async_read(socket, asio::buffer(incoming),
                   [self = shared_from_this()](const asio::error_code& error, size_t) {
                     if (!error) {
                       self->answer();
                     }
                   });
}

// The last reference goes with the handler that calls it, and closes the connection.
void refusal::answer() {
  mon_protocol::message_header header{};
  const std::string bad = mon_protocol::decode_header(incoming.data(), mon_protocol::type_request,
                                                      mon_protocol::max_request_payload, header);
  if (!bad.empty()) {
    return;
  }
  header.type = mon_protocol::type_answer;
  header.client_id = 0;
  header.status = -EUSERS;
  std::vector<uint8_t> message;
  mon_protocol::encode(header, nullptr, 0, message);
  asio::error_code ignored;
  socket.non_blocking(true, ignored);
  socket.write_some(asio::buffer(message), ignored);
}
