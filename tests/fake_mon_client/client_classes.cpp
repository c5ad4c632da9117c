// SPDX-License-Identifier: Apache-2.0
// The members that the program uses of those which the client library's headers declare.
#include "bpu_ratio_manager.h"
#include "client_comm.h"
#include "cpu_stat_manager.h"
#include "fake_mon_client.h"
#include "net_stat_manager.h"
#include "peri_stat_manager.h"
#include "vio_info_manager.h"

using fake_mon_client::perform;

// Only a client object's constructor is recorded, not that of the connection which it makes.
client_comm::client_comm(const std::string& ip, int to_port) : ip_addr(ip), port(to_port) {}
client_comm::~client_comm() = default;

#define DEFINE_CLASS(class_name)                                    \
  class_name::class_name(const std::string& ip, int port)           \
      : request_handler(std::make_shared<client_comm>(ip, port)) {  \
    perform(#class_name, nullptr, ip + ' ' + std::to_string(port)); \
  }                                                                 \
  class_name::~class_name() {                                       \
    perform("~" #class_name);                                       \
  }
#define DEFINE_QUERY(class_name, operation)     \
  int class_name::operation(std::ostream* os) { \
    return perform(#operation, os);             \
  }
#define DEFINE_CONTROL(class_name, operation) \
  int class_name::operation() {               \
    return perform(#operation);               \
  }

DEFINE_CONTROL(client_comm, back_client_id)
DEFINE_CLASS(cpu_stat_manager)
DEFINE_QUERY(cpu_stat_manager, get_cpu_usage)
DEFINE_QUERY(cpu_stat_manager, get_perf_data)
DEFINE_CONTROL(cpu_stat_manager, enable_perf_mon)
DEFINE_CONTROL(cpu_stat_manager, disable_perf_mon)
DEFINE_CONTROL(cpu_stat_manager, cpu_mon_exit)
DEFINE_CLASS(peri_stat_manager)
DEFINE_QUERY(peri_stat_manager, get_all_thermal)
DEFINE_QUERY(peri_stat_manager, get_meminfo)
DEFINE_QUERY(peri_stat_manager, get_ion_info)
DEFINE_QUERY(peri_stat_manager, get_block_usage)
DEFINE_CLASS(bpu_ratio_manager)
DEFINE_QUERY(bpu_ratio_manager, get_bpu_ratio_all)
DEFINE_CLASS(vio_info_manager)
DEFINE_QUERY(vio_info_manager, sort_all_vio_fps)
DEFINE_CLASS(net_stat_manager)
DEFINE_QUERY(net_stat_manager, get_bandwidth_stat)
DEFINE_CONTROL(net_stat_manager, start_net_monitor)
DEFINE_CONTROL(net_stat_manager, exit_net_monitor)

int cpu_stat_manager::get_process_all(int mode, std::ostream* os) {
  return perform("get_process_all", os, std::to_string(mode));
}

int peri_stat_manager::get_partition_info(std::vector<const char*>& parts, std::ostream* os) {
  std::string paths;
  for (const char* path : parts) {
    paths += (paths.empty() ? "" : ",") + std::string(path);
  }
  return perform("get_partition_info", os, paths);
}
