// SPDX-License-Identifier: Apache-2.0
#include "line_reader.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <list>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "confinement.h"
#include "memory_wait.h"
#include "samplers/clock.h"

namespace {

constexpr size_t most_threads = 4;
constexpr size_t most_waiting = 1024;
// A line is mostly there within microseconds. A thread that takes so long for one hangs.
constexpr int64_t hanging_us = 1000000;

}  // namespace

// Shared with its threads, which may outlive the reader.
struct line_reader::thread_group : std::enable_shared_from_this<thread_group> {
  struct read_under_way {
    int32_t pid;
    int64_t started_us;
  };

  // Starts a thread unless there is one that will come to what waits.
  void see_to_waiting() {
    const int64_t now_us = samplers::monotonic_us();
    const auto hangs = [now_us](const read_under_way& one) {
      return now_us - one.started_us >= hanging_us;
    };
    const bool all_hang =
        under_way.size() == count && std::all_of(under_way.begin(), under_way.end(), hangs);
    if (waiting.empty() || !all_hang || count >= most_threads) {
      return;
    }
    try {
      std::thread([self = shared_from_this()] { self->run(); }).detach();
      ++count;
    } catch (const std::system_error&) {
      // Tried again with the next call.
    }
  }

  void run() {
    drop_bpf_capabilities();
    // Made here, since nobody waits for memory with the lock held.
    auto own = when_memory_allows([] { return std::list<read_under_way>(1); });
    std::unique_lock<std::mutex> guard(lock);
    // One thread is enough to wait for work.
    while (!stopped && (!waiting.empty() || !idle)) {
      if (waiting.empty()) {
        idle = true;
        work.wait(guard, [this] { return stopped || !waiting.empty(); });
        idle = false;
      } else {
        read_one(guard, own);
      }
    }
    --count;
  }

  void read_one(std::unique_lock<std::mutex>& guard, std::list<read_under_way>& own) {
    const process next = waiting.front();
    waiting.pop_front();
    const auto mine = own.begin();
    *mine = {next.pid, samplers::monotonic_us()};
    under_way.splice(under_way.end(), own);
    guard.unlock();
    const std::string line = when_memory_allows([&] { return read(next.pid); });
    when_memory_allows([&] {
      const std::lock_guard<std::mutex> results_guard(lock);
      results.push_back({next, line});
    });
    guard.lock();
    own.splice(own.begin(), under_way, mine);
  }

  job read;
  std::mutex lock;  // guards what follows
  std::condition_variable work;
  std::deque<process> waiting;
  std::list<read_under_way> under_way;
  std::vector<result> results;
  size_t count = 0;   // threads
  bool idle = false;  // one of them waits for work
  bool stopped = false;
};

line_reader::line_reader(job read) : threads(std::make_shared<thread_group>()) {
  threads->read = std::move(read);
}

line_reader::~line_reader() {
  const std::lock_guard<std::mutex> guard(threads->lock);
  threads->stopped = true;
  threads->work.notify_all();
}

bool line_reader::ask(process one) {
  const std::lock_guard<std::mutex> guard(threads->lock);
  const auto& under_way = threads->under_way;
  const bool at_it = std::any_of(under_way.begin(), under_way.end(),
                                 [&](const auto& read) { return read.pid == one.pid; });
  if (at_it || threads->waiting.size() >= most_waiting) {
    return false;
  }
  threads->waiting.push_back(one);
  threads->see_to_waiting();
  threads->work.notify_one();
  return true;
}

std::vector<line_reader::result> line_reader::take() {
  const std::lock_guard<std::mutex> guard(threads->lock);
  threads->see_to_waiting();
  return std::exchange(threads->results, {});
}
