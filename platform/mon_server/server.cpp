// SPDX-License-Identifier: Apache-2.0
#include "server.h"

#include <algorithm>
#include <asio/executor_work_guard.hpp>
#include <asio/ip/address.hpp>
#include <chrono>
#include <exception>
#include <memory>
#include <utility>
#include <vector>

#include "mon_protocol.h"
#include "places.h"
#include "refusal.h"
#include "samplers/clock.h"
#include "samplers/descriptor_limit.h"
#include "session.h"

namespace {

// Clients beyond the last place that are told so at a time; more are closed without a word.
constexpr long most_refusals = 16;
// A client can make us write these as often as it likes.
constexpr int bad_peer_lines_per_minute = 30;
constexpr int trouble_lines_per_minute = 1;
constexpr int64_t check_interval_us = 1000000;
constexpr std::chrono::microseconds check_interval{check_interval_us};

size_t most_sessions() {
  const size_t limit = std::max(samplers::descriptor_limit(), samplers::least_descriptors);
  return std::min(mon_protocol::most_connections, limit - samplers::least_descriptors);
}

}  // namespace

server::server(asio::io_context& event_loop, const server_options& server_options)
    : options(server_options),
      loop(event_loop),
      figures(event_loop, server_options),
      acceptor(event_loop),
      bad_peers(bad_peer_lines_per_minute),
      own_troubles(trouble_lines_per_minute) {}

server::~server() {
  for_each_session([](session& one) { one.end(""); });
}

std::string server::listen() {
  using asio::ip::tcp;
  if (most_sessions() == 0) {
    return "needs more than " + std::to_string(samplers::least_descriptors) +
           " descriptors (ulimit -n): " + std::to_string(samplers::descriptor_limit());
  }
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

// Without clients it sleeps; with some it looks after them once a second. When it cannot accept, it
// waits as long before it tries again: the listening socket stays ready, and would keep it busy.
void server::run() {
  const auto work = asio::make_work_guard(loop);
  while (!loop.stopped()) {
    try {
      if (accepting && sessions.empty()) {
        loop.run_one();
      } else {
        loop.run_for(check_interval);
      }
      if (!accepting) {
        loop.run_for(check_interval);
        accept();
      }
      check_sessions();
    } catch (const std::exception& error) {
      trouble(error.what());
    }
  }
}

void server::accept() {
  acceptor.async_accept([this](const asio::error_code& error, asio::ip::tcp::socket connection) {
    accepting = false;
    if (error) {
      return trouble("cannot accept a connection: " + error.message());
    }
    try {
      take(std::move(connection));
    } catch (const std::exception& why) {  // which costs nobody else anything
      trouble(std::string("cannot take a connection: ") + why.what());
    }
    accept();
  });
  accepting = true;
}

// The line is lost when there is no memory for it.
void server::trouble(const std::string& what) {
  try {
    own_troubles.write(log_priority::error, what);
  } catch (const std::bad_alloc&) {
  }
}

void server::take(asio::ip::tcp::socket connection) {
  const place_holder newcomer = holder_of(connection);
  if (sessions.size() >= most_sessions()) {
    make_room_for(newcomer);
  }
  if (sessions.size() >= most_sessions()) {
    return refuse(std::move(connection));
  }
  while (next_id == 0 || sessions.count(next_id) != 0) {  // 0 stands for no id
    ++next_id;
  }
  const uint32_t id = next_id++;
  const session_events events{[this] { bound_memory(most_held_samples); },
                              [this] { bound_memory(0); }, [this, id] { session_ended(id); }};
  const auto one =
      std::make_shared<session>(std::move(connection), id, newcomer, figures, bad_peers, events);
  sessions[id] = one;
  one->start();
}

void server::make_room_for(const place_holder& newcomer) {
  std::vector<taken_place> places;
  for_each_session([&places](session& one) {
    places.push_back({one.id, one.holder, one.asked_us});
  });
  const uint32_t id = who_makes_room(places, newcomer, samplers::monotonic_us());
  const auto found = sessions.find(id);
  if (found == sessions.end()) {
    return;
  }
  if (const auto one = found->second.lock()) {
    one->end("makes room for another client");
  }
}

void server::refuse(asio::ip::tcp::socket connection) {
  bad_peers.write(log_priority::warning, "more than " + std::to_string(most_sessions()) +
                                             " connections; the new one is refused");
  if (refusal_place.use_count() <= (samplers::spare_descriptors() > 0 ? most_refusals : 1)) {
    std::make_shared<refusal>(std::move(connection), refusal_place)->start();
  }
}

// The work may end the session.
template <class function>
void server::for_each_session(function work) {
  for (auto next = sessions.begin(); next != sessions.end();) {
    const auto one = next->second.lock();
    ++next;
    if (one) {
      work(*one);
    }
  }
}

void server::check_sessions() {
  const int64_t now_us = samplers::monotonic_us();
  if (now_us - checked_us >= check_interval_us) {
    checked_us = now_us;
    for_each_session([now_us](session& one) { one.check(now_us); });
  }
}

void server::bound_memory(size_t most_samples) {
  session_states.clear();
  for_each_session([this](session& one) { session_states.push_back(&one.state); });
  held.bound(session_states, most_samples);
}

void server::session_ended(uint32_t id) {
  sessions.erase(id);
  if (sessions.empty()) {
    figures.lists.release();
  }
}
