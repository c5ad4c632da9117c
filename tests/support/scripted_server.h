// A TCP server on a free loopback port whose every word a test decides.
#ifndef SCRIPTED_SERVER_H
#define SCRIPTED_SERVER_H

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "mon_protocol.h"

// One request as it arrived.
struct received_request {
  mon_protocol::message_header header{};
  std::vector<uint8_t> payload;
};

inline bool read_fully(int fd, void* bytes, size_t length) {
  return length == 0 || recv(fd, bytes, length, MSG_WAITALL) == static_cast<ssize_t>(length);
}

inline bool read_request(int fd, received_request& request) {
  if (!read_fully(fd, &request.header, sizeof request.header)) {
    return false;
  }
  request.payload.resize(request.header.length);
  return read_fully(fd, request.payload.data(), request.payload.size());
}

inline std::vector<uint8_t> answer_to(const received_request& request, int32_t status = 0,
                                      const std::vector<uint8_t>& payload = {}) {
  mon_protocol::message_header header = request.header;
  header.type = mon_protocol::type_answer;
  header.status = status;
  header.client_id = 1;
  std::vector<uint8_t> message;
  mon_protocol::encode(header, payload.data(), payload.size(), message);
  return message;
}

inline void send_bytes(int fd, const std::vector<uint8_t>& bytes) {
  send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

// Handles one connection at a time with `serve`, which gets the descriptor and returns when it is
// done with it.
class scripted_server {
 public:
  explicit scripted_server(std::function<void(int)> serve_one) : serve(std::move(serve_one)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        listen(listener, 16) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
      throw std::runtime_error("no loopback port");
    }
    port = ntohs(address.sin_port);
    thread = std::thread([this] { run(); });
  }

  ~scripted_server() {
    stopping = true;
    shutdown(listener, SHUT_RDWR);
    {
      const std::lock_guard<std::mutex> guard(lock);
      shutdown(current, SHUT_RDWR);
    }
    thread.join();
    close(listener);
  }

  int port = 0;

 private:
  void run() {
    while (!stopping) {
      const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) {
        continue;
      }
      {
        const std::lock_guard<std::mutex> guard(lock);
        current = fd;
      }
      serve(fd);
      const std::lock_guard<std::mutex> guard(lock);
      current = -1;
      close(fd);
    }
  }

  std::function<void(int)> serve;
  int listener = -1;
  std::atomic<bool> stopping{false};
  std::mutex lock;  // guards current
  int current = -1;
  std::thread thread;
};

#endif
