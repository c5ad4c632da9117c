// SPDX-License-Identifier: Apache-2.0
#include "confinement.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <vector>

#include "samplers/rights.h"

namespace {

#if defined(__x86_64__)
constexpr uint32_t own_architecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr uint32_t own_architecture = AUDIT_ARCH_AARCH64;
#else
#error "no seccomp architecture known for this processor"
#endif

// A security module could forbid the same in fewer words; but one that does (Landlock) also keeps
// its process from looking into others, which the figures of sockets and accelerators want.
constexpr uint32_t refused_calls[] = {
#ifndef __SANITIZE_ADDRESS__  // whose search for leaks traces the process
    SYS_ptrace,
#endif
    // Other programs.
    SYS_execve,
    SYS_execveat,
    SYS_memfd_create,
    // Other processes.
    SYS_process_vm_readv,
    SYS_process_vm_writev,
    SYS_kcmp,
    SYS_kill,
    SYS_tkill,
    SYS_rt_sigqueueinfo,
    SYS_rt_tgsigqueueinfo,
    434 /* pidfd_open */,
    424 /* pidfd_send_signal */,
    438 /* pidfd_getfd */,
    440 /* process_madvise */,
    SYS_move_pages,
    SYS_migrate_pages,
    SYS_userfaultfd,
    SYS_add_key,
    SYS_request_key,
    SYS_keyctl,
    // Other ways to open a file, and other views of the file system.
    SYS_open_by_handle_at,
    425 /* io_uring_setup */,
    437 /* openat2 */,
    SYS_setns,
    SYS_unshare,
    SYS_chroot,
    SYS_pivot_root,
    SYS_mount,
    SYS_umount2,
    428 /* open_tree */,
    429 /* move_mount */,
    430 /* fsopen */,
    433 /* fspick */,
    442 /* mount_setattr */,
    // Changes of files.
    SYS_truncate,
    SYS_ftruncate,
    SYS_fallocate,
    SYS_mkdirat,
    SYS_mknodat,
    SYS_unlinkat,
    SYS_renameat,
    SYS_renameat2,
    SYS_linkat,
    SYS_symlinkat,
    SYS_fchmod,
    SYS_fchmodat,
    452 /* fchmodat2 */,
    SYS_fchown,
    SYS_fchownat,
    SYS_setxattr,
    SYS_lsetxattr,
    SYS_fsetxattr,
#if defined(__x86_64__)
    SYS_creat,
    SYS_fork,
    SYS_vfork,
    SYS_mkdir,
    SYS_mknod,
    SYS_unlink,
    SYS_rmdir,
    SYS_rename,
    SYS_link,
    SYS_symlink,
    SYS_chmod,
    SYS_chown,
    SYS_lchown,
#endif
};

// Which argument of a call is looked at: the call is refused where one of `bits` is set in it.
struct flagged_call {
  uint32_t call;
  uint32_t argument;
  uint32_t bits;
};
constexpr uint32_t writing = O_ACCMODE | O_CREAT | O_TRUNC;
constexpr flagged_call refused_flags[] = {
    {SYS_openat, 2, writing},
#if defined(__x86_64__)
    {SYS_open, 1, writing},
#endif
};

sock_filter load(size_t offset) {
  return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(offset));
}

std::vector<sock_filter> filter_program() {
  constexpr uint32_t refuse = SECCOMP_RET_ERRNO | EPERM;
  std::vector<sock_filter> program = {
    load(offsetof(seccomp_data, arch)),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, own_architecture, 1, 0),
    BPF_STMT(BPF_RET | BPF_K, refuse),
    load(offsetof(seccomp_data, nr)),
#if defined(__x86_64__)
    // The same calls by the numbers of the x32 interface.
    BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, 0x40000000, 0, 1),
    BPF_STMT(BPF_RET | BPF_K, refuse),
#endif
  };
  for (const uint32_t call : refused_calls) {
    program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1));
    program.push_back(BPF_STMT(BPF_RET | BPF_K, refuse));
  }
  for (const flagged_call& one : refused_flags) {
    // Both processors are little-endian: the low half of an argument is at its start.
    const size_t argument = offsetof(seccomp_data, args) + one.argument * sizeof(uint64_t);
    const sock_filter check[] = {
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, one.call, 0, 4),  load(argument),
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, one.bits, 0, 1), BPF_STMT(BPF_RET | BPF_K, refuse),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    program.insert(program.end(), std::begin(check), std::end(check));
  }
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  return program;
}

bool has_counters() {
  return access("/proc/sys/kernel/perf_event_paranoid", F_OK) == 0;
}

// Of those that the thread has, no others are left. It cannot get them back, nor can a program that
// it would run.
int keep_capabilities(uint64_t kept) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[2] = {};
  if (syscall(SYS_capget, &header, sets) != 0) {
    return -errno;
  }
  for (size_t i = 0; i < 2; ++i) {
    sets[i].permitted &= static_cast<uint32_t>(kept >> (32 * i));
    sets[i].effective &= sets[i].permitted;
    sets[i].inheritable = 0;
  }
  return syscall(SYS_capset, &header, sets) == 0 ? 0 : -errno;
}

uint64_t capabilities(bool bpf) {
  const auto bit = [](int capability) { return uint64_t{1} << capability; };
  uint64_t kept = bit(CAP_SYS_PTRACE) | bit(CAP_DAC_READ_SEARCH);
  if (bpf) {
    kept |= bit(samplers::cap_bpf);
  }
  if (bpf || has_counters()) {
    kept |= bit(samplers::cap_perfmon);
  }
  return kept;
}

}  // namespace

int confine(bool use_bpf) {
  const bool bpf = use_bpf && access("/sys/kernel/btf/vmlinux", F_OK) == 0;
  const int ret = keep_capabilities(capabilities(bpf));
  if (ret < 0) {
    return ret;
  }
  std::vector<sock_filter> instructions = filter_program();
  const sock_fprog program{static_cast<unsigned short>(instructions.size()), instructions.data()};
  const bool done = prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
                    prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
  return done ? 0 : -errno;
}

void drop_bpf_capabilities() {
  keep_capabilities(capabilities(false));
}
