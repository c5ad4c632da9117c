// SPDX-License-Identifier: Apache-2.0
// The connection: resolving, connecting, one request and its answer, each within a deadline.
//
// The server is taken for hostile, since anybody may listen on a local port first: lengths are
// bounded before they are used, the deadline is over the whole answer, and any doubt closes the
// connection.
#include "client_comm.h"

#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "mon_protocol.h"
#include "name_lookup.h"
#include "texts.h"

namespace {

constexpr int reconnect_ms = 300;

// The text of the last constructor that threw on this thread; what it threw points into it.
thread_local std::string thrown_text;

int64_t now_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

uint64_t wall_clock_us() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

// Waits until `events` are there. 0, or a negative errno.
int wait_for(int fd, short events, int64_t deadline_ms) {
  while (true) {
    const int64_t left_ms = deadline_ms - now_ms();
    if (left_ms <= 0) {
      return -ETIMEDOUT;
    }
    pollfd waiting{fd, events, 0};
    const int ready = poll(&waiting, 1, static_cast<int>(left_ms));
    if (ready > 0) {
      return 0;
    }
    if (ready < 0 && errno != EINTR) {
      return -errno;
    }
  }
}

int send_all(int fd, const std::vector<uint8_t>& bytes, int64_t deadline_ms) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t some = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (some >= 0) {
      sent += static_cast<size_t>(some);
    } else if (errno == EAGAIN) {
      const int ret = wait_for(fd, POLLOUT, deadline_ms);
      if (ret < 0) {
        return ret;
      }
    } else if (errno != EINTR) {
      return -errno;
    }
  }
  return 0;
}

// Receives `needed` bytes at least, `room` at most. Their number, or a negative errno.
ssize_t receive_some(int fd, uint8_t* bytes, size_t needed, size_t room, int64_t deadline_ms) {
  size_t received = 0;
  while (received < needed) {
    const int ret = wait_for(fd, POLLIN, deadline_ms);
    if (ret < 0) {
      return ret;
    }
    const ssize_t some = recv(fd, bytes + received, room - received, 0);
    if (some == 0) {
      return -ECONNRESET;
    }
    if (some > 0) {
      received += static_cast<size_t>(some);
    } else if (errno != EAGAIN && errno != EINTR) {
      return -errno;
    }
  }
  return static_cast<ssize_t>(received);
}

// A connected, non-blocking socket, or a negative errno.
int connect_socket(const socket_address& address, int64_t deadline_ms) {
  const int fd = socket(address.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return -errno;
  }
  int ret = 0;
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address.storage), address.length) != 0) {
    ret = -errno;
    if (ret == -EINPROGRESS || ret == -EINTR) {
      ret = wait_for(fd, POLLOUT, deadline_ms);
    }
    if (ret == 0) {
      int error = 0;
      socklen_t size = sizeof error;
      getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
      ret = -error;
    }
  }
  if (ret < 0) {
    close(fd);
    return ret;
  }
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return fd;
}

}  // namespace

client_comm::client_comm(const std::string& ip, int server_port) : ip_addr(ip), port(server_port) {
  std::string why;
  if (port < 1 || port > 65535) {
    why = "not a TCP port (1 to 65535)";
  } else if (connect_within(timeout, why) == 0) {
    return;
  }
  thrown_text = fmt::format("connect to {} port {}: {}", ip_addr, port, why);
  throw thrown_text.c_str();
}

client_comm::~client_comm() {
  disconnect();
}

void client_comm::disconnect() {
  if (fd >= 0) {
    close(fd);
  }
  fd = -1;
  client_id = 0;
  lacking.clear();
}

int client_comm::connect_within(int timeout_ms, std::string& why) {
  const int64_t deadline_ms = now_ms() + timeout_ms;
  if (addresses.empty()) {
    why = look_up(ip_addr, port, timeout_ms, addresses);
    if (!why.empty()) {
      return -EHOSTUNREACH;
    }
  }
  int ret = -EHOSTUNREACH;
  for (const socket_address& address : addresses) {
    ret = connect_socket(address, deadline_ms);
    if (ret >= 0) {
      break;
    }
  }
  if (ret < 0) {
    why = strerror(-ret);
    return ret;
  }
  fd = ret;
  ret = exchange(mon_protocol::cmd_connection, mon_protocol::connection_hello, nullptr, 0,
                 deadline_ms);
  if (ret < 0) {
    why = why_no_hello(ret);
    disconnect();
    return ret;
  }
  ++connections;
  return 0;
}

std::string client_comm::why_no_hello(int status) const {
  const bool answered = fd >= 0;
  if (answered && status == -EUSERS) {
    return texts::full_server();
  }
  if (!answered && (status == -ECONNRESET || status == -EPIPE)) {
    return "closed the connection without an answer (is it a monitor server?)";
  }
  return fmt::format("no monitor server answers there: {}", strerror(-status));
}

