// SPDX-License-Identifier: Apache-2.0
#include "vio_info_manager.h"

#include <utility>

#include "requests.h"
#include "text_tools.h"
#include "texts.h"

vio_info_manager::vio_info_manager() {
  request_cmd = mon_protocol::cmd_vio;
}

vio_info_manager::vio_info_manager(std::shared_ptr<client_comm> connection)
    : request_handler(std::move(connection)) {
  request_cmd = mon_protocol::cmd_vio;
}

vio_info_manager::vio_info_manager(const std::string& ip, int port)
    : vio_info_manager(std::make_shared<client_comm>(ip, port)) {}

vio_info_manager::~vio_info_manager() = default;

int vio_info_manager::sort_all_vio_fps(std::ostream* os) {
  return requests::query_records<vio_stat>(
      *this, {mon_protocol::cmd_vio, mon_protocol::vio_fps},
      {"VIO", texts::text_form::ended_line, text_tools::line_width()}, texts::vio, os);
}
