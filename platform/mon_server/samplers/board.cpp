// SPDX-License-Identifier: Apache-2.0
#include "samplers/board.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <limits>
#include <string>

#include "samplers/text.h"

namespace samplers {
namespace {

// No share and no frame rate is negative, or beyond what a float holds.
float read_figure(const file_reader& reader, const std::string& path) {
  const double value = reader.read_number(path.c_str());
  const bool sane = value >= 0 && value <= std::numeric_limits<float>::max();
  return sane ? static_cast<float>(value) : std::numeric_limits<float>::quiet_NaN();
}

template <class record>
std::vector<std::string> list_figures(const file_reader& reader, const char* folder) {
  std::vector<std::string> names;
  reader.list(folder, names);
  names.resize(std::min(names.size(), mon_fields::description<record>::most));
  return names;
}

void add_core(const std::string& name, float percent, std::vector<bpu_stat>& cores) {
  bpu_stat core{};
  copy_name(name, core.name);
  core.bpu_rat = percent;
  cores.push_back(core);
}

bool is_bpu_device(std::string name) {
  for (char& c : name) {
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return name.find("npu") != std::string::npos || name.find("bpu") != std::string::npos;
}

}  // namespace

int read_bpu(const file_reader& machine, const file_reader* board, std::vector<bpu_stat>& cores) {
  cores.clear();
  if (board != nullptr) {
    for (const std::string& name : list_figures<bpu_stat>(*board, "bpu")) {
      add_core(name, read_figure(*board, "bpu/" + name), cores);
    }
  }
  if (cores.empty()) {
    std::vector<std::string> devices;
    machine.list("sys/class/devfreq", devices);
    for (const std::string& device : devices) {
      if (is_bpu_device(device) && cores.size() < mon_fields::description<bpu_stat>::most) {
        // Upstream drivers have no such file; those that do write "37" or "37@1000000000Hz".
        add_core(device, read_figure(machine, "sys/class/devfreq/" + device + "/load"), cores);
      }
    }
  }
  return cores.empty() ? -ENOENT : 0;
}

int read_vio(const file_reader* board, std::vector<vio_stat>& pipelines) {
  pipelines.clear();
  if (board != nullptr) {
    for (const std::string& name : list_figures<vio_stat>(*board, "vio")) {
      vio_stat pipeline{};
      copy_name(name, pipeline.name);
      pipeline.fps = read_figure(*board, "vio/" + name);
      pipelines.push_back(pipeline);
    }
  }
  return pipelines.empty() ? -ENOENT : 0;
}

}  // namespace samplers
