// SPDX-License-Identifier: Apache-2.0
#include "peri_stat_manager.h"

#include <cstring>
#include <sstream>
#include <utility>

#include "requests.h"
#include "text_tools.h"
#include "texts.h"

namespace {

// A query of this family.
requests::request peri_request(uint16_t sub_command) {
  return {mon_protocol::cmd_peri, sub_command};
}

requests::text_place line_of(const char* name) {
  return {name, texts::text_form::line, text_tools::line_width()};
}

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
  return requests::query_records<thermal_stat>(*this, peri_request(mon_protocol::peri_thermal),
                                               line_of("Thermal"), texts::thermal, os);
}

int peri_stat_manager::get_meminfo(std::ostream* os) {
  const size_t width = texts::memory_width(text_tools::line_width(), ion_wanted);
  std::ostringstream text;
  const int ret = requests::query(
      *this, {"Mem", texts::text_form::brackets, width}, &text, [&](client_comm& comm) {
        std::vector<meminfo> info;
        const int status =
            requests::ask_records(comm, peri_request(mon_protocol::peri_meminfo), info, 1);
        if (status == 0) {
          text << texts::memory(info.front(), width);
        }
        return status;
      });
  memory_columns = text.str().size();
  *os << text.str();
  return ret;
}

int peri_stat_manager::get_ion_info(std::ostream* os) {
  const size_t width = texts::ion_width(text_tools::line_width(), memory_columns);
  return requests::query_records<ion_info>(
      *this, peri_request(mon_protocol::peri_ion), {"ION", texts::text_form::brackets, width},
      [this](const std::vector<ion_info>& heaps, size_t columns) {
        ion_wanted = texts::ion(heaps, SIZE_MAX).size();
        return texts::ion(heaps, columns);
      },
      os);
}

int peri_stat_manager::get_partition_info(std::vector<const char*>& parts, std::ostream* os) {
  const requests::text_place place = line_of("Partitions");
  std::vector<char> paths;
  for (const char* part : parts) {
    const size_t length = std::strlen(part);
    if (length >= sizeof(part_info::part_name) ||
        parts.size() > mon_fields::description<part_info>::most) {
      *os << texts::failure({place.name, place.form, -EINVAL, false, ""}, place.width);
      return -EINVAL;
    }
    paths.insert(paths.end(), part, part + length);
    paths.resize(paths.size() + sizeof(part_info::part_name) - length, '\0');
  }
  requests::request asked = peri_request(mon_protocol::peri_partitions);
  asked.payload = paths.data();
  asked.length = paths.size();
  return requests::query_records<part_info>(*this, asked, place, texts::partitions, os);
}

int peri_stat_manager::get_block_usage(std::ostream* os) {
  return requests::query_records<block_stat>(*this, peri_request(mon_protocol::peri_blocks),
                                             line_of("Block"), texts::blocks, os);
}
