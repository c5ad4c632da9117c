// SPDX-License-Identifier: Apache-2.0
#include "process_lists.h"

#include <algorithm>
#include <array>
#include <asio/post.hpp>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <tuple>
#include <utility>

#include "confinement.h"
#include "memory_wait.h"
#include "mon_records.h"
#include "obstacles.h"
#include "samplers/clock.h"
#include "server_log.h"

namespace {

// Below the client's own time-out of 2 s.
constexpr std::chrono::milliseconds longest_wait{1800};

// A list that is not made by then is answered with the one before of its view and key. Where files
// of /proc are read, ten thousand processes take half of that.
constexpr std::chrono::milliseconds patience_with_bpf{30};
constexpr std::chrono::milliseconds patience_without{150};
constexpr int64_t most_old_us = 10 * 1000000LL;

// A view's samples take a quarter of the thread's time at most, both views' a half.
constexpr int64_t rest_after_sample = 3;

// The lists that were made last. Clients of one view and sort key mostly ask for the same one;
// those whose cycles are out of step see other samples.
class list_cache {
 public:
  // The list of the interval by the key: one that was made before, or a new one.
  std::shared_ptr<const process_list> list(const process_lists::interval& over, int sort_key) {
    const identity wanted{over.before ? over.before->time_us : -1, over.now->time_us,
                          over.now->threads, sort_key};
    for (const made_list& one : made) {
      if (one.of == wanted) {
        return one.list;
      }
    }
    next = (next + 1) % made.size();
    made[next] = {wanted, make(over, sort_key)};
    return made[next].list;
  }

 private:
  // Times of the two samples (-1 without a first), view, sort key.
  using identity = std::tuple<int64_t, int64_t, bool, int>;
  struct made_list {
    identity of{};
    std::shared_ptr<const process_list> list;
  };

  std::shared_ptr<const process_list> make(const process_lists::interval& over, int sort_key) {
    top_pid_info top{};
    ranking.top(over.before.get(), *over.now, sort_key, top);
    const size_t size =
        offsetof(top_pid_info, send_pid_info) + static_cast<size_t>(top.pid_num) * sizeof(pid_msg);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&top);
    return std::make_shared<process_list>(process_list{
        {bytes, bytes + size},
        std::make_shared<samplers::process_identities>(ranking.processes_of_list(*over.now))});
  }

  samplers::process_ranking ranking;
  std::array<made_list, 8> made;
  size_t next = 0;
};

}  // namespace

// Shared with its thread, which may outlive the lists.
struct process_lists::maker : std::enable_shared_from_this<maker> {
  struct job {
    uint64_t number;
    request wanted;
  };
  using receiver = std::function<void(uint64_t, const list_kind&, const result&)>;

  maker(std::shared_ptr<const samplers::file_reader> root,
        const samplers::process_sampler_options& options)
      : machine(std::move(root)), sampler(machine, options) {}

  // False when no thread can be had.
  bool add(job one) {
    std::unique_lock<std::mutex> guard(lock);
    if (!started) {
      try {
        std::thread([self = shared_from_this()] { self->run(); }).detach();
      } catch (const std::system_error&) {
        return false;
      }
      started = true;
    }
    jobs.push_back(std::move(one));
    guard.unlock();  // or the thread would wake only to wait for the lock
    work.notify_one();
    return true;
  }

  void remove(uint64_t number) {
    const std::lock_guard<std::mutex> guard(lock);
    const auto found = std::find_if(jobs.begin(), jobs.end(),
                                    [number](const job& one) { return one.number == number; });
    if (found != jobs.end()) {
      jobs.erase(found);
    }
  }

  void release() {
    const std::lock_guard<std::mutex> guard(lock);
    release_wanted = started;
    work.notify_one();
  }

  void stop() {
    const std::lock_guard<std::mutex> guard(lock);
    stopped = true;
    jobs.clear();
    work.notify_one();
  }

  void run() {
    std::unique_lock<std::mutex> guard(lock);
    while (true) {
      work.wait(guard, [this] { return stopped || release_wanted || !jobs.empty(); });
      if (stopped) {
        return;
      }
      if (std::exchange(release_wanted, false)) {
        guard.unlock();
        sampler.release();
        guard.lock();
        continue;
      }
      job next = std::move(jobs.front());
      jobs.pop_front();
      guard.unlock();
      const list_kind kind{next.wanted.threads, next.wanted.sort_key};
      const result made = try_to_make(std::move(next.wanted));
      when_memory_allows([&] {
        const std::lock_guard<std::mutex> hand_over_guard(lock);
        if (!stopped) {
          hand_over(next.number, kind, made);
        }
      });
      guard.lock();
    }
  }

  // The thread's own. -ENOMEM costs the client that asked its connection.
  result try_to_make(request wanted) {
    try {
      return make(std::move(wanted));
    } catch (const std::bad_alloc&) {
      sampler.release();  // it may be in the middle of a sample
      return {-ENOMEM, {}, nullptr};
    }
  }
  result make(request wanted) {
    result made;
    made.over = std::move(wanted.over);
    const int64_t max_age_us = made.over.max_age_us();
    const auto read = [&](samplers::process_sample& sample, const samplers::process_sample*) {
      return sampler.read(wanted.threads, max_age_us, sample);
    };
    made.error = (wanted.threads ? threads : processes).sample_into(made.over, read);
    if (made.error < 0) {
      return made;
    }
    if (!std::exchange(way_told, true)) {
      tell_way();
      if (!sampler.uses_bpf()) {
        drop_bpf_capabilities();
      }
    }
    made.list = ranked.list(made.over, wanted.sort_key);
    made.by_bpf = sampler.uses_bpf();
    return made;
  }

