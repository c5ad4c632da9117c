// SPDX-License-Identifier: Apache-2.0
// The TCP sockets of this network namespace and what went through them: sock_diag(7).
#ifndef SAMPLERS_SOCKET_DUMP_H
#define SAMPLERS_SOCKET_DUMP_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "samplers/file_descriptor.h"

namespace samplers {

struct tcp_socket {
  uint64_t cookie = 0;  // the kernel's number of it, never used again
  uint32_t inode = 0;   // as in the target of a descriptor, "socket:[INODE]"
  uint64_t bytes =
      0;  // received, and sent and acknowledged; the SYN and the FIN count as a byte each
};

// Takes one answer of the kernel apart. Adds its sockets; sockets without byte counts (listening,
// or an older kernel's) are left out. 0 while more answers follow, 1 after the last, or a negative
// errno.
int parse_socket_dump(const void* answer, size_t size, std::vector<tcp_socket>& sockets);

class socket_dump {
 public:
  // All connected sockets, IPv4 and IPv6. 0 or a negative errno: -ENOENT without tcp_diag.
  int read(std::vector<tcp_socket>& sockets);

 private:
  int open();
  int request();
  int receive(std::vector<tcp_socket>& sockets);

  file_descriptor netlink;  // kept open
  std::vector<char> buffer;
};

}  // namespace samplers

#endif
