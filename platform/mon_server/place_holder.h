// SPDX-License-Identifier: Apache-2.0
// Who has a place at the server: of one address, or of one user of this machine.
#ifndef PLACE_HOLDER_H
#define PLACE_HOLDER_H

#include <asio/ip/tcp.hpp>
#include <cstdint>
#include <string>

struct place_holder {
  // Of the address: IPv4 all of it; IPv6 the first 64 bits, since whoever has one has them all.
  std::string network;
  // User id of the process at the other end when that is on this machine, -1 otherwise.
  int64_t user = -1;
};

// The holder at the other end of a connection.
place_holder holder_of(const asio::ip::tcp::socket& connection);

#endif
