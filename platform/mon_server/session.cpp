#include "session.h"

#include <algorithm>
#include <asio/buffer.hpp>
#include <asio/post.hpp>
#include <asio/write.hpp>
#include <chrono>
#include <cstddef>
#include <utility>

namespace {

// A client that drips its request, or does not read its answers, holds up nobody but itself, and
// nothing for long.
constexpr std::chrono::seconds message_limit{5};
constexpr size_t most_unread = 1 << 20;
// The kernel would otherwise take several megabytes of answers before most_unread counts.
constexpr int send_buffer_size = 128 * 1024;

std::string name_of(const asio::ip::tcp::socket& socket) {
  asio::error_code error;
  const auto peer = socket.remote_endpoint(error);
  return error ? "?" : peer.address().to_string() + " port " + std::to_string(peer.port());
}

}  // namespace

session::session(asio::ip::tcp::socket connection, uint32_t client_id, machine_figures& machine,
                 limited_log& log, std::function<void()> tell_end)
    : socket(std::move(connection)),
      deadline(socket.get_executor()),
      id(client_id),
      peer(name_of(socket)),
      figures(machine),
      bad_peers(log),
      on_end(std::move(tell_end)) {
  asio::error_code ignored;
  socket.set_option(asio::ip::tcp::no_delay(true), ignored);
  // Finds out about a client whose machine went away without a word.
  socket.set_option(asio::socket_base::keep_alive(true), ignored);
  socket.set_option(asio::socket_base::send_buffer_size(send_buffer_size), ignored);
  socket.non_blocking(true, ignored);
}

void session::start() {
  read_more();
}

// Waits for a message to begin for as long as it takes, and for its rest until the deadline.
void session::read_more() {
  socket.async_read_some(asio::buffer(incoming.data() + filled, incoming.size() - filled),
                         [self = shared_from_this()](const asio::error_code& error, size_t length) {
                           if (self->over(error)) {
                             return;
                           }
                           self->filled += length;
                           self->take_message();
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
    begin_deadline();
    return read_more();
  }
  const uint8_t* first = incoming.data() + mon_protocol::header_size;
  if (!mon_protocol::crc_matches(request, first)) {
    return end("CRC of a request does not match");
  }
  payload.assign(first, first + request.length);
  finish_message();
  handle_request(request, payload, state, figures,
                 [self = shared_from_this()](const answer& result) { self->answer_with(result); });
}

// Drops the message at the front, and moves what came behind it there.
void session::finish_message() {
  const size_t length = mon_protocol::header_size + request.length;
  std::copy(incoming.begin() + length, incoming.begin() + filled, incoming.begin());
  filled -= length;
  if (std::exchange(deadline_runs, false)) {
    deadline.cancel();
  }
}

// The next request is taken only now, so answers leave in the order of their requests.
void session::answer_with(const answer& result) {
  if (ended) {
    return;
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
  mon_protocol::encode(head_of_answer, result.payload.data(), result.payload.size(), waiting);
  if (waiting.size() + outgoing.size() > most_unread) {
    return end("answers are not read");
  }
  send();
  if (ended) {
    return;
  }
  if (filled == 0) {
    return read_more();
  }
  asio::post(socket.get_executor(), [self = shared_from_this()] {
    if (!self->ended) {
      self->take_message();
    }
  });
}

// Most answers go at once; what the client does not read fast enough waits.
void session::send() {
  if (!outgoing.empty() || waiting.empty()) {
    return;
  }
  asio::error_code error;
  const size_t sent = socket.write_some(asio::buffer(waiting), error);
  if (error && error != asio::error::would_block) {
    return end("");
  }
  waiting.erase(waiting.begin(), waiting.begin() + static_cast<ptrdiff_t>(sent));
  if (waiting.empty()) {
    return;
  }
  outgoing.swap(waiting);
  asio::async_write(socket, asio::buffer(outgoing),
                    [self = shared_from_this()](const asio::error_code& failed, size_t) {
                      if (self->over(failed)) {
                        return;
                      }
                      self->outgoing.clear();
                      self->send();
                    });
}

// What had succeeded before the connection was closed is still delivered after it, and must not
// make the session hold anything again.
bool session::over(const asio::error_code& error) {
  if (error) {
    end("");
  }
  return ended;
}

void session::begin_deadline() {
  if (std::exchange(deadline_runs, true)) {
    return;
  }
  deadline.expires_after(message_limit);
  deadline.async_wait([weak = weak_from_this()](const asio::error_code& error) {
    const auto self = weak.lock();
    if (!error && self && self->deadline_runs) {
      self->end("a request was begun and not completed");
    }
  });
}

void session::end(const std::string& why) {
  if (ended) {
    return;
  }
  ended = true;
  if (!why.empty()) {
    bad_peers.write(log_priority::warning, "client " + peer + ": " + why + "; connection closed");
  }
  asio::error_code ignored;
  deadline.cancel();
  socket.close(ignored);
  release_session(state, figures);
  on_end();
}
