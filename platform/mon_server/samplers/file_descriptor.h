// SPDX-License-Identifier: Apache-2.0
// A descriptor that closes itself.
#ifndef SAMPLERS_FILE_DESCRIPTOR_H
#define SAMPLERS_FILE_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace samplers {

class file_descriptor {
 public:
  file_descriptor() = default;
  explicit file_descriptor(int descriptor) : fd(descriptor) {}
  file_descriptor(file_descriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
  file_descriptor& operator=(file_descriptor&& other) noexcept {
    std::swap(fd, other.fd);
    return *this;
  }
  ~file_descriptor() {
    if (fd >= 0) {
      close(fd);
    }
  }

  explicit operator bool() const { return fd >= 0; }
  int get() const { return fd; }

 private:
  int fd = -1;
};

}  // namespace samplers

#endif
