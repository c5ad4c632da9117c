// SPDX-License-Identifier: Apache-2.0
#include "net_stat_manager.h"

#include <utility>

#include "requests.h"
#include "text_tools.h"
#include "texts.h"

namespace {

template <class record>
int append_devices(client_comm& comm, uint16_t sub_command, const requests::text_place& place,
                   std::ostream* os) {
  std::vector<record> devices;
  const int ret = requests::ask_records(comm, {mon_protocol::cmd_net, sub_command}, devices);
  if (ret == 0) {
    *os << texts::net(devices, place.width);
  }
  return ret;
}

}  // namespace

net_stat_manager::net_stat_manager() {
  request_cmd = mon_protocol::cmd_net;
}

net_stat_manager::net_stat_manager(std::shared_ptr<client_comm> connection)
    : request_handler(std::move(connection)) {
  request_cmd = mon_protocol::cmd_net;
}

net_stat_manager::net_stat_manager(const std::string& ip, int port)
    : net_stat_manager(std::make_shared<client_comm>(ip, port)) {}

net_stat_manager::~net_stat_manager() = default;

int net_stat_manager::start_net_monitor() {
  return requests::command_and_hold(*this, mon_protocol::net_start);
}

int net_stat_manager::get_bandwidth_stat(std::ostream* os) {
  const requests::text_place place{"Net", texts::text_form::ended_line, text_tools::line_width()};
  return requests::query(*this, place, os, [&](client_comm& comm) {
    const int ret = append_devices<net_traffic>(comm, mon_protocol::net_by_direction, place, os);
    // An older server has the sums of both directions only.
    return ret == -ENOSYS ? append_devices<net_stat>(comm, mon_protocol::net_bandwidth, place, os)
                          : ret;
  });
}

int net_stat_manager::exit_net_monitor() {
  return requests::with_connection(*this, [](client_comm& comm) {
    return requests::command_release(comm, mon_protocol::cmd_net, mon_protocol::net_exit,
                                     mon_protocol::net_start);
  });
}
