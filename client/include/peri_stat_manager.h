// SPDX-License-Identifier: Apache-2.0
// Temperatures, memory, ION memory, partitions and block devices.
#ifndef PERI_STAT_MANAGER_H
#define PERI_STAT_MANAGER_H

#include <atomic>
#include <cstddef>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "client_comm.h"
#include "request_handler.h"

class peri_stat_manager : public ns_req_template::request_handler {
 public:
  peri_stat_manager();
  explicit peri_stat_manager(std::shared_ptr<client_comm> connection);
  // Connects; throws a `const char*` text when that fails, as client_comm does.
  peri_stat_manager(const std::string& ip, int port);
  ~peri_stat_manager();

  // Each appends one line without its line end: temperatures, hottest first, and cooling devices,
  // active ones first; memory; ION heaps, fullest first. Memory and ION share a line, with ", "
  // between them: ION is as wide as the last memory text left it room.
  int get_all_thermal(std::ostream* os);
  int get_meminfo(std::ostream* os);
  int get_ion_info(std::ostream* os);
  // Likewise the file systems at the given paths; one that is not there, or does not answer, is
  // shown as "-". At most 16 paths of at most 31 characters, else -EINVAL.
  int get_partition_info(std::vector<const char*>& parts, std::ostream* os);

  // Appends the block devices' throughput since the last call, side by side, those with traffic
  // first, in at most 3 lines without the last line end.
  int get_block_usage(std::ostream* os);

  std::atomic<size_t> ion_wanted{30};     // columns of the last ION text, had it had all room
  std::atomic<size_t> memory_columns{0};  // of the last memory text
};

#endif
