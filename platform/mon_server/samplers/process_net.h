// SPDX-License-Identifier: Apache-2.0
// TCP traffic of processes: the bytes of sockets, and whose sockets they are.
//
// The kernel tells each socket's bytes and inode number; which process has it open is only to be
// found by walking the descriptors of processes, which costs more than all the rest. So a socket's
// owner is looked for when bytes have moved through it, and not before; those who had sockets
// before are asked first, then the youngest processes, and a sample spends 2 ms of CPU time on it.
// While a search goes on, the figure of a process that has yet to be asked is unknown, unless
// sockets of its own are known. What moves before the owner is found is nobody's.
#ifndef SAMPLERS_PROCESS_NET_H
#define SAMPLERS_PROCESS_NET_H

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "samplers/file_reader.h"
#include "samplers/process_accounts.h"
#include "samplers/process_walk.h"
#include "samplers/processes.h"
#include "samplers/socket_dump.h"

namespace samplers {

class process_net {
 public:
  // Fills in net_bytes. It stays unknown for processes of another network namespace, for those
  // whose namespace or descriptors this server may not see, and in a tree that stands in for the
  // machine.
  // The kernel walks its whole table of connections for a dump, however few there are, so that one
  // younger than `max_age_us` is used again, and one of very many sockets for a multiple of what it
  // cost.
  void add_to(const file_reader& machine, int64_t max_age_us, process_sample& sample);

  // What the kernel answered when it was asked for its sockets last: 0 or a negative errno.
  int dump_error() const { return last_dump_error; }

 private:
  struct known_socket {
    uint64_t bytes = 0;
    uint32_t seen = 0;  // sample that it was last seen in
    int32_t owner = 0;  // process id, 0 if unknown
    int32_t descriptor = 0;
    uint64_t owner_start_ticks = 0;
    uint32_t next_try = 0;  // sample from which on its owner is looked for again
    uint32_t tries = 0;
  };
  // A socket through which bytes have moved since the sample before.
  struct traffic {
    uint32_t inode;
    known_socket* socket;
    uint64_t bytes;
  };

  void take_dump();
  void credit_owners(const file_reader& machine, const process_sample& sample, int64_t end_us);
  static const process_entry* owner_of(const process_sample& sample, const known_socket& socket);
  static bool is_open(const file_reader& machine, const traffic& one);
  void find_owners(const file_reader& machine, const process_sample& sample, int64_t end_us);
  void ask_owners(const process_sample& sample, int64_t end_us, const process_walk::visitor& visit);
  bool ask_process(const file_reader& machine, const process_entry& process, int32_t& next);
  bool is_counted(const process_entry& process) const;
  bool is_known(const process_sample& sample, const process_entry& entry) const;
  void forget_gone_sockets();
  void fill_in(process_sample& sample) const;

  socket_dump dump;
  std::vector<tcp_socket> dumped;
  int last_dump_error = 0;
  int64_t dumped_us = 0;      // when the last dump had been dealt with; 0: never
  int64_t dump_cost_us = 0;   // with what followed
  uint64_t dumped_ticks = 0;  // uptime at the dump
  uint32_t turn = 0;          // counts dumps
  uint32_t own_namespace = 0;
  std::unordered_map<uint64_t, known_socket> sockets;  // by cookie
  process_accounts carried;                            // bytes, of sockets with known owners
  std::vector<traffic> moved;                          // in this sample
  size_t check_from = 0;         // the one of `moved` whose owner is asked for it first
  std::vector<traffic> unowned;  // of `moved`, by inode
  size_t missing = 0;            // of those, without an owner yet
  int32_t ask_from = 0;          // the process that is asked first, of those who had sockets
  process_walk walk;
};

}  // namespace samplers

#endif
