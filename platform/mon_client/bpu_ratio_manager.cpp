// SPDX-License-Identifier: Apache-2.0
#include "bpu_ratio_manager.h"

#include <utility>

#include "requests.h"
#include "text_tools.h"
#include "texts.h"

bpu_ratio_manager::bpu_ratio_manager() {
  request_cmd = mon_protocol::cmd_bpu;
}

bpu_ratio_manager::bpu_ratio_manager(std::shared_ptr<client_comm> connection)
    : request_handler(std::move(connection)) {
  request_cmd = mon_protocol::cmd_bpu;
}

bpu_ratio_manager::bpu_ratio_manager(const std::string& ip, int port)
    : bpu_ratio_manager(std::make_shared<client_comm>(ip, port)) {}

bpu_ratio_manager::~bpu_ratio_manager() = default;

int bpu_ratio_manager::get_bpu_ratio_all(std::ostream* os) {
  return requests::query_records<bpu_stat>(
      *this, {mon_protocol::cmd_bpu, mon_protocol::bpu_ratio},
      {"BPU", texts::text_form::ended_line, text_tools::line_width()}, texts::bpu, os);
}
