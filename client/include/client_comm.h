// SPDX-License-Identifier: Apache-2.0
// One connection of a client object to the monitor server.
#ifndef CLIENT_COMM_H
#define CLIENT_COMM_H

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace mon_protocol {
struct message_header;
}

struct socket_address {
  sockaddr_storage storage{};
  socklen_t length = 0;
};

// Any thread may use a client_comm; requests on one take turns.
class client_comm {
 public:
  // Connects to the monitor server at `ip` (a numeric IPv4 or IPv6 address or a host name) and
  // `port`, and makes sure that it speaks this library's protocol; 2 s at most in all. Throws a
  // `const char*` that says what failed, and where the server is full that it is, such as
  // "connect to 127.0.0.1 port 1234: Connection refused"; the text stays valid until the same
  // thread constructs another one.
  client_comm(const std::string& ip, int port);
  ~client_comm();
  client_comm(const client_comm&) = delete;
  client_comm& operator=(const client_comm&) = delete;

  // Hands this client's id back to the server, which lets go of all that it held for this
  // connection. 0, or a negative errno.
  int back_client_id();

  // Starts the time that the requests of one call may take together. The caller holds `comm_lock`.
  void begin_call();
  // What is left of it, in ms.
  int left_ms() const;

  // Sends one request and receives its answer, whose payload is then in `recv_buf`; the caller
  // holds `comm_lock`. Returns the answer's status, or a negative errno: -ETIMEDOUT once `timeout`
  // has passed since begin_call(), -ECONNRESET and its like on a broken connection, -EBADMSG for
  // bytes that are no answer. After such an error the connection is closed (`fd` is -1), and the
  // next request connects again, once and for 300 ms at most, and replays `held` first; -EUSERS
  // when the server has no place for it. What a connection answered with -ENOSYS is not sent over
  // it again: an older server lacks it.
  int request(uint16_t command, uint16_t sub_command, const void* payload, size_t length);

  // Closes the connection after an answer whose payload makes no sense; -EBADMSG. The caller holds
  // `comm_lock`.
  int reject_answer();

  // Notes that the server holds something for this client since the given command succeeded
  // (`hold`), or no longer does (`release`). The caller holds `comm_lock`.
  void hold(uint16_t command, uint16_t sub_command);
  void release(uint16_t command, uint16_t sub_command);
  bool holds(uint16_t command, uint16_t sub_command) const;

  // "127.0.0.1:1234", "[::1]:1234".
  std::string server_name() const;

  std::string ip_addr;
  int port;
  int timeout = 2000;  // ms that one call may take

  std::mutex comm_lock;  // guards what follows
  std::vector<uint8_t> send_buf;
  std::vector<uint8_t> recv_buf;  // payload of the last answer
  int fd = -1;                    // -1 while not connected
  uint32_t client_id = 0;         // given by the server, 0 before
  uint32_t connections = 0;       // made so far: another one is another session of the server

 private:
  struct sent_command {
    uint16_t command;
    uint16_t sub_command;
  };
  static bool contains(const std::vector<sent_command>& list, uint16_t command,
                       uint16_t sub_command);
  std::string why_no_hello(int status) const;

  int connect_within(int timeout_ms, std::string& why);
  int reconnect();
  int exchange(uint16_t command, uint16_t sub_command, const void* payload, size_t length,
               int64_t deadline_ms);
  int receive_answer(const mon_protocol::message_header& asked,
                     mon_protocol::message_header& answer, int64_t deadline_ms);
  void disconnect();

  int64_t call_deadline_ms = 0;           // of the call under way, on the monotonic clock
  std::vector<sent_command> held;         // replayed on a new connection, in this order
  std::vector<sent_command> lacking;      // answered -ENOSYS on this connection
  std::vector<socket_address> addresses;  // kept, so that reconnecting asks no name server
};

#endif
