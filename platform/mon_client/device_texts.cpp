// BPU cores, network devices, VIO pipelines.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "text_tools.h"
#include "texts.h"

namespace texts {

using text_tools::clean_name;
using text_tools::figure;

std::string bpu(const std::vector<bpu_stat>& cores) {
  std::vector<std::string> items;
  for (const bpu_stat& core : cores) {
    items.push_back(clean_name(core.name) + ' ' + text_tools::percent(core.bpu_rat));
  }
  return text_tools::side_by_side("BPU  ", items) + '\n';
}

std::string net(const std::vector<net_stat>& devices) {
  constexpr size_t rate_width = 9;
  std::vector<std::string> items;
  for (const net_stat& device : devices) {
    items.push_back(fmt::format("{} {} (total {})", clean_name(device.dev_name),
                                figure(device.rate, rate_width),
                                text_tools::size_text(device.total)));
  }
  return text_tools::side_by_side("Net KB/s  ", items) + '\n';
}

std::string vio(std::vector<vio_stat> pipelines) {
  if (pipelines.empty()) {
    return "VIO  none\n";
  }
  const auto faster = [](const vio_stat& left, const vio_stat& right) {
    if (std::isfinite(left.fps) != std::isfinite(right.fps)) {
      return std::isfinite(left.fps);  // unknown ones last
    }
    return std::isfinite(left.fps) && left.fps > right.fps;
  };
  std::stable_sort(pipelines.begin(), pipelines.end(), faster);
  std::string text = fmt::format("{:<32}{:>9}\n", "VIO pipeline", "fps");
  for (const vio_stat& pipeline : pipelines) {
    text += fmt::format("{:<32}{:>9}\n", clean_name(pipeline.name), figure(pipeline.fps, 8));
  }
  return text;
}

}  // namespace texts
