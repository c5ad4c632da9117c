// SPDX-License-Identifier: Apache-2.0
#include "obstacles.h"

#include <linux/capability.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "samplers/rights.h"
#include "samplers/text.h"

namespace {

using samplers::cap_bpf;
using samplers::cap_perfmon;

// "CAP_BPF and CAP_PERFMON"
std::string names_of(const std::vector<int>& capabilities) {
  std::string names;
  for (const int one : capabilities) {
    names += (names.empty() ? "" : " and ") + capability_name(one);
  }
  return names;
}

std::vector<int> missing_of(std::initializer_list<int> wanted) {
  std::vector<int> missing;
  for (const int one : wanted) {
    if (!samplers::has_capability(one)) {
      missing.push_back(one);
    }
  }
  return missing;
}

bool has_all(std::initializer_list<int> wanted) {
  return missing_of(wanted).empty() && samplers::in_initial_user_namespace();
}

bool is_refused(int error) {
  return error == -EPERM || error == -EACCES;
}

// Of a kernel that refuses what the capabilities allow.
obstacle other_refusal(const std::string& call, int error) {
  if (!is_refused(error)) {
    return {call + ": " + strerror(-error), "look at the kernel's log (dmesg)", {}};
  }
  return {
      call + ": " + strerror(-error) + ", with the capabilities that it wants",
      "look for a seccomp filter (a container's profile) or a security module that refuses " + call,
      {}};
}

// Kernels before 5.11 count BPF as locked memory.
bool may_lack_locked_memory(const kernel_facts& kernel) {
  constexpr rlim_t enough = 1 << 20;
  rlimit limit{};
  return kernel.is_before(5, 11) && getrlimit(RLIMIT_MEMLOCK, &limit) == 0 &&
         limit.rlim_cur < enough;
}

// The kernel keeps its memory from everybody then, BPF programs among them.
bool is_locked_down() {
  const std::string state = samplers::file_reader("").read_line("sys/kernel/security/lockdown");
  return state.find("[confidentiality]") != std::string::npos;
}

bool holds_nothing(const samplers::file_reader& machine, const char* folder) {
  std::vector<std::string> names;
  return machine.list(folder, names) != 0 || names.empty();
}

// What a missing file tells: that its whole file system is missing, an option, or a driver.
obstacle missing_file_obstacle(kernel_facts& kernel, const std::string& path, const char* option) {
  if (samplers::starts_with(path, "/proc/") && holds_nothing(kernel.machine, "proc")) {
    return {"/proc is empty", "mount -t proc proc /proc", {}};
  }
  if (samplers::starts_with(path, "/sys/") && holds_nothing(kernel.machine, "sys")) {
    return {"/sys is empty", "mount -t sysfs sysfs /sys", {}};
  }
  const std::string what = "there is no " + path;
  const bool of_proc = samplers::starts_with(path, "/proc/");
  const obstacle present{what,
                         of_proc ? "look how /proc is mounted (subset=pid leaves it out)"
                                 : "look at its driver (dmesg)",
                         {}};
  return option == nullptr ? present : option_obstacle(kernel, what, option, present);
}

obstacle refused_bpf(const kernel_facts& kernel, int error) {
  if (!has_all({cap_bpf, cap_perfmon})) {
    return rights_obstacle("bpf(2)", {cap_bpf, cap_perfmon});
  }
  if (may_lack_locked_memory(kernel)) {
    return {"the limit of locked memory is too low for BPF before Linux 5.11",
            "ulimit -l 65536, or LimitMEMLOCK=64M in a unit",
            {}};
  }
  return other_refusal("bpf(2)", error);
}

}  // namespace

std::string capability_name(int capability) {
  switch (capability) {
    case CAP_SYS_PTRACE:
      return "CAP_SYS_PTRACE";
    case CAP_DAC_READ_SEARCH:
      return "CAP_DAC_READ_SEARCH";
    case cap_bpf:
      return "CAP_BPF";
    case cap_perfmon:
      return "CAP_PERFMON";
    default:
      return "capability " + std::to_string(capability);
  }
}

std::string log_text(const obstacle& one) {
  return one.remedy.empty()
             ? one.why
             : one.why + "; " + one.remedy + (one.detail.empty() ? "" : ": " + one.detail);
}

obstacle option_obstacle(kernel_facts& kernel, const std::string& why, const char* option,
                         const obstacle& when_on) {
  const std::string name = option;
  switch (kernel.find(option)) {
    case kernel_option::on:
      return when_on;
    case kernel_option::module:
      return {why + ": " + name + " is a module of this kernel that is not loaded",
              "load it with modprobe(8)",
              {}};
    case kernel_option::off:
      return {why + ": " + name + " is off in this kernel", "build the kernel with " + name, {}};
    default:
      return {why + ": " + name + " seems to be off in this kernel",
              "build the kernel with " + name,
              {}};
  }
}

obstacle version_obstacle(const kernel_facts& kernel, const char* since) {
  return {std::string("needs Linux ") + since + " or later, this is " + kernel.release, {}, {}};
}

obstacle rights_obstacle(const std::string& why, std::initializer_list<int> wanted) {
  const std::vector<int> missing = missing_of(wanted);
  if (!missing.empty()) {
    return {why + " wants " + names_of(missing),
            "start it as root, or with these capabilities (AmbientCapabilities= of a unit)",
            {}};
  }
  if (!samplers::in_initial_user_namespace()) {
    return {why + " wants " + names_of(wanted) + " of the initial user namespace",
            "start it outside of the container",
            {}};
  }
  return {why + " is refused, with the capabilities that it wants",
          "look for a security module that refuses it",
          {}};
}

obstacle descriptors_obstacle() {
  return {
      "too few descriptors", "raise the hard limit of open files (ulimit -Hn, LimitNOFILE=)", {}};
}

