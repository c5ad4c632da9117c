// SPDX-License-Identifier: Apache-2.0
// Utilisation of the board's BPU cores.
#ifndef BPU_RATIO_MANAGER_H
#define BPU_RATIO_MANAGER_H

#include <memory>
#include <ostream>
#include <string>

#include "client_comm.h"
#include "request_handler.h"

class bpu_ratio_manager : public ns_req_template::request_handler {
 public:
  bpu_ratio_manager();
  explicit bpu_ratio_manager(std::shared_ptr<client_comm> connection);
  // Connects; throws a `const char*` text when that fails, as client_comm does.
  bpu_ratio_manager(const std::string& ip, int port);
  ~bpu_ratio_manager();

  // Appends the utilisation of the BPU cores, side by side, in at most 2 lines, each ended; the
  // busiest first where there is no room for all.
  int get_bpu_ratio_all(std::ostream* os);
};

#endif
