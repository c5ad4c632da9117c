#include "net_stat_manager.h"

#include <utility>

#include "requests.h"
#include "texts.h"

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
  return requests::order_and_hold(*this, mon_protocol::net_start);
}

int net_stat_manager::get_bandwidth_stat(std::ostream* os) {
  constexpr size_t most_devices = 512;
  return requests::query<net_stat>(*this, mon_protocol::net_bandwidth, nullptr, 0, most_devices,
                                   texts::net, os);
}

int net_stat_manager::exit_net_monitor() {
  return requests::with_connection(*this, [](client_comm& comm) {
    return requests::order_release(comm, mon_protocol::cmd_net, mon_protocol::net_exit,
                                   mon_protocol::net_start);
  });
}
