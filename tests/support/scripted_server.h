// SPDX-License-Identifier: Apache-2.0
// Loopback TCP for tests: a client that says what it likes, and a server whose every word a test
// decides.
#ifndef SCRIPTED_SERVER_H
#define SCRIPTED_SERVER_H

#include <asio/buffer.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/read.hpp>
#include <asio/write.hpp>
#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "mon_protocol.h"

using asio::ip::tcp;
using bytes = std::vector<uint8_t>;
using mon_protocol::message_header;

inline bytes message_of(const message_header& header, const bytes& payload = {}) {
  bytes message;
  mon_protocol::encode(header, payload.data(), payload.size(), message);
  return message;
}

// False when the other side has closed the connection.
inline bool read_message(tcp::socket& socket, message_header& header, bytes& payload) {
  asio::error_code error;
  asio::read(socket, asio::buffer(&header, sizeof header), error);
  payload.clear();
  if (!error) {
    payload.resize(header.length);
    asio::read(socket, asio::buffer(payload), error);
  }
  return !error;
}
inline bool read_message(tcp::socket& socket, message_header& header) {
  bytes payload;
  return read_message(socket, header, payload);
}
inline bool send_bytes(tcp::socket& socket, const bytes& message) {
  asio::error_code error;
  asio::write(socket, asio::buffer(message), error);
  return !error;
}

// Returns when the other side has closed the connection: how many bytes came until then.
inline size_t read_to_end(tcp::socket& socket) {
  asio::error_code error;
  size_t all = 0;
  for (bytes some(4096); !error;) {
    all += socket.read_some(asio::buffer(some), error);
  }
  return all;
}

class loopback_user {
 protected:
  static tcp::endpoint loopback(int port) {
    return {asio::ip::address_v4::loopback(), static_cast<uint16_t>(port)};
  }
  asio::io_context context;
};

struct raw_connection : loopback_user {
  enum when { at_once, later };
  explicit raw_connection(int to_port, when moment = at_once) : port(to_port) {
    socket.open(tcp::v4());
    if (moment == at_once) {
      connect();
    }
  }
  void connect() { socket.connect(loopback(port)); }
  const int port;
  tcp::socket socket{context};
};

// Handles one connection at a time with `serve`, which returns when it is done with it.
class scripted_server : loopback_user {
 public:
  explicit scripted_server(std::function<void(tcp::socket&)> serve)
      : thread([this, serve = std::move(serve)] {
          while (!stopping) {
            asio::error_code error;
            tcp::socket client = acceptor.accept(error);
            current = client.native_handle();
            if (!error) {
              serve(client);
            }
            current = -1;
          }
        }) {}
  ~scripted_server() {
    stopping = true;
    shutdown(acceptor.native_handle(), SHUT_RDWR);
    shutdown(current, SHUT_RDWR);
    thread.join();
  }

 private:
  tcp::acceptor acceptor{context, loopback(0)};
  std::atomic<bool> stopping{false};
  std::atomic<int> current{-1};

 public:
  const int port = acceptor.local_endpoint().port();

 private:
  std::thread thread;
};

#endif
