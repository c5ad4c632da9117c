#include "peri_stat_manager.h"

#include <cstring>
#include <utility>

#include "requests.h"
#include "texts.h"

namespace {

constexpr size_t most_zones = 512;  // 256 zones and 256 cooling devices
constexpr size_t most_heaps = 64;
constexpr size_t most_parts = 16;
constexpr size_t most_devices = 256;

}  // namespace

peri_stat_manager::peri_stat_manager() {
  request_cmd = mon_protocol::cmd_peri;
}

peri_stat_manager::peri_stat_manager(std::shared_ptr<client_comm> connection)
    : request_handler(std::move(connection)) {
  request_cmd = mon_protocol::cmd_peri;
}

peri_stat_manager::peri_stat_manager(const std::string& ip, int port)
    : peri_stat_manager(std::make_shared<client_comm>(ip, port)) {}

peri_stat_manager::~peri_stat_manager() = default;

int peri_stat_manager::get_all_thermal(std::ostream* os) {
  return requests::query<thermal_stat>(*this, mon_protocol::peri_thermal, nullptr, 0, most_zones,
                                       texts::thermal, os);
}

int peri_stat_manager::get_meminfo(std::ostream* os) {
  return requests::ask(*this, mon_protocol::peri_meminfo, nullptr, 0, [&](client_comm& comm) {
    return requests::append_one<meminfo>(comm, texts::memory, os);
  });
}

int peri_stat_manager::get_ion_info(std::ostream* os) {
  return requests::query<ion_info>(*this, mon_protocol::peri_ion, nullptr, 0, most_heaps,
                                   texts::ion, os);
}

int peri_stat_manager::get_partition_info(std::vector<const char*>& parts, std::ostream* os) {
  std::vector<char> paths;
  for (const char* part : parts) {
    const size_t length = std::strlen(part);
    if (length >= sizeof(part_info::part_name) || parts.size() > most_parts) {
      return -EINVAL;
    }
    paths.insert(paths.end(), part, part + length);
    paths.resize(paths.size() + sizeof(part_info::part_name) - length, '\0');
  }
  return requests::query<part_info>(*this, mon_protocol::peri_partitions, paths.data(),
                                    paths.size(), most_parts, texts::partitions, os);
}

int peri_stat_manager::get_block_usage(std::ostream* os) {
  return requests::query<block_stat>(*this, mon_protocol::peri_blocks, nullptr, 0, most_devices,
                                     texts::blocks, os);
}
