// SPDX-License-Identifier: Apache-2.0
// Time of processes on accelerators, by the DRM usage statistics of their descriptors; see
// "DRM client usage stats" in the kernel's documentation (gpu/drm-usage-stats.rst).
#ifndef SAMPLERS_PROCESS_BPU_H
#define SAMPLERS_PROCESS_BPU_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "samplers/file_descriptor.h"
#include "samplers/file_reader.h"
#include "samplers/process_accounts.h"
#include "samplers/process_walk.h"
#include "samplers/processes.h"

namespace samplers {

// One open file of an accelerator, of the text of its fdinfo.
struct drm_usage {
  std::string client;    // device and client id: the same for descriptors that share the open file
  uint64_t busy_ns = 0;  // over all engines, each divided by how many there are of its kind
};

// False when the text is not of a DRM file, or has no client id or no engine that counts time.
bool parse_drm_usage(std::string_view text, drm_usage& usage);

class process_bpu {
 public:
  // Fills in bpu_ns. It stays unknown where there is no accelerator (nothing in /dev/dri and
  // /dev/accel), and for processes that this server may not look into.
  void add_to(const file_reader& machine, process_sample& sample);

  // There was an accelerator when the last sample was taken.
  bool has_accelerator() const { return turn != 0; }

 private:
  struct open_file {
    int32_t pid;
    int32_t descriptor;
    bool operator<(const open_file& other) const {
      return pid != other.pid ? pid < other.pid : descriptor < other.descriptor;
    }
  };
  struct client {
    uint64_t busy_ns = 0;
    uint32_t seen = 0;  // sample that it was last seen in
  };

  void forget_all();
  void watch_devices(const file_reader& machine);
  bool opened_since_last_time() const;
  void look_for_files(const file_reader& machine, const process_sample& sample);
  void read_files(const file_reader& machine, const process_sample& sample);
  void take_usage(const drm_usage& usage, const process_entry& process);
  void fill_in(process_sample& sample) const;

  file_descriptor openings;  // inotify(7): a device was opened
  bool searching = true;     // a device was opened, and not all processes have been asked since
  bool searched = false;     // all were asked once: what is found now was opened since
  process_walk walk;
  uint32_t turn = 0;  // counts samples; 0 without an accelerator
  std::set<open_file> files;
  std::map<std::string, client> clients;
  process_accounts busy;  // ns
  std::string text;
};

}  // namespace samplers

#endif
