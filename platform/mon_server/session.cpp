// SPDX-License-Identifier: Apache-2.0
#include "session.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <asio/buffer.hpp>
#include <asio/post.hpp>
#include <asio/write.hpp>
#include <cerrno>
#include <cstddef>
#include <exception>
#include <new>
#include <utility>

#include "held_samples.h"
#include "samplers/clock.h"
#include "samplers/room.h"

namespace {

// A client that drips its request, or does not read its answer, holds up nobody but itself, and
// nothing for long.
constexpr int64_t message_limit_us = 5 * 1000000LL;
// An answer that has not been made by then never will be; the slowest ones take a second.
constexpr int64_t serving_limit_us = 10 * 1000000LL;
// The kernel doubles both. Most answers fit; requests need little, and what is not taken yet waits
// in the client's own buffers.
constexpr int send_buffer_size = 32 * 1024;
constexpr int receive_buffer_size = 8 * 1024;
// A peer whose network has gone is found out within 30 s, whether anything is on its way to it or
// not.
constexpr int keepalive_s = 10;
constexpr int keepalive_probes = 2;
constexpr unsigned peer_limit_ms = 30000;

std::string name_of(const asio::ip::tcp::socket& socket) {
  asio::error_code error;
  const auto peer = socket.remote_endpoint(error);
  return error ? "?" : peer.address().to_string() + " port " + std::to_string(peer.port());
}

void find_out_dead_peers(int socket) {
  const auto set = [socket](int option, auto value) {
    setsockopt(socket, IPPROTO_TCP, option, &value, sizeof value);
  };
  set(TCP_KEEPIDLE, keepalive_s);
  set(TCP_KEEPINTVL, keepalive_s);
  set(TCP_KEEPCNT, keepalive_probes);
  set(TCP_USER_TIMEOUT, peer_limit_ms);
}

}  // namespace

session::session(asio::ip::tcp::socket connection, uint32_t client_id, const place_holder& place_of,
                 machine_figures& machine, limited_log& log, session_events server_events)
    : id(client_id),
      holder(place_of),
      asked_us(samplers::monotonic_us()),
      socket(std::move(connection)),
      peer(name_of(socket)),
      figures(machine),
      bad_peers(log),
      events(std::move(server_events)) {
  asio::error_code ignored;
  socket.set_option(asio::ip::tcp::no_delay(true), ignored);
  socket.set_option(asio::socket_base::keep_alive(true), ignored);
  find_out_dead_peers(socket.native_handle());
  socket.set_option(asio::socket_base::send_buffer_size(send_buffer_size), ignored);
  socket.set_option(asio::socket_base::receive_buffer_size(receive_buffer_size), ignored);
  socket.non_blocking(true, ignored);
}

// Does the work that a handler is for. What it throws (mostly std::bad_alloc) ends the session.
template <class function>
void session::guard(function work) {
  std::string why;
  try {
    return work();
  } catch (const std::bad_alloc&) {
    why = "out of memory";  // short enough to take none
  } catch (const std::exception&) {
    why = "cannot serve it";
  }
  if (!ended) {
    events.out_of_memory();
    end(why);
  }
}

void session::start() {
  guard([this] { read_more(); });
}

// Waits for a message to begin for as long as it takes, and for its rest until the deadline.
void session::read_more() {
  socket.async_read_some(asio::buffer(incoming.data() + filled, incoming.size() - filled),
                         [self = shared_from_this()](const asio::error_code& error, size_t length) {
                           if (!self->end_on(error)) {
                             self->filled += length;
                             self->guard([&self] { self->take_message(); });
                           }
                         });
}

void session::take_message() {
  size_t wanted = mon_protocol::header_size;
  if (filled >= wanted) {
    const std::string bad = mon_protocol::decode_header(incoming.data(), mon_protocol::type_request,
                                                        mon_protocol::max_request_payload, request);
    if (!bad.empty()) {
      return end(bad);
    }
    wanted += request.length;
  }
  if (filled < wanted) {
    begun_us = begun_us != 0 ? begun_us : samplers::monotonic_us();
    return read_more();
  }
  const uint8_t* first = incoming.data() + mon_protocol::header_size;
  if (!mon_protocol::crc_matches(request, first)) {
    return end("CRC of a request does not match");
  }
  payload.assign(first, first + request.length);
  finish_message();
  handle_request(request, payload, state, figures,
                 [self = shared_from_this()](const answer& result) {
                   self->guard([&] { self->answer_with(result); });
                 });
}