int client_comm::reconnect() {
  std::string why;
  const int64_t deadline_ms = now_ms() + reconnect_ms;
  const int ret = connect_within(reconnect_ms, why);
  if (ret < 0) {
    return ret;
  }
  const std::vector<sent_command> to_restore = held;
  for (const sent_command& command : to_restore) {
    const int status = exchange(command.command, command.sub_command, nullptr, 0, deadline_ms);
    if (fd < 0) {
      return status;
    }
    if (status == -EBUSY) {
      release(command.command, command.sub_command);  // it is another client's now
    }
  }
  return 0;
}

int client_comm::request(uint16_t command, uint16_t sub_command, const void* payload,
                         size_t length) {
  if (fd < 0) {
    const int ret = reconnect();
    if (ret < 0) {
      return ret;
    }
  }
  if (contains(lacking, command, sub_command)) {
    return -ENOSYS;
  }
  const int status = exchange(command, sub_command, payload, length, call_deadline_ms);
  if (status == -ENOSYS && fd >= 0) {
    lacking.push_back({command, sub_command});
  }
  return status;
}

void client_comm::begin_call() {
  call_deadline_ms = now_ms() + timeout;
}

int client_comm::left_ms() const {
  return static_cast<int>(call_deadline_ms - now_ms());
}

std::string client_comm::server_name() const {
  const bool ipv6 = ip_addr.find(':') != std::string::npos;
  return ipv6 ? fmt::format("[{}]:{}", ip_addr, port) : fmt::format("{}:{}", ip_addr, port);
}

int client_comm::reject_answer() {
  disconnect();
  return -EBADMSG;
}

// The answer's status, or a negative errno after which the connection is closed.
int client_comm::exchange(uint16_t command, uint16_t sub_command, const void* payload,
                          size_t length, int64_t deadline_ms) {
  mon_protocol::message_header asked{};
  asked.command = command;
  asked.sub_command = sub_command;
  asked.type = mon_protocol::type_request;
  asked.client_id = client_id;
  asked.timestamp_us = wall_clock_us();
  send_buf.clear();
  mon_protocol::encode(asked, payload, length, send_buf);

  mon_protocol::message_header answer{};
  int ret = send_all(fd, send_buf, deadline_ms);
  if (ret == 0) {
    ret = receive_answer(asked, answer, deadline_ms);
  }
  if (ret < 0) {
    disconnect();
    return ret;
  }
  client_id = answer.client_id;
  return answer.status;
}

int client_comm::receive_answer(const mon_protocol::message_header& asked,
                                mon_protocol::message_header& answer, int64_t deadline_ms) {
  // Room for most answers, the full process list among them, which then come with one read.
  uint8_t first[mon_protocol::header_size + 12 * 1024];
  ssize_t ret = receive_some(fd, first, mon_protocol::header_size, sizeof first, deadline_ms);
  if (ret < 0) {
    return static_cast<int>(ret);
  }
  const std::string bad = mon_protocol::decode_header(first, mon_protocol::type_answer,
                                                      mon_protocol::max_answer_payload, answer);
  if (!bad.empty() || answer.command != asked.command || answer.sub_command != asked.sub_command ||
      answer.timestamp_us != asked.timestamp_us) {
    return -EBADMSG;
  }
  const size_t got = static_cast<size_t>(ret) - mon_protocol::header_size;
  if (got > answer.length) {
    return -EBADMSG;  // nothing else has been asked
  }
  recv_buf.resize(answer.length);
  std::copy_n(first + mon_protocol::header_size, got, recv_buf.begin());
  const size_t missing = recv_buf.size() - got;
  ret = receive_some(fd, recv_buf.data() + got, missing, missing, deadline_ms);
  if (ret < 0) {
    return static_cast<int>(ret);
  }
  return mon_protocol::crc_matches(answer, recv_buf.data()) ? 0 : -EBADMSG;
}

bool client_comm::contains(const std::vector<sent_command>& list, uint16_t command,
                           uint16_t sub_command) {
  return std::any_of(list.begin(), list.end(), [&](const sent_command& one) {
    return one.command == command && one.sub_command == sub_command;
  });
}

bool client_comm::holds(uint16_t command, uint16_t sub_command) const {
  return contains(held, command, sub_command);
}

void client_comm::hold(uint16_t command, uint16_t sub_command) {
  release(command, sub_command);
  held.push_back({command, sub_command});
}

void client_comm::release(uint16_t command, uint16_t sub_command) {
  const auto is_it = [&](const sent_command& one) {
    return one.command == command && one.sub_command == sub_command;
  };
  held.erase(std::remove_if(held.begin(), held.end(), is_it), held.end());
}

int client_comm::back_client_id() {
  const std::lock_guard<std::mutex> lock(comm_lock);
  held.clear();
  if (fd < 0) {
    return -ENOTCONN;  // the server let go of everything when the connection went
  }
  return exchange(mon_protocol::cmd_connection, mon_protocol::connection_back_id, nullptr, 0,
                  now_ms() + timeout);
}
