// SPDX-License-Identifier: Apache-2.0
// The real server on a free loopback port, on a thread of the test.
#ifndef RUNNING_SERVER_H
#define RUNNING_SERVER_H

#include <asio/io_context.hpp>
#include <string>
#include <thread>

#include "server.h"

// A server that reads the files below `root` in place of the machine's own.
inline server_options reading(const std::string& root) {
  server_options options;
  options.sysroot = root;
  return options;
}

class running_server {
 public:
  explicit running_server(server_options options = {})
      : monitor(loop, (options.port = 0, options)), problem(monitor.listen()) {}
  ~running_server() {
    loop.stop();
    thread.join();
  }

 private:
  asio::io_context loop{1};
  server monitor;
  const std::string problem;

 public:
  const int port = monitor.port();  // 0 when it cannot listen

 private:
  std::thread thread{[this] { monitor.run(); }};
};

#endif
