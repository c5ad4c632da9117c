// SPDX-License-Identifier: Apache-2.0
// Listening and accepting.
#ifndef SERVER_H
#define SERVER_H

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "handlers.h"
#include "held_samples.h"
#include "place_holder.h"
#include "server_log.h"
#include "server_options.h"

class session;

// On one thread.
class server {
 public:
  server(asio::io_context& loop, const server_options& options);
  ~server();
  server(const server&) = delete;
  server& operator=(const server&) = delete;

  // Starts to listen. Empty, or why it cannot.
  std::string listen();

  // Serves until the loop is stopped. Goes on after an exception of whatever runs on the loop; what
  // concerns a client has ended its session by then.
  void run();

  // The port that it listens on.
  uint16_t port() const;

 private:
  void accept();
  void take(asio::ip::tcp::socket connection);
  void make_room_for(const place_holder& newcomer);
  void refuse(asio::ip::tcp::socket connection);
  void trouble(const std::string& what);
  template <class function>
  void for_each_session(function work);
  void check_sessions();
  void bound_memory(size_t most_samples);
  void session_ended(uint32_t id);

  const server_options options;
  asio::io_context& loop;
  machine_figures figures;
  asio::ip::tcp::acceptor acceptor;
  bool accepting = false;
  int64_t checked_us = 0;  // monotonic, when the sessions' deadlines were looked at last
  limited_log bad_peers;
  limited_log own_troubles;
  std::map<uint32_t, std::weak_ptr<session>> sessions;  // by client id
  uint32_t next_id = 1;
  held_samples held;
  std::vector<session_state*> session_states;  // for `held`
  // Every refusal that waits holds it too.
  const std::shared_ptr<void> refusal_place = std::make_shared<char>();
};

#endif
