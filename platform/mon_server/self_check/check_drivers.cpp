// SPDX-License-Identifier: Apache-2.0
// Figures of drivers and mounts, each of which may hang.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "mon_records.h"
#include "samplers/board.h"
#include "samplers/ion.h"
#include "samplers/partitions.h"
#include "samplers/system.h"
#include "samplers/thermal.h"
#include "self_check/families.h"

namespace {

using samplers::file_reader;
using samplers::read_note;

// What a sampler gave on a thread of its own.
template <class record>
struct driver_reading {
  int error = 0;
  std::vector<record> records;
  std::vector<read_note> notes;  // of the machine's files, and of the board folder's
};

// As samplers are called: the machine, the board folder or null.
template <class record>
using driver_sampler =
    std::function<int(const file_reader&, const file_reader*, std::vector<record>&)>;

// Nothing when it has not ended after a second, which is as long as the server waits: there is a
// finding then, and the thread is left behind with all that it uses.
template <class record>
std::optional<driver_reading<record>> read_driver(check_context& context, const char* family,
                                                  const std::string& path,
                                                  const driver_sampler<record>& sample) {
  const auto job = [sample, sysroot = context.options.sysroot, folder = context.options.board] {
    driver_reading<record> reading;
    const file_reader machine(sysroot, &reading.notes);
    const auto board =
        folder.empty() ? nullptr : std::make_unique<file_reader>(folder, &reading.notes);
    reading.error = sample(machine, board.get(), reading.records);
    return reading;
  };
  std::packaged_task<driver_reading<record>()> task(job);
  auto result = task.get_future();
  std::thread(std::move(task)).detach();
  if (result.wait_for(std::chrono::seconds(1)) == std::future_status::ready) {
    return result.get();
  }
  context.findings.push_back({family,
                              false,
                              "",
                              {{path + " does not answer within a second",
                                "look at its driver or mount (dmesg); it is left out meanwhile",
                                {}}}});
  return std::nullopt;
}

template <size_t size>
std::string text_of(const char (&name)[size]) {
  return {name, strnlen(name, size)};
}
std::string name_of(const thermal_stat& one) {
  return text_of(one.name);
}
std::string name_of(const ion_info& one) {
  return text_of(one.ion_name);
}
std::string name_of(const bpu_stat& one) {
  return text_of(one.name);
}
std::string name_of(const vio_stat& one) {
  return text_of(one.name);
}

// Tells of the records that have no figure. `part` is of their files' paths.
template <class record, class condition>
void tell_silent(finding& one, const driver_reading<record>& reading, const char* part,
                 const condition& is_known) {
  std::string names;
  for (const record& each : reading.records) {
    if (!is_known(each)) {
      append_name(names, name_of(each));
    }
  }
  const int error = error_of(reading.notes, part);
  if (!names.empty()) {
    const std::string reason = error == 0 ? "no number in its file" : strerror(-error);
    one.obstacles.push_back(
        {"no figure of " + names + ": " + reason, "look at its driver (dmesg)", {}});
  }
}

bool is_zone(const thermal_stat& one) {
  return one.kind == thermal_zone;
}

void add_temperatures(check_context& context, const driver_reading<thermal_stat>& reading,
                      size_t zones) {
  finding one{"temperatures", zones > 0, "/sys/class/thermal (" + count_of(zones, "zone") + ")"};
  if (!one.is_read) {
    one.source =
        "no driver has a zone (on a board: is it built in, and are the thermal zones in "
        "the device tree?)";
  }
  tell_silent(one, reading, "/temp",
              [](const thermal_stat& each) { return !is_zone(each) || each.temp != unknown_u64; });
  context.findings.push_back(std::move(one));
}

void add_cooling(check_context& context, const driver_reading<thermal_stat>& reading,
                 size_t devices) {
  finding one{
      "cooling devices", devices > 0,
      devices > 0 ? "/sys/class/thermal (" + count_of(devices, "device") + ")" : "none here"};
  tell_silent(one, reading, "/cur_state",
              [](const thermal_stat& each) { return is_zone(each) || each.stat != unknown_u64; });
  context.findings.push_back(std::move(one));
}

void check_thermal(check_context& context) {
  const char* const folder = "/sys/class/thermal";
  const auto reading = read_driver<thermal_stat>(
      context, "temperatures", folder, [](const auto& machine, const auto*, auto& records) {
        return samplers::read_thermal(machine, records);
      });
  if (!reading || reading->error != 0) {
    if (reading) {
      context.add_file("temperatures", folder, reading->error, "", "CONFIG_THERMAL");
    }
    return context.add_with("cooling devices", "temperatures");
  }
  const auto zones =
      static_cast<size_t>(std::count_if(reading->records.begin(), reading->records.end(), is_zone));
  add_temperatures(context, *reading, zones);
  add_cooling(context, *reading, reading->records.size() - zones);
}

// Which of its sources the sampler took: it tries one after the other, as the notes tell.
std::string ion_source(check_context& context, const driver_reading<ion_info>& reading) {
  if (find_note(reading.notes, "debug/ion/heaps") == nullptr) {
    return context.options.board + "/ion";
  }
  if (find_note(reading.notes, "total_heaps_kb") == nullptr) {
    return "/sys/kernel/debug/ion/heaps";
  }
  std::string source;
  for (const ion_info& heap : reading.records) {
    const std::string name = name_of(heap);
    append_name(source, name == "ion"   ? "/sys/kernel/ion/total_heaps_kb"
                        : name == "cma" ? "/proc/meminfo"
                                        : "/sys/kernel/debug/dma_buf/bufinfo");
  }
  return source;
}

// Why the dma-bufs and the heaps of debugfs are not seen, where a better source has not been found.
void tell_debugfs(check_context& context, const driver_reading<ion_info>& reading, finding& one) {
  const int error = error_of(reading.notes, "debug/dma_buf/bufinfo");
  if (error == 0 || context.kernel.find("CONFIG_DMA_SHARED_BUFFER") == kernel_option::off) {
    return;
  }
  std::vector<std::string> names;
  const int listing = context.machine.list("sys/kernel/debug", names);
  if (listing != 0) {
    one.obstacles.push_back(
        file_obstacle(context.kernel, "/sys/kernel/debug", listing, "CONFIG_DEBUG_FS"));
  } else if (names.empty()) {
    one.obstacles.push_back({"debugfs is not mounted, where ION heaps and dma-bufs would be",
                             "mount -t debugfs debugfs /sys/kernel/debug",
                             {}});
  } else if (error != -ENOENT) {
    one.obstacles.push_back(
        file_obstacle(context.kernel, "/sys/kernel/debug/dma_buf/bufinfo", error, nullptr));
  }
}

void check_ion(check_context& context) {
  const auto reading =
      read_driver<ion_info>(context, "ION", "/sys/kernel/debug",
                            [](const auto& machine, const auto* board, auto& records) {
                              return samplers::read_ion(machine, board, records);
                            });
  if (!reading) {
    return;
  }
  finding one{"ION", !reading->records.empty(), ""};
  if (one.is_read) {
    one.source =
        ion_source(context, *reading) + " (" + count_of(reading->records.size(), "heap") + ")";
  }
  tell_silent(one, *reading, "ion/", [](const ion_info& heap) { return heap.used != unknown_u64; });
  tell_debugfs(context, *reading, one);
  if (!one.is_read && one.obstacles.empty()) {
    one.source = "none here";
  }
  context.findings.push_back(std::move(one));
}

void check_bpu(check_context& context) {
  const auto reading = read_driver<bpu_stat>(
      context, "BPU cores", "the BPU", [](const auto& machine, const auto* board, auto& records) {
        return samplers::read_bpu(machine, board, records);
      });
  if (!reading) {
    return;
  }
  finding one{"BPU cores", !reading->records.empty(),
              "none here: no BPU or NPU in /sys/class/devfreq (a --board folder brings them in)"};
  const bool by_board = find_note(reading->notes, "devfreq") == nullptr;
  if (one.is_read) {
    one.source = (by_board ? context.options.board + "/bpu" : "/sys/class/devfreq/*/load") + " (" +
                 count_of(reading->records.size(), "core") + ")";
  }
  tell_silent(one, *reading, by_board ? "bpu/" : "/load",
              [](const bpu_stat& core) { return core.bpu_rat >= 0; });
  context.findings.push_back(std::move(one));
}

void check_vio(check_context& context) {
  const std::string folder = context.options.board + "/vio";
  const auto reading = read_driver<vio_stat>(context, "VIO pipelines", folder,
                                             [](const auto&, const auto* board, auto& records) {
                                               return samplers::read_vio(board, records);
                                             });
  if (!reading) {
    return;
  }
  finding one{"VIO pipelines", !reading->records.empty(),
              "none here (a --board folder brings them in)"};
  if (one.is_read) {
    one.source = folder + " (" + count_of(reading->records.size(), "pipeline") + ")";
  }
  tell_silent(one, *reading, "vio/", [](const vio_stat& pipeline) { return pipeline.fps >= 0; });
  context.findings.push_back(std::move(one));
}

void check_zram(check_context& context) {
  const char* const files = "/sys/block/zram*/mm_stat";
  samplers::system_sampler system;
  samplers::system_sample sample;
  system.read(context.machine, nullptr, nullptr, sample);
  const std::vector<std::string> devices = system.zram_devices();
  if (devices.empty()) {
    context.findings.push_back({"zram", false, "none here"});
    return;
  }
  const auto reading = read_driver<samplers::zram_use>(
      context, "zram", files, [devices](const auto& machine, const auto*, auto& records) {
        records.push_back(samplers::read_zram(machine, devices));
        return records.back().data == unknown_u64 ? -EBADMSG : 0;
      });
  if (reading) {
    const int refused = error_of(reading->notes, "mm_stat");
    context.add_file("zram", files, refused != 0 ? refused : reading->error,
                     " (" + count_of(devices.size(), "device") + ")");
  }
}

// Clients say which paths they want; this is one that each machine has.
void check_partitions(check_context& context) {
  const char* const question = "statvfs(3) of /";
  const auto reading = read_driver<part_info>(
      context, "partitions", question, [](const auto&, const auto*, auto& records) {
        return samplers::read_partition("/", records.emplace_back());
      });
  if (reading && reading->error == 0) {
    context.findings.push_back(
        {"partitions", true, "statvfs(3) of the paths that a client asks for"});
  } else if (reading) {
    context.findings.push_back({"partitions",
                                false,
                                "",
                                {{std::string(question) + ": " + strerror(-reading->error),
                                  "look at the mount of the root folder (dmesg)",
                                  {}}}});
  }
}

}  // namespace

void check_drivers(check_context& context) {
  check_thermal(context);
  check_ion(context);
  check_zram(context);
  check_partitions(context);
  check_bpu(context);
  check_vio(context);
}
