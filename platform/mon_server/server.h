// Listening and accepting.
#ifndef SERVER_H
#define SERVER_H

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "handlers.h"
#include "server_log.h"
#include "server_options.h"

class session;

// One thread runs `loop`, and with it the server.
class server {
 public:
  server(asio::io_context& loop, const server_options& options);
  ~server();
  server(const server&) = delete;
  server& operator=(const server&) = delete;

  // Starts to listen. Empty, or why it cannot.
  std::string listen();

  // The port that it listens on.
  uint16_t port() const;

 private:
  void accept();
  void take(asio::ip::tcp::socket connection);
  void accept_failed(const asio::error_code& error);
  void session_ended(uint32_t id);

  const server_options options;
  machine_figures figures;
  asio::ip::tcp::acceptor acceptor;
  asio::steady_timer pause;  // after a failed accept
  bool paused = false;
  limited_log bad_peers;
  limited_log accept_errors;
  std::map<uint32_t, std::weak_ptr<session>> sessions;  // by client id
  uint32_t next_id = 1;
};

#endif