obstacle file_obstacle(kernel_facts& kernel, const std::string& path, int error,
                       const char* option) {
  const std::string what = path + ": " + strerror(-error);
  if (is_refused(error)) {
    return missing_of({CAP_DAC_READ_SEARCH}).empty()
               ? obstacle{what, "look at the file's mode and for a security module", {}}
               : rights_obstacle(path, {CAP_DAC_READ_SEARCH});
  }
  if (error == -EMFILE || error == -ENFILE) {
    return descriptors_obstacle();
  }
  return error == -ENOENT ? missing_file_obstacle(kernel, path, option)
                          : obstacle{what, "look at the kernel's log (dmesg)", {}};
}

// The order matters: a pid namespace hides the file of types, and without types no right helps.
obstacle bpf_obstacle(kernel_facts& kernel, const samplers::bpf_refusal& refusal) {
  const int error = refusal.error;
  if (error == -EMFILE) {
    return descriptors_obstacle();
  }
  if (kernel.is_before(5, 8)) {
    return version_obstacle(kernel, "5.8");
  }
  if (!samplers::in_initial_pid_namespace()) {
    return {"it is in a pid namespace of its own",
            "start it outside of the container, or in one that shares the machine's pids",
            {}};
  }
  if (error == -EOPNOTSUPP) {
    return {"this program was built without it", "install a build with ZORVA_BPF=ON", {}};
  }
  const char* const types = "/sys/kernel/btf/vmlinux";
  if (access(types, R_OK) != 0) {
    return file_obstacle(kernel, types, -errno, "CONFIG_DEBUG_INFO_BTF");
  }
  obstacle refused{std::string("the kernel refuses the program: ") + strerror(-error),
                   "report this with the version of the kernel", refusal.said};
  if (error == -ENOSYS) {
    return option_obstacle(kernel, "there is no bpf(2)", "CONFIG_BPF_SYSCALL", refused);
  }
  if (error == -EPERM) {
    return refused_bpf(kernel, error);
  }
  if (is_locked_down()) {
    return {"the kernel is locked down (confidentiality)",
            "boot it with lockdown=integrity, or without lockdown",
            {}};
  }
  for (const char* option : {"CONFIG_BPF_EVENTS", "CONFIG_TASK_IO_ACCOUNTING"}) {
    if (kernel.find(option) == kernel_option::off) {
      return option_obstacle(kernel, "the program wants more of the kernel", option, refused);
    }
  }
  return refused;
}

obstacle sockets_obstacle(kernel_facts& kernel, int error) {
  obstacle refused{std::string("sock_diag(7): ") + strerror(-error),
                   "look for a filter of system calls, or RestrictAddressFamilies=",
                   {}};
  switch (error) {
    case -EMFILE:
    case -ENFILE:
      return descriptors_obstacle();
    case -EPROTONOSUPPORT:
    case -EOPNOTSUPP:
      return option_obstacle(kernel, "no sock_diag(7)", "CONFIG_INET_DIAG", refused);
    case -ENOENT:
      return option_obstacle(kernel, "no sock_diag(7) of TCP", "CONFIG_INET_TCP_DIAG", refused);
    default:
      return refused;
  }
}

obstacle counters_obstacle(kernel_facts& kernel, int error) {
  const char* const file = "proc/sys/kernel/perf_event_paranoid";
  const std::string setting = kernel.machine.read_line(file);
  if (error == -EMFILE) {
    return descriptors_obstacle();
  }
  if (setting.empty()) {
    return file_obstacle(kernel, std::string("/") + file, -ENOENT, "CONFIG_PERF_EVENTS");
  }
  const std::string paranoid = "kernel.perf_event_paranoid is " + setting;
  if (error == -ENODEV) {
    return {"/sys/devices/system/cpu/online names no CPU", "look whether /sys is mounted", {}};
  }
  const char* const allow = "sysctl kernel.perf_event_paranoid=0";
  if (is_refused(error) && kernel.is_before(5, 8)) {
    return {paranoid + ", and there is no CAP_PERFMON before Linux 5.8", allow, {}};
  }
  if (is_refused(error) && !has_all({cap_perfmon})) {
    obstacle lacking = rights_obstacle(paranoid + ", so that counting", {cap_perfmon});
    lacking.remedy += std::string(", or: ") + allow;
    return lacking;
  }
  // A setting that Debian's and Android's kernels know: only CAP_SYS_ADMIN helps, which the server
  // gives up.
  if (is_refused(error) && setting >= "3") {
    return {
        paranoid + ", which refuses CAP_PERFMON too", "sysctl kernel.perf_event_paranoid=2", {}};
  }
  return other_refusal("perf_event_open(2)", error);
}

obstacle hardware_events_obstacle(kernel_facts& kernel) {
  obstacle none{
      "the kernel knows no PMU of this processor (on a board: is it in the device "
      "tree?)",
      {},
      {}};
#ifdef __aarch64__
  if (kernel.find("CONFIG_ARM_PMU") == kernel_option::off) {
    return option_obstacle(kernel, "no driver of the PMU", "CONFIG_ARM_PMU", none);
  }
#else
  static_cast<void>(kernel);
#endif
  return none;
}

obstacle pressure_obstacle(kernel_facts& kernel, const std::string& path, int error) {
  obstacle off{"pressure is switched off", "boot the kernel with psi=1", {}};
  if (kernel.is_before(4, 20)) {
    return version_obstacle(kernel, "4.20");
  }
  if (error == -EOPNOTSUPP) {
    return off;
  }
  return error == -ENOENT && kernel.find("CONFIG_PSI") == kernel_option::on
             ? off
             : file_obstacle(kernel, path, error, "CONFIG_PSI");
}
