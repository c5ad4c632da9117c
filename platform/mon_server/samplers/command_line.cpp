// SPDX-License-Identifier: Apache-2.0
#include "samplers/command_line.h"

#include <algorithm>

#include "mon_records.h"

namespace samplers {

std::string read_command_line(const file_reader& machine, int32_t pid) {
  char bytes[sizeof(process_command::text)];
  const std::string path = "proc/" + std::to_string(pid) + "/cmdline";
  const int size = machine.read(path.c_str(), bytes, sizeof bytes);
  std::string text(bytes, static_cast<size_t>(std::max(size, 0)));
  std::replace(text.begin(), text.end(), '\0', ' ');
  text.resize(text.find_last_not_of(' ') + 1);
  return text;
}

}  // namespace samplers
