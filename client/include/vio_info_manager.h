// SPDX-License-Identifier: Apache-2.0
// Frame rates of the board's VIO pipelines.
#ifndef VIO_INFO_MANAGER_H
#define VIO_INFO_MANAGER_H

#include <memory>
#include <ostream>
#include <string>

#include "client_comm.h"
#include "request_handler.h"

class vio_info_manager : public ns_req_template::request_handler {
 public:
  vio_info_manager();
  explicit vio_info_manager(std::shared_ptr<client_comm> connection);
  // Connects; throws a `const char*` text when that fails, as client_comm does.
  vio_info_manager(const std::string& ip, int port);
  ~vio_info_manager();

  // Appends a header line, then a line a pipeline, fastest first, each ended.
  int sort_all_vio_fps(std::ostream* os);
};

#endif