  // How processes are read, into the log.
  void tell_way() const {
    if (sampler.uses_bpf()) {
      return server_log(log_priority::info, "processes are read by a BPF program");
    }
    std::string text = "processes are read from files of /proc";
    if (sampler.why_not_bpf().error == 0) {
      return server_log(log_priority::info, text);
    }
    kernel_facts kernel(*machine);
    text += ", not by BPF: " + log_text(bpf_obstacle(kernel, sampler.why_not_bpf()));
    server_log(log_priority::info, text);
  }

  receiver hand_over;  // written before the thread starts; called with `lock` held

  std::mutex lock;  // guards what follows
  std::condition_variable work;
  std::deque<job> jobs;
  bool started = false;
  bool release_wanted = false;
  bool stopped = false;

  // The thread's own.
  const std::shared_ptr<const samplers::file_reader> machine;
  samplers::process_sampler sampler;
  snapshot_source<samplers::process_sample> processes{rest_after_sample};
  snapshot_source<samplers::process_sample> threads{rest_after_sample};
  list_cache ranked;
  bool way_told = false;  // the log says how processes are read
};

process_lists::process_lists(asio::io_context& event_loop,
                             std::shared_ptr<const samplers::file_reader> machine,
                             const samplers::process_sampler_options& options)
    : loop(event_loop),
      thread(std::make_shared<maker>(std::move(machine), options)),
      patience(patience_without) {
  thread->hand_over = [this](uint64_t number, const list_kind& kind, const result& made) {
    asio::post(loop, [this, number, kind, made] { take(number, kind, made); });
  };
}

process_lists::~process_lists() {
  thread->stop();
}

uint64_t process_lists::ask(request wanted, const reply& to_answer) {
  const uint64_t number = ++last_number;
  const list_kind kind{wanted.threads, wanted.sort_key};
  if (answer_at_once(kind, wanted.over, to_answer)) {
    return number;
  }
  if (!thread->add({number, std::move(wanted)})) {
    to_answer({-EAGAIN, {}, nullptr});
    return number;
  }
  if (!std::exchange(rights_dropped, true)) {
    drop_bpf_capabilities();  // the thread has its own
  }
  waiters.try_emplace(number, waiter{kind, to_answer, asio::steady_timer(loop)});
  wait_for(number, patience, [this, number] { answer_with_older(number); });
  return number;
}

// With the list that was made last, where the thread would find that it is the one: clients in step
// cost it nothing.
bool process_lists::answer_at_once(const list_kind& kind, interval& over,
                                   const reply& to_answer) const {
  const auto made = made_last.find(kind);
  if (made == made_last.end() || !over.now || made->second.before.lock() != over.now ||
      samplers::monotonic_us() - made->second.made_us >= over.max_age_us()) {
    return false;
  }
  const auto now = made->second.now.lock();
  if (!now) {
    return false;
  }
  over.advance(now);
  to_answer({0, over, made->second.list});
  return true;
}

// Calls `late` unless the request has been answered by then.
void process_lists::wait_for(uint64_t number, std::chrono::milliseconds limit,
                             const std::function<void()>& late) {
  asio::steady_timer& deadline = waiters.at(number).deadline;
  deadline.expires_after(limit);
  deadline.async_wait([this, number, late](const asio::error_code& error) {
    if (!error && waiters.count(number) > 0) {
      late();
    }
  });
}

void process_lists::answer_with_older(uint64_t number) {
  const auto older = made_last.find(waiters.at(number).kind);
  if (older != made_last.end() && samplers::monotonic_us() - older->second.made_us < most_old_us) {
    thread->remove(number);
    settle(number, {0, {}, older->second.list});
    return;
  }
  wait_for(number, longest_wait - patience, [this, number] {
    thread->remove(number);
    settle(number, {-ETIMEDOUT, {}, nullptr});
  });
}

// Of a request that has been settled meanwhile the list still serves the next one.
void process_lists::take(uint64_t number, const list_kind& kind, const result& made) {
  if (made.error == 0) {
    patience = made.by_bpf ? patience_with_bpf : patience_without;
    made_last[kind] = {made.list, samplers::monotonic_us(), made.over.before, made.over.now};
  }
  settle(number, made);
}

void process_lists::settle(uint64_t number, const result& made) {
  const auto waiting = waiters.find(number);
  if (waiting != waiters.end()) {
    const reply to_answer = std::move(waiting->second.answer);
    waiters.erase(waiting);
    to_answer(made);
  }
}

void process_lists::drop(uint64_t number) {
  const auto waiting = waiters.find(number);
  if (waiting != waiters.end()) {
    thread->remove(number);
    waiters.erase(waiting);
  }
}

void process_lists::release() {
  made_last.clear();
  thread->release();
}
