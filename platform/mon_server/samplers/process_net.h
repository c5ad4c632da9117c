// TCP traffic of processes: the bytes of sockets, and whose sockets they are.
//
// The kernel tells each socket's bytes and inode number; which process has it open is only to be
// found by walking the descriptors of processes, which costs more than all the rest. So a socket's
// owner is looked for when bytes have moved through it, and not before; those who had sockets
// before are asked first, then the youngest processes, and a sample spends a bounded time on it.
// What moves before the owner is found is nobody's.
#ifndef SAMPLERS_PROCESS_NET_H
#define SAMPLERS_PROCESS_NET_H

#include <cstdint>
#include <map>
#include <unordered_map>
#include <vector>

#include "samplers/file_reader.h"
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
  // younger than `young_us` is used again.
  void add_to(const file_reader& machine, int64_t young_us, process_sample& sample);

 private:
  struct known_socket {
    uint64_t bytes = 0;
    uint32_t seen = 0;  // sample that it was last seen in
    int32_t owner = 0;  // process id, 0 if unknown
    int32_t descriptor = 0;
    uint32_t next_try = 0;  // sample from which on its owner is looked for again
    uint32_t tries = 0;
  };
  struct owner {
    uint64_t start_ticks = 0;
    uint64_t bytes = 0;
  };
  // When a process was asked for its sockets. One that has not run since then has no others.
  struct asked {
    uint64_t start_ticks = 0;
    uint64_t activity = 0;
  };
  // A socket through which bytes have moved since the sample before.
  struct traffic {
    uint32_t inode;
    known_socket* socket;
    uint64_t bytes;
  };

  void take_dump();
  void credit_owners(const file_reader& machine, const process_sample& sample);
  void find_owners(const file_reader& machine, const process_sample& sample);
  bool ask_process(const file_reader& machine, const process_sample& sample,
                   const process_entry& process);
  bool is_counted(const process_entry& process) const;
  bool may_have_others(const process_sample& sample, const process_entry& process);
  void credit(const process_sample& sample, int32_t pid, uint64_t bytes);
  void forget_gone(const process_sample& sample);
  void fill_in(process_sample& sample) const;

  socket_dump dump;
  std::vector<tcp_socket> dumped;
  int64_t dumped_us = 0;  // 0: never
  uint32_t turn = 0;      // counts samples
  uint32_t own_namespace = 0;
  std::unordered_map<uint64_t, known_socket> sockets;  // by cookie
  std::map<int32_t, owner> owners;                     // by process id
  std::unordered_map<int32_t, asked> last_asked;       // by process id
  std::vector<traffic> moved;                          // in this sample
  std::vector<traffic> unowned;                        // of those
  process_walk walk;
};

}  // namespace samplers

#endif
