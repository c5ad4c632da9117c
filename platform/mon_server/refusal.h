// SPDX-License-Identifier: Apache-2.0
// What a client is told that there is no place for.
#ifndef REFUSAL_H
#define REFUSAL_H

#include <array>
#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <cstdint>
#include <memory>

#include "mon_protocol.h"

// Answers the first message of a connection with -EUSERS and closes it; without a message within a
// second it is closed as it is. On the event loop's thread only. Lives for as long as it waits, and
// holds `place` for so long, so that the server can tell how many there are.
class refusal : public std::enable_shared_from_this<refusal> {
 public:
  refusal(asio::ip::tcp::socket connection, std::shared_ptr<void> place);
  refusal(const refusal&) = delete;
  refusal& operator=(const refusal&) = delete;

  void start();

 private:
  void answer();

  asio::ip::tcp::socket socket;
  asio::steady_timer deadline;
  std::shared_ptr<void> place;
  std::array<uint8_t, mon_protocol::header_size> incoming{};
};

#endif
