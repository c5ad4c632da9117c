// SPDX-License-Identifier: Apache-2.0
#include "samplers/inherited_io.h"

#include <tuple>

namespace samplers {
namespace {

// Ancestors that are asked; a chain may be torn, since ids are used again.
constexpr int most_ancestors = 64;

bool comes_before(const process_entry& a, const process_entry& b) {
  return std::tie(a.pid, a.start_ticks) < std::tie(b.pid, b.start_ticks);
}

}  // namespace

void inherited_io::find(const process_sample& before, const process_sample& now) {
  bytes.clear();
  auto later = now.entries.begin();
  for (const process_entry& entry : before.entries) {
    while (later != now.entries.end() && comes_before(*later, entry)) {
      ++later;
    }
    const bool gone = later == now.entries.end() || comes_before(entry, *later);
    if (gone && entry.io_bytes != unknown_u64 && entry.io_bytes != 0) {
      find_heir(entry, before, now);
    }
  }
}

// Its parent, or the first ancestor whose figure can hold the child's when the parent is gone too:
// the parent waited for the child and its own parent for both, or the child got another parent,
// which is one of its ancestors. A parent that lets the kernel drop its children (SIGCHLD ignored)
// takes nothing over, and nobody else does.
void inherited_io::find_heir(const process_entry& child, const process_sample& before,
                             const process_sample& now) {
  int32_t pid = child.ppid;
  for (int i = 0; i < most_ancestors; ++i) {
    const process_entry* ancestor = find_process(before, pid);
    if (ancestor == nullptr) {
      return;
    }
    const process_entry* later = find_process(now, pid);
    const bool there = later != nullptr && later->start_ticks == ancestor->start_ticks;
    const bool keeps_children = there && later->state != 'Z';
    if ((there && take_over(child, *ancestor, *later)) || (keeps_children && i == 0)) {
      return;
    }
    pid = ancestor->ppid;
  }
}

bool inherited_io::take_over(const process_entry& child, const process_entry& before,
                             const process_entry& now) {
  if (before.io_bytes == unknown_u64 || now.io_bytes == unknown_u64 ||
      now.io_bytes < before.io_bytes || now.io_bytes - before.io_bytes - of(now) < child.io_bytes) {
    return false;
  }
  bytes[now.pid] += child.io_bytes;
  return true;
}

uint64_t inherited_io::of(const process_entry& process) const {
  const auto found = bytes.find(process.pid);
  return found == bytes.end() ? 0 : found->second;
}

}  // namespace samplers
