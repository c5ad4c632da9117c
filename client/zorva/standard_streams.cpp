// SPDX-License-Identifier: Apache-2.0
#include "zorva/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

void fill_standard_streams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) < 0) {
      // The lowest free descriptor, which is this one.
      [[maybe_unused]] const int opened = open("/dev/null", O_RDWR);
    }
  }
}
