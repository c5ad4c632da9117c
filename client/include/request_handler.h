// SPDX-License-Identifier: Apache-2.0
// What the client classes share: a connection, and one request at a time.
#ifndef REQUEST_HANDLER_H
#define REQUEST_HANDLER_H

#include <memory>
#include <mutex>
#include <utility>

class client_comm;

namespace ns_req_template {

// Base of the client classes. Each of their operations may be called from any thread; calls on one
// object take turns, and none takes longer than the connection's time-out.
//
// Unless an operation says otherwise, its `int` result is 0, or a negative errno when the server
// refused (its status) or could not be asked (-ETIMEDOUT, -ECONNRESET, -EBADMSG, ...).
//
// Text is laid out for the terminal on standard output as it is at the call: no line is wider than
// it less one column, at most 117 columns, which it also is where there is no terminal. One that
// does not say its width, as on a serial line, has that of COLUMNS, else 80. What does not fit is
// counted ("+57"). A query appends its figures only when the whole answer was good. When
// it failed it appends one short line in their place, which says why, such as
// "CPU  no answer from 127.0.0.1:1234: Connection refused".
class request_handler {
 public:
  request_handler() = default;
  explicit request_handler(std::shared_ptr<client_comm> connection)
      : client(std::move(connection)) {}

  std::shared_ptr<client_comm>
      client;           // empty in a default-constructed object: calls give -ENOTCONN
  int request_cmd = 0;  // the command that this class's requests carry
  std::mutex req_lock;  // held for one call
  request_handler* manager = nullptr;  // the handler that this one works for, if any
};

}  // namespace ns_req_template

#endif