// Drops the message at the front, and moves what came behind it there.
void session::finish_message() {
  const size_t length = mon_protocol::header_size + request.length;
  std::copy(incoming.begin() + length, incoming.begin() + filled, incoming.begin());
  filled -= length;
  begun_us = 0;
  asked_us = samplers::monotonic_us();
  serving_us = asked_us;
}

// The next request is taken only when the answer is on its way, so answers leave in the order of
// their requests, and there is never more than one.
void session::answer_with(const answer& result) {
  if (ended) {
    return;
  }
  if (result.status == -ENOMEM) {  // of another thread, or of the kernel
    throw std::bad_alloc();
  }
  if (result.status == -EMFILE || result.status == -ENFILE) {
    bad_peers.write(log_priority::warning, "no descriptor is free: a figure is unknown");
  }
  mon_protocol::message_header head_of_answer{};
  head_of_answer.command = request.command;
  head_of_answer.sub_command = request.sub_command;
  head_of_answer.type = mon_protocol::type_answer;
  const bool handed_back = request.command == mon_protocol::cmd_connection &&
                           request.sub_command == mon_protocol::connection_back_id;
  head_of_answer.client_id = handed_back ? 0 : id;
  head_of_answer.timestamp_us = request.timestamp_us;
  head_of_answer.status = result.status;
  serving_us = 0;
  mon_protocol::encode(head_of_answer, result.payload.data(), result.payload.size(), outgoing);
  events.answered();
  send();
}

// Most answers go at once; what the client does not read fast enough waits.
void session::send() {
  asio::error_code error;
  const size_t sent = socket.write_some(asio::buffer(outgoing), error);
  if (error && error != asio::error::would_block) {
    return end("");
  }
  if (sent == outgoing.size()) {
    outgoing.clear();
    return take_next();
  }
  unread_us = samplers::monotonic_us();
  asio::async_write(socket, asio::buffer(outgoing.data() + sent, outgoing.size() - sent),
                    [self = shared_from_this()](const asio::error_code& failed, size_t) {
                      if (!self->end_on(failed)) {
                        self->unread_us = 0;
                        samplers::empty_with_room(self->outgoing);
                        self->guard([&self] { self->take_next(); });
                      }
                    });
}

void session::take_next() {
  if (filled == 0) {
    return read_more();
  }
  asio::post(socket.get_executor(), [self = shared_from_this()] {
    if (!self->ended) {
      self->guard([&self] { self->take_message(); });
    }
  });
}

// What had succeeded before the connection was closed is still delivered after it, and must not
// make the session hold anything again.
bool session::end_on(const asio::error_code& error) {
  if (error) {
    end("");
  }
  return ended;
}

void session::check(int64_t now_us) {
  const auto late = [now_us](int64_t since_us, int64_t limit_us) {
    return since_us != 0 && now_us - since_us >= limit_us;
  };
  if (late(begun_us, message_limit_us)) {
    end("a request was begun and not completed");
  } else if (late(unread_us, message_limit_us)) {
    end("an answer is not read");
  } else if (late(serving_us, serving_limit_us)) {
    end("its request could not be answered");
  } else {
    let_go_when_idle(state, now_us - asked_us);
  }
}

// The line comes last: by then there is memory for it if there is any.
void session::end(const std::string& why) {
  if (ended) {
    return;
  }
  ended = true;
  asio::error_code ignored;
  socket.close(ignored);
  samplers::empty_with_room(outgoing);
  release_session(state, figures);
  const session_events tell = std::exchange(events, {});
  tell.ended();
  if (why.empty()) {
    return;
  }
  try {
    bad_peers.write(log_priority::warning, "client " + peer + ": " + why + "; connection closed");
  } catch (const std::bad_alloc&) {  // then without the line
  }
}
