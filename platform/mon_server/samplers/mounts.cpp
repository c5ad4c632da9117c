// SPDX-License-Identifier: Apache-2.0
#include "samplers/mounts.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "samplers/text.h"

namespace samplers {
namespace {

constexpr int most_links = 40;  // as path_resolution(7) has it

// Blanks, line ends and backslashes stand there as "\040".
std::string unescape(std::string_view text) {
  std::string plain;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool escaped = text[i] == '\\' && i + 3 < text.size();
    plain += escaped ? static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 +
                                         (text[i + 3] - '0'))
                     : text[i];
    i += escaped ? 3 : 0;
  }
  return plain;
}

// From its beginning; empty when it cannot be read.
std::string read_whole(int file) {
  std::string text;
  char piece[4096];
  ssize_t size = 0;
  while ((size = pread(file, piece, sizeof piece, static_cast<off_t>(text.size()))) > 0) {
    text.append(piece, static_cast<size_t>(size));
  }
  return text;
}

bool lies_below(std::string_view path, std::string_view point) {
  return point == "/" ||
         (starts_with(path, point) && (path.size() == point.size() || path[point.size()] == '/'));
}

}  // namespace

// proc(5): id, parent, device, root, mount point, and more.
mount_table::mount_table(std::string_view mountinfo) : mounts{{"", "/"}} {
  while (!mountinfo.empty()) {
    std::string_view line = take_line(mountinfo);
    take_word(line);
    take_word(line);
    const std::string_view device = take_word(line);
    take_word(line);
    const std::string point = unescape(take_word(line));
    if (!point.empty()) {
      mounts.push_back({std::string(device), point});
    }
  }
}

const mount_entry& mount_table::find(std::string_view path) const {
  const mount_entry* found = &mounts.front();
  for (const mount_entry& one : mounts) {
    // The later of two on one point lies on top.
    if (one.point.size() >= found->point.size() && lies_below(path, one.point)) {
      found = &one;
    }
  }
  return *found;
}

std::shared_ptr<const mount_table> current_mounts::get() {
  const std::lock_guard<std::mutex> guard(lock);
  if (!mountinfo) {
    mountinfo = file_descriptor(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
    table.reset();
  }
  pollfd change{mountinfo.get(), POLLPRI, 0};
  // The kernel tells a change once: the old table goes before anything can fail. One that comes
  // while the file is read is told by the next call.
  if (poll(&change, 1, 0) != 0) {
    table.reset();
  }
  if (!table) {
    table = std::make_shared<const mount_table>(read_whole(mountinfo.get()));
  }
  return table;
}

std::string normal_path(std::string_view path) {
  if (path.empty() || path.front() != '/') {
    return {};
  }
  std::string normal;
  while (!path.empty()) {
    path.remove_prefix(1);
    const size_t end = path.find('/');
    const std::string_view name = path.substr(0, end);
    path.remove_prefix(name.size());
    if (name == "..") {
      normal.erase(normal.empty() ? 0 : normal.rfind('/'));
    } else if (!name.empty() && name != ".") {
      normal.append("/").append(name);
    }
  }
  return normal.empty() ? "/" : normal;
}

int follow_links(const mount_table& mounts, std::string& path) {
  const std::string device = mounts.find(path).device;
  const std::string* point = &mounts.find(path).point;
  size_t checked = point->size() == 1 ? 0 : point->size();  // of `path`, free of links
  for (int links = 0; checked < path.size() && path != "/";) {
    const size_t end = path.find('/', checked + 1);
    const std::string part = path.substr(0, end);
    char target[PATH_MAX];
    const ssize_t length = readlink(part.c_str(), target, sizeof target);
    if (length < 0) {
      if (errno != EINVAL) {
        return -errno;
      }
      checked = part.size();  // no link
      continue;
    }
    if (++links > most_links) {
      return -ELOOP;
    }
    const std::string_view to(target, static_cast<size_t>(length));
    const std::string rest = path.substr(part.size());
    const std::string from = starts_with(to, "/") ? "" : part.substr(0, part.rfind('/') + 1);
    path = normal_path(from + std::string(to) + rest);
    if (mounts.find(path).device != device) {
      return 0;
    }
    point = &mounts.find(path).point;
    checked = point->size() == 1 ? 0 : point->size();
  }
  return 0;
}

}  // namespace samplers
