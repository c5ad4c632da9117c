#include "samplers/process_descriptors.h"

#include <cerrno>
#include <cstdio>
#include <vector>

namespace samplers {
namespace {

constexpr size_t path_size = 64;

}  // namespace

descriptor_link::descriptor_link(const file_reader& machine, int32_t pid, int32_t number) {
  char path[path_size];
  std::snprintf(path, sizeof path, "proc/%d/fd/%d", pid, number);
  const int size = machine.read_link(path, text, sizeof text);
  length = size > 0 ? static_cast<size_t>(size) : 0;
}

int for_each_descriptor(const file_reader& machine, int32_t pid,
                        const std::function<bool(int32_t, std::string_view)>& take) {
  char path[path_size];
  std::snprintf(path, sizeof path, "proc/%d/fd", pid);
  const file_descriptor folder = machine.open_folder(path);
  if (!folder) {
    return -errno;
  }
  std::vector<int32_t> numbers;
  const int result = list_numbers(folder.get(), numbers);
  for (auto number = numbers.rbegin(); number != numbers.rend(); ++number) {
    if (!take(*number, descriptor_link(machine, pid, *number).target())) {
      break;
    }
  }
  return result;
}

}  // namespace samplers
