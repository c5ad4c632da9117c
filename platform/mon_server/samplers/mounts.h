// SPDX-License-Identifier: Apache-2.0
// Which mount a path lies on, told without touching the file system that it leads to.
#ifndef SAMPLERS_MOUNTS_H
#define SAMPLERS_MOUNTS_H

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "samplers/file_descriptor.h"

namespace samplers {

struct mount_entry {
  std::string device;  // "8:1"; the same for all mounts of one file system
  std::string point;   // without symbolic links
};

// Never changes once made, so that any thread may use it.
class mount_table {
 public:
  // From the text of /proc/self/mountinfo. Without a line all is one mount.
  explicit mount_table(std::string_view mountinfo);

  // The innermost mount of a path as normal_path() gives it.
  const mount_entry& find(std::string_view path) const;

 private:
  std::vector<mount_entry> mounts;
};

// The mounts of this process as they are now. May be used by several threads at once.
class current_mounts {
 public:
  // Reads them again only when the kernel says that something was mounted or unmounted (proc(5):
  // poll(2) of /proc/pid/mountinfo), or when no descriptor can be had to ask it by.
  std::shared_ptr<const mount_table> get();

 private:
  std::mutex lock;  // guards what follows
  file_descriptor mountinfo;
  std::shared_ptr<const mount_table> table;
};

// The path without "//", "." and "..", which are taken by the text alone. Empty for a relative one.
std::string normal_path(std::string_view path);

// Follows the symbolic links in `path` for as long as it lies on the mount where it is now, and
// touches no other. 0, after which `path` is free of links or lies on another mount; else a
// negative errno. May hang when the mount does.
int follow_links(const mount_table& mounts, std::string& path);

}  // namespace samplers

#endif
