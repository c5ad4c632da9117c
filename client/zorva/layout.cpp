// SPDX-License-Identifier: Apache-2.0
#include "zorva/layout.h"

namespace {

constexpr int common_height = 3;
constexpr int band_height = 10;  // of "cpu" and "vio", and of "bpu" below them
constexpr int cpu_width = 70;
constexpr int bottom_band = common_height + 2 * band_height;  // row that the process list starts at
constexpr int process_width = 118;                            // beside the counters

}  // namespace

std::unordered_map<std::string, position> default_layout(int width, int height, bool perf) {
  const int rest = height - bottom_band;
  std::unordered_map<std::string, position> places = {
      {"common", {0, 0, width, common_height}},
      {"cpu", {0, common_height, cpu_width, band_height}},
      {"vio", {cpu_width, common_height, width - cpu_width, band_height}},
      {"bpu", {0, common_height + band_height, width, band_height}},
      {"process", {0, bottom_band, perf ? process_width : width, rest}},
  };
  if (perf) {
    places["perf"] = {process_width, bottom_band, width - process_width, rest};
  }
  return places;
}
