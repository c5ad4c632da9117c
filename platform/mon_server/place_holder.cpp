// SPDX-License-Identifier: Apache-2.0
#include "place_holder.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstring>

#include "samplers/file_descriptor.h"

namespace {

using asio::ip::tcp;

// The user of the socket that has these two ends, -1 when this machine has none: sock_diag(7). One
// look-up in the kernel's table, some 10 us.
int64_t user_of_socket(const tcp::endpoint& local, const tcp::endpoint& remote) {
  struct {
    nlmsghdr head;
    inet_diag_req_v2 body;
  } request{};
  request.head.nlmsg_len = sizeof request;
  request.head.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  request.head.nlmsg_flags = NLM_F_REQUEST;
  request.body.sdiag_family = static_cast<uint8_t>(local.data()->sa_family);
  request.body.sdiag_protocol = IPPROTO_TCP;
  request.body.idiag_states = ~0U;
  request.body.id.idiag_sport = htons(local.port());
  request.body.id.idiag_dport = htons(remote.port());
  request.body.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
  request.body.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  const auto copy_address = [](const tcp::endpoint& end, uint32_t* words) {
    if (end.address().is_v4()) {
      const auto bytes = end.address().to_v4().to_bytes();
      std::memcpy(words, bytes.data(), bytes.size());
    } else {
      const auto bytes = end.address().to_v6().to_bytes();
      std::memcpy(words, bytes.data(), bytes.size());
    }
  };
  copy_address(local, request.body.id.idiag_src);
  copy_address(remote, request.body.id.idiag_dst);

  const samplers::file_descriptor netlink(
      socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  struct {
    nlmsghdr head;
    inet_diag_msg body;
  } answer{};
  // The kernel answers within the call.
  if (!netlink || send(netlink.get(), &request, sizeof request, 0) < 0 ||
      recv(netlink.get(), &answer, sizeof answer, MSG_DONTWAIT) <
          static_cast<ssize_t>(sizeof answer) ||
      answer.head.nlmsg_type != SOCK_DIAG_BY_FAMILY) {
    return -1;
  }
  return answer.body.idiag_uid;
}

std::string network_of(const asio::ip::address& address) {
  if (address.is_v4()) {
    return address.to_string();
  }
  const asio::ip::address_v6 v6 = address.to_v6();
  if (v6.is_v4_mapped()) {
    return make_address_v4(asio::ip::v4_mapped, v6).to_string();
  }
  const auto bytes = v6.to_bytes();
  return {bytes.begin(), bytes.begin() + 8};
}

}  // namespace

place_holder holder_of(const tcp::socket& connection) {
  asio::error_code error;
  const tcp::endpoint here = connection.local_endpoint(error);
  const tcp::endpoint there = error ? tcp::endpoint() : connection.remote_endpoint(error);
  if (error) {
    return {};
  }
  // The two ends change places: the client's socket is asked for.
  return {network_of(there.address()), user_of_socket(there, here)};
}
