// SPDX-License-Identifier: Apache-2.0
// Process lists, made on a thread of their own: however many processes, threads and sockets there
// are, no other answer waits for them.
#ifndef PROCESS_LISTS_H
#define PROCESS_LISTS_H

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "samplers/file_reader.h"
#include "samplers/process_sampler.h"
#include "samplers/processes.h"
#include "snapshots.h"

// A process list as it is answered, and the processes in it.
struct process_list {
  std::vector<uint8_t> bytes;
  std::shared_ptr<const samplers::process_identities> processes;
};

// Used on the event loop's thread only. One thread takes the samples and ranks them, a request
// after the other. Where that takes long, an answer has the list before, some seconds old, and the
// new one serves the next request. The thread does not read any sample that the event loop still
// refers to into again, and the event loop looks into none. When the program ends the thread is
// left behind.
class process_lists {
 public:
  using interval = rate_interval<samplers::process_sample>;

  struct request {
    bool threads = false;
    int sort_key = sort_by_cpu;
    interval over;  // the session's
  };
  struct result {
    int error = 0;  // 0 or a negative errno: -ETIMEDOUT; then there is nothing else
    interval over;  // ended with the sample that the list is of; empty: it is an older list
    std::shared_ptr<const process_list> list;
    bool by_bpf = false;  // the sample was read by a BPF program
  };
  using reply = std::function<void(const result&)>;

  process_lists(asio::io_context& loop, std::shared_ptr<const samplers::file_reader> machine,
                const samplers::process_sampler_options& options);
  ~process_lists();
  process_lists(const process_lists&) = delete;
  process_lists& operator=(const process_lists&) = delete;

  // Has a list made, and answers later. Returns the request's number, which drop() takes.
  uint64_t ask(request wanted, const reply& answer);

  // Forgets a request that has not been answered yet, and with it what its answer holds.
  void drop(uint64_t number);

  // Closes what is kept open between samples, for when nobody asks for lists.
  void release();

 private:
  struct maker;
  using list_kind = std::pair<bool, int>;  // of threads, sort key
  struct waiter {
    list_kind kind;
    reply answer;
    asio::steady_timer deadline;
  };
  struct made_list {
    std::shared_ptr<const process_list> list;
    int64_t made_us;                                            // monotonic
    std::weak_ptr<const samplers::process_sample> before, now;  // that it is of
  };

  bool answer_at_once(const list_kind& kind, interval& over, const reply& to_answer) const;

  void wait_for(uint64_t number, std::chrono::milliseconds limit,
                const std::function<void()>& late);
  void answer_with_older(uint64_t number);
  void take(uint64_t number, const list_kind& kind, const result& made);
  void settle(uint64_t number, const result& made);

  asio::io_context& loop;
  const std::shared_ptr<maker> thread;
  bool rights_dropped = false;  // the event loop has no right left that only the thread needs
  uint64_t last_number = 0;
  std::map<uint64_t, waiter> waiters;  // by the request's number
  std::map<list_kind, made_list> made_last;
  std::chrono::milliseconds patience;
};

#endif
