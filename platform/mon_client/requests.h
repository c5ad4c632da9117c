// How the client classes make their requests: locks, connection, decoding, text.
#ifndef REQUESTS_H
#define REQUESTS_H

#include <cerrno>
#include <cstdint>
#include <mutex>
#include <ostream>
#include <vector>

#include "client_comm.h"
#include "mon_protocol.h"
#include "request_handler.h"

namespace requests {

using ns_req_template::request_handler;

// Calls `use` with the connection while no other request of the object is under way.
template <class function>
int with_connection(request_handler& handler, function use) {
  const std::lock_guard<std::mutex> request_lock(handler.req_lock);
  if (!handler.client) {
    return -ENOTCONN;
  }
  const std::lock_guard<std::mutex> lock(handler.client->comm_lock);
  return use(*handler.client);
}

// Makes one request and, when the server granted it, calls `use` with the connection, which holds
// the answer. Returns the status, or what `use` returns.
template <class function>
int ask(request_handler& handler, uint16_t sub_command, const void* payload, size_t length,
        function use) {
  return with_connection(handler, [&](client_comm& comm) {
    const int ret =
        comm.request(static_cast<uint16_t>(handler.request_cmd), sub_command, payload, length);
    return ret < 0 ? ret : use(comm);
  });
}

// A request whose answer has no payload.
inline int order(request_handler& handler, uint16_t sub_command) {
  return ask(handler, sub_command, nullptr, 0, [](client_comm&) { return 0; });
}

// A request that makes the server hold something for this client, to be held again on a new
// connection.
inline int order_and_hold(request_handler& handler, uint16_t sub_command) {
  return ask(handler, sub_command, nullptr, 0, [&](client_comm& comm) {
    comm.hold(static_cast<uint16_t>(handler.request_cmd), sub_command);
    return 0;
  });
}

// The request `sub_command`, which lets go of what `held` made the server hold. That counts even
// when the server cannot be told.
inline int order_release(client_comm& comm, uint16_t command, uint16_t sub_command, uint16_t held) {
  comm.release(command, held);
  const int ret = comm.request(command, sub_command, nullptr, 0);
  return ret < 0 ? ret : 0;
}

// A request that is answered with at most `most` records; appends the text that `format` makes of
// them.
template <class record, class formatter>
int query(request_handler& handler, uint16_t sub_command, const void* payload, size_t length,
          size_t most, formatter format, std::ostream* os) {
  return ask(handler, sub_command, payload, length, [&](client_comm& comm) {
    std::vector<record> records;
    if (!mon_protocol::decode_records(comm.recv_buf, most, records)) {
      return comm.reject_answer();
    }
    *os << format(records);
    return 0;
  });
}

// Appends the text that `format` makes of an answer that must be exactly one record.
template <class record, class formatter>
int append_one(client_comm& comm, formatter format, std::ostream* os) {
  std::vector<record> records;
  if (!mon_protocol::decode_records(comm.recv_buf, 1, records) || records.empty()) {
    return comm.reject_answer();
  }
  *os << format(records.front());
  return 0;
}

}  // namespace requests

#endif
