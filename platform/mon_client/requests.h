// SPDX-License-Identifier: Apache-2.0
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
#include "texts.h"

namespace requests {

using ns_req_template::request_handler;

// What to ask for.
struct request {
  uint16_t command;
  uint16_t sub_command;
  const void* payload = nullptr;
  size_t length = 0;
};

// Calls `use` with the connection while no other request of the object is under way.
template <class function>
int with_connection(request_handler& handler, function use) {
  const std::lock_guard<std::mutex> request_lock(handler.req_lock);
  if (!handler.client) {
    return -ENOTCONN;
  }
  const std::lock_guard<std::mutex> lock(handler.client->comm_lock);
  handler.client->begin_call();
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
inline int command(request_handler& handler, uint16_t sub_command) {
  return ask(handler, sub_command, nullptr, 0, [](client_comm&) { return 0; });
}

// A request that makes the server hold something for this client, to be held again on a new
// connection.
inline int command_and_hold(request_handler& handler, uint16_t sub_command) {
  return ask(handler, sub_command, nullptr, 0, [&](client_comm& comm) {
    comm.hold(static_cast<uint16_t>(handler.request_cmd), sub_command);
    return 0;
  });
}

// The request `sub_command`, which lets go of what `held` made the server hold. That counts even
// when the server cannot be told.
inline int command_release(client_comm& comm, uint16_t command, uint16_t sub_command,
                           uint16_t held) {
  comm.release(command, held);
  const int ret = comm.request(command, sub_command, nullptr, 0);
  return ret < 0 ? ret : 0;
}

// How the text of a query begins and ends, and how wide it may be, should it fail.
struct text_place {
  const char* name;
  texts::text_form form;
  size_t width;
};

// Calls `use` with the connection while no other request of the object is under way: it makes a
// query and appends its text. Where that fails, appends the line that says why.
template <class function>
int query(request_handler& handler, const text_place& place, std::ostream* os, function use) {
  bool asked = false;
  const int ret = with_connection(handler, [&](client_comm& comm) {
    asked = true;
    const int status = use(comm);
    if (status < 0) {
      *os << texts::failure({place.name, place.form, status, comm.fd >= 0, comm.server_name()},
                            place.width);
    }
    return status;
  });
  if (!asked) {
    *os << texts::failure({place.name, place.form, ret, false, ""}, place.width);
  }
  return ret;
}

// Asks for as many records as an answer may have, `least` at least.
template <class record>
int ask_records(client_comm& comm, const request& asked, std::vector<record>& records,
                size_t least = 0) {
  const int ret = comm.request(asked.command, asked.sub_command, asked.payload, asked.length);
  if (ret < 0) {
    return ret;
  }
  const bool good = mon_protocol::decode_records(comm.recv_buf, records);
  return good && records.size() >= least ? 0 : comm.reject_answer();
}

// Asks for records and appends the text that `format` makes of them and of the place's width.
template <class record, class formatter>
int query_records(request_handler& handler, const request& asked, const text_place& place,
                  formatter format, std::ostream* os) {
  return query(handler, place, os, [&](client_comm& comm) {
    std::vector<record> records;
    const int ret = ask_records(comm, asked, records);
    if (ret == 0) {
      *os << format(records, place.width);
    }
    return ret;
  });
}

}  // namespace requests

#endif
