#include "samplers/process_net.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string_view>
#include <utility>

#include "samplers/clock.h"
#include "samplers/process_descriptors.h"
#include "samplers/text.h"

namespace samplers {
namespace {

// A dump that races with changes may leave a socket out: its count is kept for so many samples, or
// all that it ever carried would seem new when it is back.
constexpr uint32_t kept_turns = 8;

// An owner that is not found (another user's process, a container's, the kernel itself) is looked
// for after 2, 4, 8 ... samples.
constexpr uint32_t longest_pause = 256;

// The inode number of "socket:[12345]", 0 of anything else.
uint32_t socket_inode(std::string_view target) {
  constexpr std::string_view start = "socket:[";
  if (!starts_with(target, start) || target.back() != ']') {
    return 0;
  }
  const uint64_t inode = to_u64(target.substr(start.size(), target.size() - start.size() - 1));
  return inode <= UINT32_MAX ? static_cast<uint32_t>(inode) : 0;
}

uint32_t namespace_of_this_process() {
  struct stat status {};
  return stat("/proc/self/ns/net", &status) == 0 ? static_cast<uint32_t>(status.st_ino) : 0;
}

}  // namespace

void process_net::add_to(const file_reader& machine, int64_t young_us, process_sample& sample) {
  if (own_namespace == 0) {
    own_namespace = namespace_of_this_process();
  }
  sample.net_time_us = 0;
  if (!machine.own_machine || own_namespace == 0) {
    return;
  }
  if (dumped_us == 0 || monotonic_us() - dumped_us >= young_us) {
    if (dump.read(dumped) != 0) {
      return;
    }
    ++turn;
    take_dump();
    credit_owners(machine, sample);
    if (!unowned.empty()) {
      find_owners(machine, sample);
    }
    forget_gone(sample);
    dumped_us = monotonic_us();
  }
  sample.net_time_us = dumped_us;
  fill_in(sample);
}

// What the first dump shows was carried before anybody looked.
void process_net::take_dump() {
  moved.clear();
  for (const tcp_socket& one : dumped) {
    const auto [place, is_new] = sockets.try_emplace(one.cookie);
    known_socket& known = place->second;
    if (is_new && dumped_us == 0) {
      known.bytes = one.bytes;
    }
    if (one.bytes > known.bytes) {
      moved.push_back({one.inode, &known, one.bytes - known.bytes});
    }
    known.bytes = one.bytes;
    known.seen = turn;
  }
}

// A socket may have been handed on since the sample before (a server that forks for each
// connection), so its owner is asked for it again.
void process_net::credit_owners(const file_reader& machine, const process_sample& sample) {
  unowned.clear();
  for (const traffic& one : moved) {
    known_socket& socket = *one.socket;
    if (socket.owner != 0) {
      const descriptor_link link(machine, socket.owner, socket.descriptor);
      if (socket_inode(link.target()) == one.inode) {
        credit(sample, socket.owner, one.bytes);
        continue;
      }
      socket.owner = 0;
      socket.tries = 0;
      socket.next_try = turn;
    }
    if (socket.next_try <= turn) {
      unowned.push_back(one);
    }
  }
}

void process_net::find_owners(const file_reader& machine, const process_sample& sample) {
  std::vector<int32_t> owner_ids;
  for (const auto& [pid, account] : owners) {
    owner_ids.push_back(pid);
  }
  for (const int32_t pid : owner_ids) {
    const process_entry* process = find_process(sample, pid);
    if (process != nullptr && ask_process(machine, sample, *process)) {
      return;
    }
  }
  const bool round_completed = walk.go_on(sample, [&](const process_entry& process) {
    return !is_counted(process) || !ask_process(machine, sample, process);
  });
  if (!round_completed) {
    return;
  }
  for (const traffic& one : unowned) {
    one.socket->tries = std::min(one.socket->tries + 1, longest_pause);
    one.socket->next_try = turn + std::min(1U << std::min(one.socket->tries, 8U), longest_pause);
  }
}

bool process_net::is_counted(const process_entry& process) const {
  return process.descriptors_seen && process.net_namespace == own_namespace;
}

bool process_net::may_have_others(const process_sample& sample, const process_entry& process) {
  const bool whole_process = !sample.threads || process.num_threads == 1;
  const bool known = whole_process && process.state != 'R';  // a running one's figure may lag
  const asked now{process.start_ticks, known ? process.activity : 0};
  const asked before = std::exchange(last_asked[process.pid], now);
  return now.activity == 0 || now.activity != before.activity ||
         now.start_ticks != before.start_ticks;
}

// Credits a process with the traffic of those sockets that it has open. True when that was all.
bool process_net::ask_process(const file_reader& machine, const process_sample& sample,
                              const process_entry& process) {
  if (!may_have_others(sample, process)) {
    return false;
  }
  const int32_t pid = process.pid;
  for_each_descriptor(machine, pid, [&](int32_t number, std::string_view target) {
    const uint32_t inode = socket_inode(target);
    const auto found = inode == 0
                           ? unowned.end()
                           : std::find_if(unowned.begin(), unowned.end(),
                                          [&](const traffic& one) { return one.inode == inode; });
    if (found != unowned.end()) {
      found->socket->owner = pid;
      found->socket->descriptor = number;
      credit(sample, pid, found->bytes);
      unowned.erase(found);
    }
    return !unowned.empty();
  });
  return unowned.empty();
}

void process_net::credit(const process_sample& sample, int32_t pid, uint64_t bytes) {
  const process_entry* process = find_process(sample, pid);
  if (process == nullptr) {
    return;  // came or went while the sample was taken
  }
  owner& account = owners[pid];
  if (account.start_ticks != process->start_ticks) {
    account = {process->start_ticks, 0};
  }
  account.bytes += bytes;
}

void process_net::forget_gone(const process_sample& sample) {
  for (auto one = sockets.begin(); one != sockets.end();) {
    one = turn - one->second.seen > kept_turns ? sockets.erase(one) : std::next(one);
  }
  if (last_asked.size() > 2 * sample.entries.size()) {
    last_asked.clear();  // most of them have gone
  }
  for (auto one = owners.begin(); one != owners.end();) {
    const process_entry* process = find_process(sample, one->first);
    const bool gone = process == nullptr || process->start_ticks != one->second.start_ticks;
    one = gone ? owners.erase(one) : std::next(one);
  }
}

void process_net::fill_in(process_sample& sample) const {
  for (process_entry& entry : sample.entries) {
    if (is_counted(entry)) {
      const auto account = owners.find(sample.process_of(entry));
      entry.net_bytes = account == owners.end() ? 0 : account->second.bytes;
    }
  }
}

}  // namespace samplers
