// SPDX-License-Identifier: Apache-2.0
#include "samplers/thermal.h"

#include <charconv>
#include <string>

#include "samplers/text.h"

namespace samplers {
namespace {

std::string thermal_folder(const std::string& device) {
  return "sys/class/thermal/" + device + "/";
}

// The zone's kind ("cpu-thermal"), or the folder's own name where it has none. Kinds repeat.
std::string device_name(const file_reader& machine, const std::string& device) {
  const std::string type = machine.read_line((thermal_folder(device) + "type").c_str());
  return type.empty() ? device : type;
}

// Reading a temperature may fail with EAGAIN, EINVAL or ENODATA while a sensor is off.
uint64_t read_temperature(const file_reader& machine, const std::string& device) {
  const std::string line = machine.read_line((thermal_folder(device) + "temp").c_str());
  int64_t millidegrees = 0;
  const char* end = line.data() + line.size();
  const auto [stop, error] = std::from_chars(line.data(), end, millidegrees);
  if (error != std::errc() || stop != end) {
    return unknown_u64;
  }
  // A thousandth below zero would read as "unknown": it travels as 0.
  return millidegrees == -1 ? 0 : static_cast<uint64_t>(millidegrees);
}

}  // namespace

int read_thermal(const file_reader& machine, std::vector<thermal_stat>& stats) {
  stats.clear();
  std::vector<std::string> names;
  const int error = machine.list("sys/class/thermal", names);
  std::vector<thermal_stat> cooling;
  for (const std::string& device : names) {
    thermal_stat stat{};
    if (starts_with(device, "thermal_zone") && stats.size() < max_thermal_devices) {
      copy_name(device_name(machine, device), stat.name);
      stat.kind = thermal_zone;
      stat.temp = read_temperature(machine, device);
      stat.stat = unknown_u64;
      stats.push_back(stat);
    } else if (starts_with(device, "cooling_device") && cooling.size() < max_thermal_devices) {
      copy_name(device_name(machine, device), stat.name);
      stat.kind = thermal_cooling;
      stat.temp = unknown_u64;
      stat.stat = machine.read_u64((thermal_folder(device) + "cur_state").c_str());
      cooling.push_back(stat);
    }
  }
  stats.insert(stats.end(), cooling.begin(), cooling.end());
  return error;
}

}  // namespace samplers
