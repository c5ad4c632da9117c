// SPDX-License-Identifier: Apache-2.0
// The one way to the files of /proc, /sys and a board folder.
#ifndef SAMPLERS_FILE_READER_H
#define SAMPLERS_FILE_READER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "samplers/file_descriptor.h"

namespace samplers {

// Longer files are cut here; /proc/stat of 1024 CPUs stays well below.
constexpr size_t max_file_size = 1 << 20;

// What a reader was asked for and what came of it, for whoever tells where figures come from.
struct read_note {
  std::string path;
  int error;  // 0 or a negative errno
};

// Reads below one folder: the machine's root, a tree that stands for it, or a board folder. Paths
// are relative to it ("proc/stat"). Results are 0 (or a count) or a negative errno. May be used by
// several threads at once, unless it takes notes.
class file_reader {
 public:
  // "" and "/" are the machine's own root. If `root` cannot be opened every read fails. Adds to
  // `notes`, unless null, each file and folder that is read.
  explicit file_reader(const std::string& root, std::vector<read_note>* notes = nullptr);

  // The whole file, up to max_file_size. `content` keeps its capacity from call to call.
  int read(const char* path, std::string& content) const;

  // At most `size` bytes, in one read; returns their count.
  int read(const char* path, char* buffer, size_t size) const;

  // The number that is all of a file, unknown_u64 when there is none.
  uint64_t read_u64(const char* path) const;

  // The number that a file begins with, NaN when there is none; see leading_number().
  double read_number(const char* path) const;

  // The first line of a file without trailing blanks; empty when it cannot be read.
  std::string read_line(const char* path) const;

  // Names in a folder without hidden ones, numbers in natural order.
  int list(const char* path, std::vector<std::string>& names) const;

  // Where a symbolic link leads, cut to `size` and without a NUL; returns its length.
  int read_link(const char* path, char* buffer, size_t size) const;

  // Opens a folder to read below it; see open_at() and list_numbers().
  file_descriptor open_folder(const char* path) const;

  // True unless a tree stands in for the machine's own root.
  const bool own_machine;

 private:
  int noted(const char* path, int result) const;

  file_descriptor root_fd;
  std::vector<read_note>* const taken_notes;
};

// Opens a file below an open folder to read it. Never blocks, not even on a FIFO that lies in a
// board folder.
file_descriptor open_at(int folder_fd, const char* path);

// The entries of an open folder whose names are numbers, in the folder's order. Reads on
// from the descriptor's position, so a descriptor serves for one listing. Ends soon after `enough`.
int list_numbers(int folder_fd, std::vector<int32_t>& numbers, size_t enough = SIZE_MAX);

}  // namespace samplers

#endif
