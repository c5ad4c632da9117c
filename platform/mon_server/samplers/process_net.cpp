// SPDX-License-Identifier: Apache-2.0
#include "samplers/process_net.h"

#include <malloc.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string_view>
#include <utility>

#include "samplers/clock.h"
#include "samplers/process_descriptors.h"
#include "samplers/room.h"
#include "samplers/text.h"

namespace samplers {
namespace {

// A dump that races with changes may leave a socket out: its count is kept for so many samples, or
// all that it ever carried would seem new when it is back.
constexpr uint32_t kept_turns = 8;

// An owner that is not found (another user's process, a container's, the kernel itself) is looked
// for after 2, 4, 8 ... samples.
constexpr uint32_t longest_pause = 256;

// A search of 2,000 processes takes some 40 ms: it is spread over samples, such that it adds less
// to each than reading the processes costs. A quarter of the time is for checking the owners that
// are known, a quarter for asking these for other sockets.
constexpr int64_t longest_search_us = 2000;

// After a dump of very many sockets there is none for so many times as long as it took.
constexpr int64_t rest_after_dump = 4;

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

void process_net::add_to(const file_reader& machine, int64_t max_age_us, process_sample& sample) {
  if (own_namespace == 0) {
    own_namespace = namespace_of_this_process();
  }
  sample.net_time_us = 0;
  if (!machine.own_machine || own_namespace == 0) {
    return;
  }
  const int64_t now_us = monotonic_us();
  const int64_t kept_us = std::max(max_age_us, rest_after_dump * dump_cost_us);
  if (dumped_us == 0 || now_us - dumped_us >= kept_us) {
    last_dump_error = dump.read(dumped);
    if (last_dump_error != 0) {
      return;
    }
    ++turn;
    take_dump();
    const int64_t begin_us = thread_time_us();
    credit_owners(machine, sample, begin_us + longest_search_us / 4);
    if (missing != 0) {
      find_owners(machine, sample, begin_us + longest_search_us);
    }
    forget_gone_sockets();
    dumped_us = monotonic_us();
    dump_cost_us = dumped_us - now_us;
    dumped_ticks = sample.uptime_ticks;
  }
  sample.net_time_us = dumped_us;
  carried.forget_gone(sample);
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
// connection), so its owner is asked for it again. Of very many only some are, in turn.
void process_net::credit_owners(const file_reader& machine, const process_sample& sample,
                                int64_t end_us) {
  unowned.clear();
  bool in_time = true;
  const size_t first = check_from < moved.size() ? check_from : 0;
  for (size_t i = 0; i < moved.size(); ++i) {
    const size_t place = (first + i) % moved.size();
    const traffic& one = moved[place];
    known_socket& socket = *one.socket;
    const process_entry* owner = owner_of(sample, socket);
    if (owner != nullptr && in_time && thread_time_us() > end_us) {
      in_time = false;
      check_from = place;
    }
    if (owner != nullptr && (!in_time || is_open(machine, one))) {
      carried.add(*owner, one.bytes);
      continue;
    }
    if (socket.owner != 0) {
      socket.owner = 0;
      socket.tries = 0;
      socket.next_try = turn;
    }
    if (socket.next_try <= turn) {
      unowned.push_back(one);
    }
  }
  missing = unowned.size();
}

// Null when it is not known or has gone, also when its id has a new owner.
const process_entry* process_net::owner_of(const process_sample& sample,
                                           const known_socket& socket) {
  const process_entry* owner = socket.owner == 0 ? nullptr : find_process(sample, socket.owner);
  return owner != nullptr && owner->start_ticks == socket.owner_start_ticks ? owner : nullptr;
}

bool process_net::is_open(const file_reader& machine, const traffic& one) {
  const descriptor_link link(machine, one.socket->owner, one.socket->descriptor);
  return socket_inode(link.target()) == one.inode;
}

// Half of the time is for those whose turn it is in the walk, however busy the others are.
void process_net::find_owners(const file_reader& machine, const process_sample& sample,
                              int64_t end_us) {
  std::sort(unowned.begin(), unowned.end(),
            [](const traffic& a, const traffic& b) { return a.inode < b.inode; });
  const auto ask = [&](const process_entry& process, int32_t& next) {
    return ask_process(machine, process, next);
  };
  ask_owners(sample, end_us - longest_search_us / 2, ask);
  if (missing == 0 || !walk.go_on(sample, end_us, ask)) {
    return;
  }
  for (const traffic& one : unowned) {
    if (one.socket->owner == 0) {
      one.socket->tries = std::min(one.socket->tries + 1, longest_pause);
      one.socket->next_try = turn + std::min(1U << std::min(one.socket->tries, 8U), longest_pause);
    }
  }
  missing = 0;
}

// Asks those who had sockets before, in turn.
void process_net::ask_owners(const process_sample& sample, int64_t end_us,
                             const process_walk::visitor& visit) {
  std::vector<int32_t> owners = carried.process_ids();
  const auto first = std::lower_bound(owners.begin(), owners.end(), ask_from);
  std::rotate(owners.begin(), first, owners.end());
  for (const int32_t pid : owners) {
    const process_entry* process = find_process(sample, pid);
    ask_from = pid;
    if (thread_time_us() > end_us ||
        (process != nullptr && !walk.visit_one(sample, *process, visit))) {
      return;
    }
  }
}

bool process_net::is_counted(const process_entry& process) const {
  return process.descriptors_seen && process.net_namespace == own_namespace;
}

// Credits a process with the traffic of those sockets that it has open in a piece of its
// descriptors. False when that was all.
bool process_net::ask_process(const file_reader& machine, const process_entry& process,
                              int32_t& next) {
  if (!is_counted(process)) {
    next = 0;
    return true;
  }
  for_some_descriptors(machine, process.pid, next, [&](int32_t number, std::string_view target) {
    const uint32_t inode = socket_inode(target);
    const auto found = inode == 0 ? unowned.end()
                                  : std::lower_bound(unowned.begin(), unowned.end(), inode,
                                                     [](const traffic& one, uint32_t wanted) {
                                                       return one.inode < wanted;
                                                     });
    if (found != unowned.end() && found->inode == inode && found->socket->owner == 0) {
      known_socket& socket = *found->socket;
      socket.owner = process.pid;
      socket.owner_start_ticks = process.start_ticks;
      socket.descriptor = number;
      carried.add(process, found->bytes);
      --missing;
    }
    return missing != 0;
  });
  return missing != 0;
}

void process_net::forget_gone_sockets() {
  for (auto one = sockets.begin(); one != sockets.end();) {
    one = turn - one->second.seen > kept_turns ? sockets.erase(one) : std::next(one);
  }
  bool given_back = give_room_back(dumped);
  given_back = give_room_back(moved) || given_back;
  given_back = give_room_back(unowned) || given_back;
  if (is_too_large(sockets.bucket_count(), sockets.size())) {
    sockets.rehash(0);
    given_back = true;
  }
  if (given_back) {
    malloc_trim(0);  // the sockets lay one by one between what stays
  }
}

// A process that began after the dump may have sockets that are not in it.
bool process_net::is_known(const process_sample& sample, const process_entry& entry) const {
  const process_entry* process =
      sample.threads ? find_process(sample, sample.process_of(entry)) : &entry;
  return is_counted(entry) && process != nullptr && process->start_ticks <= dumped_ticks &&
         (missing == 0 || carried.has(*process) || walk.has_seen(*process));
}

void process_net::fill_in(process_sample& sample) const {
  for (process_entry& entry : sample.entries) {
    if (is_known(sample, entry)) {
      entry.net_bytes = carried.total(sample, entry);
    }
  }
}

}  // namespace samplers
