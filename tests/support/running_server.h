// The real server on a free loopback port, on a thread of the test.
#ifndef RUNNING_SERVER_H
#define RUNNING_SERVER_H

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "server.h"

class running_server {
 public:
  explicit running_server(const server_options& given = {}) : monitor(loop, on_any_port(given)) {
    const std::string problem = monitor.listen();
    if (!problem.empty()) {
      throw std::runtime_error(problem);
    }
    port = monitor.port();
    thread = std::thread([this] { loop.run(); });
  }
  ~running_server() {
    loop.stop();
    thread.join();
  }

  int port = 0;

 private:
  static server_options on_any_port(server_options options) {
    options.port = 0;
    return options;
  }

  asio::io_context loop{1};
  server monitor;
  std::thread thread;
};

// A plain TCP connection to it, whose reads give up after 20 s.
class raw_connection {
 public:
  explicit raw_connection(int port) : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const timeval patience{20, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("cannot connect");
    }
  }
  ~raw_connection() { close(fd); }
  raw_connection(const raw_connection&) = delete;
  raw_connection& operator=(const raw_connection&) = delete;

  // False when the server has closed the connection.
  bool write(const std::vector<uint8_t>& bytes) const {
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }

  // False when the server has closed the connection, or says nothing.
  bool read(void* bytes, size_t length) const {
    return length == 0 || recv(fd, bytes, length, MSG_WAITALL) == static_cast<ssize_t>(length);
  }

  // True when the server closes the connection, whatever it says before.
  bool closed_by_server() const {
    char bytes[4096];
    ssize_t got = 0;
    do {
      got = recv(fd, bytes, sizeof bytes, 0);
    } while (got > 0);
    return got == 0 || errno == ECONNRESET;
  }

  const int fd;
};

#endif
