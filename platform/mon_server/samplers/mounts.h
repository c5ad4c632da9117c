// Which mount a path lies on, told without touching the file system that it leads to.
#ifndef SAMPLERS_MOUNTS_H
#define SAMPLERS_MOUNTS_H

#include <string>
#include <string_view>
#include <vector>

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

// The path without "//", "." and "..", which are taken by the text alone. Empty for a relative one.
std::string normal_path(std::string_view path);

// Follows the symbolic links in `path` for as long as it lies on the mount where it is now, and
// touches no other. 0, after which `path` is free of links or lies on another mount; else a
// negative errno. May hang when the mount does.
int follow_links(const mount_table& mounts, std::string& path);

}  // namespace samplers

#endif
