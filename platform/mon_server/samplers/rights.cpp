// SPDX-License-Identifier: Apache-2.0
#include "samplers/rights.h"

#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace samplers {
namespace {

// Inode numbers of the namespaces that the system started with (the kernel's linux/proc_ns.h).
constexpr ino_t initial_user_namespace = 0xEFFFFFFD;
constexpr ino_t initial_pid_namespace = 0xEFFFFFFC;

bool is_inode(const char* path, ino_t wanted) {
  struct stat status {};
  return stat(path, &status) == 0 && status.st_ino == wanted;
}

}  // namespace

bool has_capability(int capability) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
  return syscall(SYS_capget, &header, sets) == 0 &&
         (sets[capability / 32].effective >> (capability % 32) & 1) != 0;
}

bool in_initial_user_namespace() {
  return is_inode("/proc/self/ns/user", initial_user_namespace);
}

bool in_initial_pid_namespace() {
  return is_inode("/proc/self/ns/pid", initial_pid_namespace);
}

}  // namespace samplers
