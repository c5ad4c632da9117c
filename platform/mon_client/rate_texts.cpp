// SPDX-License-Identifier: Apache-2.0
// BPU cores, network devices, block devices, VIO pipelines. The first three share a panel of ten
// rows, two of them empty.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "text_tools.h"
#include "texts.h"

namespace texts {
namespace {

using text_tools::clean_name;
using text_tools::figure;

constexpr size_t bpu_lines = 2;
constexpr size_t net_lines = 3;
constexpr size_t block_lines = 3;
constexpr size_t rate_width = 9;

using item_forms = std::vector<std::vector<std::string>>;

// Numbers above others, unknown ones last.
bool is_more(double left, double right) {
  if (std::isfinite(left) != std::isfinite(right)) {
    return std::isfinite(left);
  }
  return std::isfinite(left) && left > right;
}

// Those with traffic first, then by their total; else as they came.
template <class device>
std::vector<device> with_traffic_first(std::vector<device> devices,
                                       bool (*has_traffic)(const device&)) {
  const auto total = [](const device& one) { return one.total == unknown_u64 ? 0 : one.total; };
  std::stable_sort(devices.begin(), devices.end(), [&](const device& left, const device& right) {
    const bool left_has = has_traffic(left);
    return left_has != has_traffic(right) ? left_has : total(left) > total(right);
  });
  return devices;
}

// A device with its figures, with its total and without.
void add_device(item_forms& forms, const std::string& device, uint64_t total) {
  forms[0].push_back(fmt::format("{} (total {})", device, text_tools::size_text(total)));
  forms[1].push_back(device);
}

std::string net_text(const item_forms& forms, size_t width) {
  return text_tools::side_by_side("Net KB/s  ", forms, {width, net_lines}) + '\n';
}

// " err 3"; empty where there is none, or nobody knows.
std::string lost(const char* name, uint64_t packets) {
  const bool any = packets != 0 && packets != unknown_u64;
  return any ? fmt::format(" {} {}", name, text_tools::count_text(static_cast<double>(packets)))
             : "";
}

double kib_per_second(uint64_t kib, uint64_t interval_ms) {
  if (kib == unknown_u64 || interval_ms == 0) {
    return NAN;
  }
  return static_cast<double>(kib) * 1000 / static_cast<double>(interval_ms);
}

bool has_io(const block_stat& device) {
  return kib_per_second(device.rd_kb, device.interval_ms) > 0 ||
         kib_per_second(device.wr_kb, device.interval_ms) > 0;
}

std::string frame_rate(double fps) {
  constexpr size_t fps_width = 8;
  const std::string text = std::isfinite(fps) ? fmt::format("{:.2f}", fps) : "";
  return text.empty() || text.size() > fps_width ? figure(fps, fps_width) : text;
}

}  // namespace

// In the server's order where all fit, else the busiest first.
std::string bpu(const std::vector<bpu_stat>& cores, size_t width) {
  const auto items_of = [](const std::vector<bpu_stat>& list) {
    std::vector<std::string> items;
    for (const bpu_stat& core : list) {
      items.push_back(clean_name(core.name) + ' ' + text_tools::percent(core.bpu_rat));
    }
    return items;
  };
  const text_tools::room room{width, bpu_lines};
  const std::vector<std::string> in_order = items_of(cores);
  if (text_tools::all_fit("BPU  ", in_order, room)) {
    return text_tools::side_by_side("BPU  ", in_order, room) + '\n';
  }
  std::vector<bpu_stat> busiest = cores;
  std::stable_sort(busiest.begin(), busiest.end(), [](const bpu_stat& left, const bpu_stat& right) {
    return is_more(left.bpu_rat, right.bpu_rat);
  });
  return text_tools::side_by_side("BPU busiest  ", items_of(busiest), room) + '\n';
}

std::string net(const std::vector<net_stat>& devices, size_t width) {
  item_forms forms(2);
  for (const net_stat& device :
       with_traffic_first<net_stat>(devices, [](const net_stat& one) { return one.rate > 0; })) {
    add_device(forms, clean_name(device.dev_name) + ' ' + figure(device.rate, rate_width),
               device.total);
  }
  return net_text(forms, width);
}

std::string net(const std::vector<net_traffic>& devices, size_t width) {
  item_forms forms(2);
  for (const net_traffic& device : with_traffic_first<net_traffic>(
           devices, [](const net_traffic& one) { return one.rx_rate > 0 || one.tx_rate > 0; })) {
    add_device(forms,
               fmt::format("{} rx {} tx {}{}{}", clean_name(device.dev_name),
                           figure(device.rx_rate, rate_width), figure(device.tx_rate, rate_width),
                           lost("err", device.errors), lost("drop", device.drops)),
               device.total);
  }
  return net_text(forms, width);
}

std::string blocks(const std::vector<block_stat>& devices, size_t width) {
  std::vector<block_stat> sorted = devices;
  std::stable_partition(sorted.begin(), sorted.end(), has_io);
  item_forms forms(2);
  for (const block_stat& device : sorted) {
    const std::string name = clean_name(device.name);
    const std::string read = figure(kib_per_second(device.rd_kb, device.interval_ms), rate_width);
    const std::string write = figure(kib_per_second(device.wr_kb, device.interval_ms), rate_width);
    forms[0].push_back(fmt::format("{} read {} write {}", name, read, write));
    forms[1].push_back(fmt::format("{} r {} w {}", name, read, write));
  }
  return text_tools::side_by_side("Block KB/s  ", forms, {width, block_lines});
}

std::string vio(std::vector<vio_stat> pipelines, size_t width) {
  if (pipelines.empty()) {
    return "VIO  none\n";
  }
  std::stable_sort(
      pipelines.begin(), pipelines.end(),
      [](const vio_stat& left, const vio_stat& right) { return is_more(left.fps, right.fps); });
  constexpr size_t fps_column = 9;
  const size_t name_width =
      std::min(std::max(width, text_tools::least_columns) - fps_column, sizeof(vio_stat::name));
  const auto line = [&](const std::string& name, const std::string& fps) {
    return fmt::format("{:<{}}{:>{}}\n", text_tools::cut(name, name_width), name_width, fps,
                       fps_column);
  };
  std::string text = line("VIO pipeline", "fps");
  for (const vio_stat& pipeline : pipelines) {
    text += line(clean_name(pipeline.name), frame_rate(pipeline.fps));
  }
  return text;
}

}  // namespace texts
