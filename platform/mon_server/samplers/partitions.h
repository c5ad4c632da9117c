// SPDX-License-Identifier: Apache-2.0
// File systems: statvfs(3).
#ifndef SAMPLERS_PARTITIONS_H
#define SAMPLERS_PARTITIONS_H

#include <string_view>

#include "mon_records.h"

namespace samplers {

part_info unknown_partition(std::string_view path);

// Fills `part` for the file system that `path` lies on; on failure, and for a file system without
// blocks (/proc), its four figures are unknown. Never returns on a dead network mount: not for the
// event loop.
int read_partition(const char* path, part_info& part);

}  // namespace samplers

#endif
