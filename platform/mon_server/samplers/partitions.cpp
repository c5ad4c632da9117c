// SPDX-License-Identifier: Apache-2.0
#include "samplers/partitions.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>

#include "samplers/text.h"

namespace samplers {

part_info unknown_partition(std::string_view path) {
  part_info part{};
  copy_name(path, part.part_name);
  part.f_bavail = part.f_blocks = part.f_frsize = part.blocks_used = unknown_u64;
  return part;
}

int read_partition(const char* path, part_info& part) {
  part = unknown_partition(path);
  struct statvfs figures {};
  if (statvfs(path, &figures) != 0) {
    return -errno;
  }
  if (figures.f_blocks == 0) {
    return -ENODATA;
  }
  part.f_bavail = figures.f_bavail;
  part.f_blocks = figures.f_blocks;
  part.f_frsize = figures.f_frsize;
  part.blocks_used = figures.f_blocks - std::min(figures.f_bfree, figures.f_blocks);
  return 0;
}

}  // namespace samplers
