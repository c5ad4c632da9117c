// One client's connection: bytes in, messages checked, answers out, all within limits.
#ifndef SESSION_H
#define SESSION_H

#include <array>
#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "handlers.h"
#include "mon_protocol.h"
#include "server_log.h"

// On the event loop's thread only. Lives as long as an operation of its own is under way, which may
// be longer than the server: once ended, it touches nothing but itself.
class session : public std::enable_shared_from_this<session> {
 public:
  session(asio::ip::tcp::socket connection, uint32_t id, machine_figures& figures,
          limited_log& bad_peers, std::function<void()> on_end);
  session(const session&) = delete;
  session& operator=(const session&) = delete;

  void start();

  // Closes the connection and lets go of all that it held, with a log line unless `why` is empty.
  // What is under way then ends with an error and drops its reference.
  void end(const std::string& why);

 private:
  void read_more();
  void take_message();
  void finish_message();
  void answer_with(const answer& result);
  void send();
  void begin_deadline();
  bool over(const asio::error_code& error);

  asio::ip::tcp::socket socket;
  asio::steady_timer deadline;  // of a message that has come in part
  bool deadline_runs = false;
  const uint32_t id;
  std::string peer;  // address and port, for the log
  machine_figures& figures;
  limited_log& bad_peers;
  std::function<void()> on_end;
  bool ended = false;

  // Room for the longest request: a whole one mostly comes with one read.
  std::array<uint8_t, mon_protocol::header_size + mon_protocol::max_request_payload> incoming{};
  size_t filled = 0;
  mon_protocol::message_header request{};
  std::vector<uint8_t> payload;
  session_state state;

  std::vector<uint8_t> outgoing;  // being written
  std::vector<uint8_t> waiting;   // to be written next
};

#endif
