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
#include "server_log.h"

namespace {

// Below the client's own time-out of 2 s.
constexpr std::chrono::milliseconds longest_wait{1800};

// A view's samples take a quarter of the thread's time at most, both views' a half.
constexpr int64_t rest_after_sample = 3;

// The lists that were made last. Clients of one view and sort key mostly ask for the same one;
// those whose cycles are out of step see other samples.
class ranked_processes {
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
  using receiver = std::function<void(uint64_t, const result&)>;

  maker(std::shared_ptr<const samplers::file_reader> machine,
        const samplers::process_sampler_options& options)
      : sampler(std::move(machine), options) {}

  // False when no thread can be had.
  bool add(job one) {
    const std::lock_guard<std::mutex> guard(lock);
    if (!started) {
      try {
        std::thread([self = shared_from_this()] { self->run(); }).detach();
      } catch (const std::system_error&) {
        return false;
      }
      started = true;
    }
    jobs.push_back(std::move(one));
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
      const result made = try_to_make(std::move(next.wanted));
      when_memory_allows([&] {
        const std::lock_guard<std::mutex> hand_over_guard(lock);
        if (!stopped) {
          hand_over(next.number, made);
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
    const int64_t young_us = made.over.young_us();
    const auto read = [&](samplers::process_sample& sample, const samplers::process_sample*) {
      return sampler.read(wanted.threads, young_us, sample);
    };
    made.error = (wanted.threads ? threads : processes).end_interval(made.over, read);
    if (made.error < 0) {
      return made;
    }
    if (!std::exchange(way_told, true)) {
      server_log(log_priority::info, sampler.way());
      if (!sampler.uses_bpf()) {
        drop_bpf_capabilities();
      }
    }
    made.list = ranked.list(made.over, wanted.sort_key);
    return made;
  }

  receiver hand_over;  // written before the thread starts; called with `lock` held

  std::mutex lock;  // guards what follows
  std::condition_variable work;
  std::deque<job> jobs;
  bool started = false;
  bool release_wanted = false;
  bool stopped = false;

  // The thread's own.
  samplers::process_sampler sampler;
  snapshot_source<samplers::process_sample> processes{rest_after_sample};
  snapshot_source<samplers::process_sample> threads{rest_after_sample};
  ranked_processes ranked;
  bool way_told = false;  // the log says how processes are read
};

process_lists::process_lists(asio::io_context& event_loop,
                             std::shared_ptr<const samplers::file_reader> machine,
                             const samplers::process_sampler_options& options)
    : loop(event_loop), thread(std::make_shared<maker>(std::move(machine), options)) {
  thread->hand_over = [this](uint64_t number, const result& made) {
    asio::post(loop, [this, number, made] { answer(number, made); });
  };
}

process_lists::~process_lists() {
  thread->stop();
}

uint64_t process_lists::ask(request wanted, const reply& to_answer) {
  const uint64_t number = ++last_number;
  if (!thread->add({number, std::move(wanted)})) {
    to_answer({-EAGAIN, {}, nullptr});
    return number;
  }
  if (!std::exchange(rights_dropped, true)) {
    drop_bpf_capabilities();  // the thread has its own
  }
  waiter& waiting =
      waiters.try_emplace(number, waiter{to_answer, asio::steady_timer(loop)}).first->second;
  waiting.deadline.expires_after(longest_wait);
  waiting.deadline.async_wait([this, number](const asio::error_code& error) {
    if (!error) {
      thread->remove(number);
      answer(number, {-ETIMEDOUT, {}, nullptr});
    }
  });
  return number;
}

// The first of result and deadline counts.
void process_lists::answer(uint64_t number, const result& made) {
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
  thread->release();
}
