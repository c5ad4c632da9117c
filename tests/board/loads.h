// SPDX-License-Identifier: Apache-2.0
// Processes of known behaviour.
#ifndef LOADS_H
#define LOADS_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <vector>

constexpr uid_t ordinary_user = 1000;

constexpr char strange_name[] = ") R 1 (\x1b[7m\n";

// In memory that the loads share with the test.
struct shared_counts {
  std::atomic<uint64_t> received;  // bytes, by `receiver`
};

// All but `busy` run on CPU 1, with the test and the server.
struct loads {
  loads();
  ~loads();
  loads(const loads&) = delete;
  loads& operator=(const loads&) = delete;

  shared_counts* counts;
  pid_t busy;     // all of CPU 0
  pid_t threads;  // one of its three threads runs about a third of the time
  pid_t zombie;
  pid_t stopped;
  pid_t blocked;    // state D
  pid_t niced;      // by 7
  pid_t real_time;  // SCHED_FIFO, priority 10
  pid_t other_net;  // in a network namespace of its own
  pid_t memory;     // touched 32 MiB of its own and 16 MiB shared
  pid_t strange;    // is called `strange_name`
  pid_t of_user;    // of `ordinary_user`
  pid_t writer;     // to a block device
  pid_t sender;     // over TCP, to `receiver`
  pid_t receiver;

  // Those that do nothing at all.
  std::vector<pid_t> idle() const {
    return {zombie, stopped, blocked, niced, real_time, other_net, memory, strange, of_user};
  }

 private:
  // A process that does `set_up` before this returns, and `live` again and again after it.
  pid_t start(const std::function<void()>& set_up, const std::function<void()>& live);
  pid_t start(const std::function<void()>& set_up);
  void start_connection();

  std::vector<pid_t> all;
};

#endif
