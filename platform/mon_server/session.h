// SPDX-License-Identifier: Apache-2.0
// One client's connection: bytes in, messages checked, answers out, all within limits.
#ifndef SESSION_H
#define SESSION_H

#include <array>
#include <asio/ip/tcp.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "handlers.h"
#include "mon_protocol.h"
#include "place_holder.h"
#include "server_log.h"

class session;

// What a session tells the server. Nothing once it has ended.
struct session_events {
  std::function<void()> answered;       // its state may hold another sample
  std::function<void()> out_of_memory;  // it is about to end for it
  std::function<void()> ended;
};

// On the event loop's thread only. Lives as long as an operation of its own is under way, which may
// be longer than the server: once ended, it touches nothing but itself. An exception while it is
// served ends it and nothing else.
class session : public std::enable_shared_from_this<session> {
 public:
  session(asio::ip::tcp::socket connection, uint32_t id, const place_holder& holder,
          machine_figures& figures, limited_log& bad_peers, session_events events);
  session(const session&) = delete;
  session& operator=(const session&) = delete;

  void start();

  // Closes the connection and lets go of all that it held, with a log line unless `why` is empty.
  // What is under way then ends with an error and drops its reference.
  void end(const std::string& why);

  // Ends it when it has passed a deadline; lets go of samples that it seems to have no more use
  // for. Called about once a second.
  void check(int64_t now_us);

  const uint32_t id;
  const place_holder holder;  // who has the place
  int64_t asked_us;           // monotonic, when it asked last, or came
  session_state state;

 private:
  template <class function>
  void guard(function work);
  void read_more();
  void take_message();
  void finish_message();
  void answer_with(const answer& result);
  void send();
  void take_next();
  bool end_on(const asio::error_code& error);

  asio::ip::tcp::socket socket;
  std::string peer;  // address and port, for the log
  machine_figures& figures;
  limited_log& bad_peers;
  session_events events;
  bool ended = false;

  // What the client must do next, and since when, or what the server must. 0: that is not awaited.
  int64_t begun_us = 0;    // complete a message
  int64_t unread_us = 0;   // read its answer
  int64_t serving_us = 0;  // the server: answer

  // Room for the longest request: a whole one mostly comes with one read.
  std::array<uint8_t, mon_protocol::header_size + mon_protocol::max_request_payload> incoming{};
  size_t filled = 0;
  mon_protocol::message_header request{};
  std::vector<uint8_t> payload;

  std::vector<uint8_t> outgoing;  // the answer, while not all of it is sent
};

#endif
