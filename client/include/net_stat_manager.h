// SPDX-License-Identifier: Apache-2.0
// Network bandwidth by device.
#ifndef NET_STAT_MANAGER_H
#define NET_STAT_MANAGER_H

#include <memory>
#include <ostream>
#include <string>

#include "client_comm.h"
#include "request_handler.h"

class net_stat_manager : public ns_req_template::request_handler {
 public:
  net_stat_manager();
  explicit net_stat_manager(std::shared_ptr<client_comm> connection);
  // Connects; throws a `const char*` text when that fails, as client_comm does.
  net_stat_manager(const std::string& ip, int port);
  ~net_stat_manager();

  // Starts network monitoring for this client; call it once, before the first get_bandwidth_stat.
  int start_net_monitor();

  // Appends what the network devices received and sent since the last call (their sum, where an
  // older server knows no more), side by side, those with traffic first, in at most 3 lines, each
  // ended.
  int get_bandwidth_stat(std::ostream* os);

  // Stops network monitoring for this client.
  int exit_net_monitor();
};

#endif
