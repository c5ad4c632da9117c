// SPDX-License-Identifier: Apache-2.0
#include "samplers/file_reader.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "mon_records.h"
#include "samplers/text.h"

namespace samplers {
namespace {

// Holds any one-line file of sysfs that is read here.
constexpr size_t line_buffer_size = 256;

// Entries that one system call returns; a process's folder has some 30 bytes an entry.
constexpr size_t listing_buffer_size = 32 * 1024;

constexpr size_t first_file_size = 4096;

// Files of procfs and sysfs count as regular; a FIFO, a device or a folder holds no figure.
file_descriptor open_regular_file(int folder_fd, const char* path, int& error) {
  file_descriptor fd = open_at(folder_fd, path);
  error = fd ? 0 : -errno;
  struct stat status {};
  if (fd && (fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode))) {
    error = -EINVAL;
  }
  return fd;
}

// Calls `take` with each name in an open folder, until it has returned false for one of those that
// a system call of `call_size` returned.
template <typename taker>
int for_each_name(int folder_fd, taker take, size_t call_size = listing_buffer_size) {
  alignas(dirent64) char buffer[listing_buffer_size];
  for (bool more = true; more;) {
    const ssize_t size = getdents64(folder_fd, buffer, call_size);
    if (size <= 0) {
      return size == 0 ? 0 : -errno;
    }
    for (ssize_t offset = 0; offset < size;) {
      const auto* entry = reinterpret_cast<const dirent64*>(buffer + offset);
      more = take(static_cast<const char*>(entry->d_name)) && more;
      offset += entry->d_reclen;
    }
  }
  return 0;
}

}  // namespace

file_reader::file_reader(const std::string& root, std::vector<read_note>* notes)
    : own_machine(root.empty() || root == "/"),
      root_fd(open(own_machine ? "/" : root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)),
      taken_notes(notes) {}

int file_reader::noted(const char* path, int result) const {
  if (taken_notes != nullptr) {
    taken_notes->push_back({path, std::min(result, 0)});
  }
  return result;
}

int file_reader::read(const char* path, std::string& content) const {
  size_t length = 0;
  int error = 0;
  const file_descriptor fd = open_regular_file(root_fd.get(), path, error);
  while (error == 0 && length < max_file_size) {
    const size_t wanted = std::max({content.capacity(), first_file_size, length * 2});
    content.resize(std::min(wanted, max_file_size));
    const ssize_t size = ::read(fd.get(), content.data() + length, content.size() - length);
    error = size < 0 ? -errno : 0;
    if (size <= 0) {
      break;
    }
    length += static_cast<size_t>(size);
  }
  content.resize(error == 0 ? length : 0);
  return noted(path, error);
}

int file_reader::read(const char* path, char* buffer, size_t size) const {
  int error = 0;
  const file_descriptor fd = open_regular_file(root_fd.get(), path, error);
  if (error != 0) {
    return noted(path, error);
  }
  const ssize_t length = ::read(fd.get(), buffer, size);
  return noted(path, length < 0 ? -errno : static_cast<int>(length));
}

uint64_t file_reader::read_u64(const char* path) const {
  return to_u64(read_line(path));
}

double file_reader::read_number(const char* path) const {
  return leading_number(read_line(path));
}

std::string file_reader::read_line(const char* path) const {
  char buffer[line_buffer_size];
  const int size = read(path, buffer, sizeof buffer);
  if (size <= 0) {
    return {};
  }
  std::string_view text(buffer, static_cast<size_t>(size));
  std::string_view line = take_line(text);
  while (!line.empty() && (line.back() == ' ' || line.back() == '\t' || line.back() == '\r')) {
    line.remove_suffix(1);
  }
  return std::string(line);
}

int file_reader::list(const char* path, std::vector<std::string>& names) const {
  names.clear();
  const file_descriptor fd = open_folder(path);
  if (!fd) {
    return noted(path, -errno);
  }
  const int result = for_each_name(fd.get(), [&names](const char* name) {
    if (name[0] != '.') {
      names.emplace_back(name);
    }
    return true;
  });
  std::sort(names.begin(), names.end(), natural_less);
  return noted(path, result);
}

int file_reader::read_link(const char* path, char* buffer, size_t size) const {
  const ssize_t length = readlinkat(root_fd.get(), path, buffer, size);
  return length < 0 ? -errno : static_cast<int>(length);
}

file_descriptor file_reader::open_folder(const char* path) const {
  return file_descriptor(openat(root_fd.get(), path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

file_descriptor open_at(int folder_fd, const char* path) {
  return file_descriptor(openat(folder_fd, path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

int list_numbers(int folder_fd, std::vector<int32_t>& numbers, size_t enough) {
  constexpr size_t number_size = 32;  // of an entry's that has five digits or more
  numbers.clear();
  const auto take = [&numbers, enough](const char* name) {
    const uint64_t number = to_u64(name);
    if (number <= INT32_MAX) {
      numbers.push_back(static_cast<int32_t>(number));
    }
    return numbers.size() < enough;
  };
  return for_each_name(folder_fd, take,
                       std::min(enough, listing_buffer_size / number_size) * number_size);
}

}  // namespace samplers
