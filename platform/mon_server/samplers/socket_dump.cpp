// SPDX-License-Identifier: Apache-2.0
#include "samplers/socket_dump.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>

namespace samplers {
namespace {

// The kernel's states of TCP, which no exported header has.
constexpr uint32_t tcp_established = 1;
constexpr uint32_t tcp_fin_wait1 = 4;
constexpr uint32_t tcp_fin_wait2 = 5;
constexpr uint32_t tcp_close_wait = 8;
constexpr uint32_t tcp_last_ack = 9;
constexpr uint32_t tcp_closing = 11;
constexpr uint32_t states_with_data = 1U << tcp_established | 1U << tcp_fin_wait1 |
                                      1U << tcp_fin_wait2 | 1U << tcp_close_wait |
                                      1U << tcp_last_ack | 1U << tcp_closing;

// The kernel fills answers of up to 32 KiB when there is room (netlink(7)).
constexpr size_t buffer_size = 32 * 1024;

// Takes the part of `T` that `size` bytes at `bytes` hold; what an older kernel leaves out is 0.
template <typename T>
T copy_of(const char* bytes, size_t size) {
  T value{};
  std::memcpy(&value, bytes, size < sizeof value ? size : sizeof value);
  return value;
}

// Walks the attributes after a socket's record. False when there are no byte counts.
bool find_bytes(const char* attributes, size_t size, uint64_t& bytes) {
  constexpr size_t counts_end =
      offsetof(tcp_info, tcpi_bytes_received) + sizeof(tcp_info::tcpi_bytes_received);
  while (size >= sizeof(rtattr)) {
    const auto head = copy_of<rtattr>(attributes, sizeof(rtattr));
    if (head.rta_len < sizeof(rtattr) || head.rta_len > size) {
      return false;
    }
    const size_t length = head.rta_len - sizeof(rtattr);
    if (head.rta_type == INET_DIAG_INFO && length >= counts_end) {
      const auto info = copy_of<tcp_info>(attributes + sizeof(rtattr), length);
      bytes = info.tcpi_bytes_acked + info.tcpi_bytes_received;
      return true;
    }
    const size_t step = RTA_ALIGN(head.rta_len);
    if (step >= size) {
      return false;
    }
    attributes += step;
    size -= step;
  }
  return false;
}

void take_socket(const char* payload, size_t size, std::vector<tcp_socket>& sockets) {
  if (size < sizeof(inet_diag_msg)) {
    return;
  }
  const auto message = copy_of<inet_diag_msg>(payload, size);
  tcp_socket found;
  found.cookie = uint64_t{message.id.idiag_cookie[1]} << 32 | message.id.idiag_cookie[0];
  found.inode = message.idiag_inode;
  const size_t attributes = NLMSG_ALIGN(sizeof message);
  // A socket that no process has open any more has inode 0.
  const bool open = found.inode != 0;
  if (open && size > attributes &&
      find_bytes(payload + attributes, size - attributes, found.bytes)) {
    sockets.push_back(found);
  }
}

}  // namespace

int parse_socket_dump(const void* answer, size_t size, std::vector<tcp_socket>& sockets) {
  const char* bytes = static_cast<const char*>(answer);
  while (size >= sizeof(nlmsghdr)) {
    const auto head = copy_of<nlmsghdr>(bytes, sizeof(nlmsghdr));
    if (head.nlmsg_len < sizeof(nlmsghdr) || head.nlmsg_len > size) {
      return -EBADMSG;
    }
    const char* payload = bytes + NLMSG_HDRLEN;
    const size_t length = head.nlmsg_len - sizeof(nlmsghdr);
    if (head.nlmsg_type == NLMSG_DONE) {
      return 1;
    }
    if (head.nlmsg_type == NLMSG_ERROR) {
      const auto error = copy_of<nlmsgerr>(payload, length);
      return error.error < 0 ? error.error : -EPROTO;
    }
    if (head.nlmsg_type == TCPDIAG_GETSOCK) {
      take_socket(payload, length, sockets);
    }
    const size_t step = NLMSG_ALIGN(head.nlmsg_len);
    if (step >= size) {
      return 0;
    }
    bytes += step;
    size -= step;
  }
  return size == 0 ? 0 : -EBADMSG;
}

int socket_dump::read(std::vector<tcp_socket>& sockets) {
  sockets.clear();
  int result = netlink ? 0 : open();
  result = result == 0 ? request() : result;
  result = result == 0 ? receive(sockets) : result;
  if (result != 0) {
    netlink = file_descriptor();  // what it may still answer is of no use
  }
  return result;
}

int socket_dump::open() {
  netlink = file_descriptor(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  // The kernel answers within the call; this is for a kernel that does not.
  const timeval limit{0, 500000};
  if (!netlink || setsockopt(netlink.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0) {
    return -errno;
  }
  buffer.resize(buffer_size);
  return 0;
}

// The older of the two requests, since one pass over the kernel's table then serves IPv4 and IPv6;
// the pass is most of the cost.
int socket_dump::request() {
  struct {
    nlmsghdr head;
    inet_diag_req body;
  } message{};
  message.head.nlmsg_len = sizeof message;
  message.head.nlmsg_type = TCPDIAG_GETSOCK;
  message.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  message.body.idiag_ext = 1 << (INET_DIAG_INFO - 1);
  message.body.idiag_states = states_with_data;
  return send(netlink.get(), &message, sizeof message, 0) < 0 ? -errno : 0;
}

int socket_dump::receive(std::vector<tcp_socket>& sockets) {
  for (;;) {
    const ssize_t size = recv(netlink.get(), buffer.data(), buffer.size(), 0);
    if (size < 0) {
      return -errno;
    }
    const int result = parse_socket_dump(buffer.data(), static_cast<size_t>(size), sockets);
    if (result != 0) {
      return result > 0 ? 0 : result;
    }
  }
}

}  // namespace samplers
