#include "server.h"

#include <asio/ip/address.hpp>
#include <chrono>
#include <memory>
#include <utility>

#include "session.h"

namespace {

constexpr size_t most_sessions = 64;
// A client can make us write these as often as it likes.
constexpr int bad_peer_lines_per_minute = 30;
constexpr int accept_lines_per_minute = 1;
// A listening socket stays ready while we are out of descriptors; trying again at once would spin.
constexpr std::chrono::seconds accept_pause{1};

}  // namespace

server::server(asio::io_context& event_loop, const server_options& server_options)
    : options(server_options),
      figures(event_loop, server_options),
      acceptor(event_loop),
      pause(event_loop),
      bad_peers(bad_peer_lines_per_minute),
      accept_errors(accept_lines_per_minute) {}

server::~server() {
  const auto open_sessions = std::exchange(sessions, {});
  for (const auto& [id, weak] : open_sessions) {
    if (const auto one = weak.lock()) {
      one->end("");
    }
  }
}

std::string server::listen() {
  using asio::ip::tcp;
  asio::error_code error;
  const auto address = asio::ip::make_address(options.listen, error);
  if (error) {
    return "--listen " + options.listen + ": not a numeric IPv4 or IPv6 address";
  }
  const tcp::endpoint endpoint(address, options.port);
  const std::string place = options.listen + " port " + std::to_string(options.port);
  acceptor.open(endpoint.protocol(), error);
  if (!error) {
    acceptor.set_option(tcp::acceptor::reuse_address(true), error);
    acceptor.bind(endpoint, error);
  }
  if (!error) {
    acceptor.listen(asio::socket_base::max_listen_connections, error);
  }
  if (error) {
    return "cannot listen on " + place + ": " + error.message();
  }
  if (!address.is_loopback()) {
    server_log(log_priority::warning,
               "anybody who reaches " + options.listen +
                   " can read this machine's figures: there is no password; an SSH tunnel to the "
                   "loopback address is the safe way in");
  }
  server_log(log_priority::info,
             "listening on " + options.listen + " port " + std::to_string(port()));
  accept();
  return {};
}

uint16_t server::port() const {
  return acceptor.local_endpoint().port();
}

void server::accept() {
  acceptor.async_accept([this](const asio::error_code& error, asio::ip::tcp::socket connection) {
    if (error) {
      return accept_failed(error);
    }
    take(std::move(connection));
    accept();
  });
}

void server::take(asio::ip::tcp::socket connection) {
  if (sessions.size() >= most_sessions) {
    bad_peers.write(log_priority::warning, "more than " + std::to_string(most_sessions) +
                                               " connections; the new one is closed");
    return;
  }
  while (next_id == 0 || sessions.count(next_id) != 0) {  // 0 stands for no id
    ++next_id;
  }
  const uint32_t id = next_id++;
  const auto one = std::make_shared<session>(std::move(connection), id, figures, bad_peers,
                                             [this, id] { session_ended(id); });
  sessions[id] = one;
  one->start();
}

void server::accept_failed(const asio::error_code& error) {
  if (error == asio::error::operation_aborted) {
    return;
  }
  accept_errors.write(log_priority::error, "cannot accept a connection: " + error.message());
  paused = true;
  pause.expires_after(accept_pause);
  // Ends at the time, or when a session's end frees a descriptor.
  pause.async_wait([this](const asio::error_code&) {
    paused = false;
    accept();
  });
}

void server::session_ended(uint32_t id) {
  sessions.erase(id);
  if (sessions.empty()) {
    figures.process_sampler.release();
  }
  if (paused) {
    pause.cancel();
  }
}
