// The open descriptors of a process: /proc/PID/fd.
#ifndef SAMPLERS_PROCESS_DESCRIPTORS_H
#define SAMPLERS_PROCESS_DESCRIPTORS_H

#include <cstdint>
#include <functional>
#include <string_view>

#include "samplers/file_reader.h"

namespace samplers {

// What a descriptor leads to: "socket:[12345]", "/dev/dri/renderD128". Empty when it has been
// closed or may not be seen (that takes the rights to trace the process).
class descriptor_link {
 public:
  descriptor_link(const file_reader& machine, int32_t pid, int32_t number);
  std::string_view target() const { return {text, length}; }

 private:
  char text[64];  // a longer target is none of those looked for, and cut
  size_t length = 0;
};

// Calls `take` with the number and target of each descriptor of a process, the last opened mostly
// first, until it returns false. 0 or a negative errno.
int for_each_descriptor(const file_reader& machine, int32_t pid,
                        const std::function<bool(int32_t, std::string_view)>& take);

}  // namespace samplers

#endif
