// SPDX-License-Identifier: Apache-2.0
#include "samplers/process_bpu.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

#include "samplers/clock.h"
#include "samplers/process_descriptors.h"
#include "samplers/text.h"

namespace samplers {
namespace {

// A search of all processes is spread over samples, such that it adds less to each than reading the
// processes costs.
constexpr int64_t longest_search_us = 2000;

constexpr const char* device_folders[] = {"/dev/dri", "/dev/accel"};

bool is_device(std::string_view target) {
  return starts_with(target, "/dev/dri/") || starts_with(target, "/dev/accel/");
}

bool has_devices(const file_reader& machine) {
  std::vector<std::string> names;
  return std::any_of(std::begin(device_folders), std::end(device_folders), [&](const char* folder) {
    return machine.list(folder + 1, names) == 0 && !names.empty();
  });
}

// An engine's figures, which may come in any order.
struct engine {
  std::string_view name;
  uint64_t busy_ns = unknown_u64;
  uint64_t capacity = 1;
};

engine& engine_called(std::string_view name, std::vector<engine>& engines) {
  const auto found = std::find_if(engines.begin(), engines.end(),
                                  [name](const engine& one) { return one.name == name; });
  return found != engines.end() ? *found : engines.emplace_back(engine{name});
}

void take_engine(std::string_view label, std::string_view value, std::vector<engine>& engines) {
  constexpr std::string_view busy = "drm-engine-";
  constexpr std::string_view capacity = "drm-engine-capacity-";
  if (starts_with(label, capacity)) {
    const uint64_t count = to_u64(take_word(value));
    engine_called(label.substr(capacity.size()), engines).capacity =
        count == 0 || count == unknown_u64 ? 1 : count;
  } else if (starts_with(label, busy)) {
    const uint64_t time = to_u64(take_word(value));
    if (take_word(value) == "ns") {
      engine_called(label.substr(busy.size()), engines).busy_ns = time;
    }
  }
}

}  // namespace

bool parse_drm_usage(std::string_view text, drm_usage& usage) {
  std::string_view device;
  std::string_view id;
  std::vector<engine> engines;
  while (!text.empty()) {
    std::string_view line = take_line(text);
    std::string_view label = take_word(line);
    if (label.empty() || label.back() != ':') {
      continue;
    }
    label.remove_suffix(1);
    if (label == "drm-pdev") {
      device = take_word(line);
    } else if (label == "drm-client-id") {
      id = take_word(line);
    } else {
      take_engine(label, line, engines);
    }
  }
  usage = drm_usage();
  bool known = false;
  for (const engine& one : engines) {
    if (one.busy_ns != unknown_u64) {
      usage.busy_ns += one.busy_ns / one.capacity;
      known = true;
    }
  }
  usage.client.append(device).append(" ").append(id);
  return known && !id.empty();
}

void process_bpu::add_to(const file_reader& machine, process_sample& sample) {
  if (!has_devices(machine)) {
    forget_all();
    return;
  }
  ++turn;
  watch_devices(machine);
  if (opened_since_last_time()) {
    searching = true;
    walk.restart();
  }
  if (searching) {
    look_for_files(machine, sample);
  }
  read_files(machine, sample);
  busy.forget_gone(sample);
  fill_in(sample);
}

void process_bpu::forget_all() {
  *this = process_bpu();
}

// A tree that stands in for the machine cannot tell: there all are asked in each sample.
void process_bpu::watch_devices(const file_reader& machine) {
  if (!machine.own_machine || openings) {
    return;
  }
  openings = file_descriptor(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  for (const char* folder : device_folders) {
    inotify_add_watch(openings.get(), folder, IN_OPEN);
  }
}

bool process_bpu::opened_since_last_time() const {
  if (!openings) {
    return true;
  }
  alignas(inotify_event) char events[4096];
  bool opened = false;
  while (read(openings.get(), events, sizeof events) > 0) {
    opened = true;
  }
  return opened;
}

void process_bpu::look_for_files(const file_reader& machine, const process_sample& sample) {
  const auto look = [&](const process_entry& process, int32_t& next) {
    for_some_descriptors(machine, process.pid, next, [&](int32_t number, std::string_view target) {
      if (is_device(target)) {
        files.insert({process.pid, number});
      }
      return true;
    });
    return true;
  };
  const bool all_asked = walk.go_on(sample, thread_time_us() + longest_search_us, look);
  searching = searching && !all_asked;
}

void process_bpu::read_files(const file_reader& machine, const process_sample& sample) {
  for (auto file = files.begin(); file != files.end();) {
    char path[64];
    std::snprintf(path, sizeof path, "proc/%d/fdinfo/%d", file->pid, file->descriptor);
    const process_entry* process = find_process(sample, file->pid);
    drm_usage usage;
    const bool readable =
        process != nullptr && machine.read(path, text) == 0 && parse_drm_usage(text, usage);
    if (readable) {
      take_usage(usage, *process);
    }
    file = readable ? std::next(file) : files.erase(file);
  }
  searched = searched || !searching;
  for (auto one = clients.begin(); one != clients.end();) {
    one = one->second.seen != turn ? clients.erase(one) : std::next(one);
  }
}

// Descriptors that share an open file (dup, fork) show the same counter: it counts once.
void process_bpu::take_usage(const drm_usage& usage, const process_entry& process) {
  const auto [place, is_new] = clients.try_emplace(usage.client);
  client& known = place->second;
  if (known.seen == turn) {
    return;
  }
  if (is_new && !searched) {
    known.busy_ns = usage.busy_ns;
  }
  busy.add(process, usage.busy_ns > known.busy_ns ? usage.busy_ns - known.busy_ns : 0);
  known = {usage.busy_ns, turn};
}

void process_bpu::fill_in(process_sample& sample) const {
  for (process_entry& entry : sample.entries) {
    if (entry.descriptors_seen) {
      entry.bpu_ns = busy.total(sample, entry);
    }
  }
}

}  // namespace samplers
