// SPDX-License-Identifier: Apache-2.0
// Host names to socket addresses, within a deadline.
#ifndef NAME_LOOKUP_H
#define NAME_LOOKUP_H

#include <string>
#include <vector>

#include "client_comm.h"

// Looks `host` up and fills `addresses`. Returns an empty text, or why there are none. Numeric
// addresses are taken as they are. A name is asked for on a thread of its own, since a name server
// that is away can keep getaddrinfo(3) for half a minute; that thread is left behind past the
// deadline and ends with its answer.
std::string look_up(const std::string& host, int port, int timeout_ms,
                    std::vector<socket_address>& addresses);

#endif
