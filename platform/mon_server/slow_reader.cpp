// SPDX-License-Identifier: Apache-2.0
#include "slow_reader.h"

#include <algorithm>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "confinement.h"
#include "memory_wait.h"
#include "samplers/clock.h"

namespace {

// Below the client's own time-out of 2 s, so that it gets an answer with the rest of the figures.
constexpr int64_t deadline_us = 1000000;
// Drivers' locks are not taken more often than this, however many clients ask.
constexpr int64_t least_young_us = 500000;
constexpr int64_t most_young_us = 1000000;
// Most machines lack some of what is asked for, and none gets it within a moment.
constexpr int64_t nothing_young_us = 3 * 1000000LL;
// A result that came after the deadline answers the next question, if that comes in time.
constexpr int64_t late_us = 10 * 1000000LL;
// Keys come from clients, 64 of them with up to 16 paths each at a time; more are not kept.
constexpr size_t most_entries = 1024;

}  // namespace

struct slow_reader::waiter {
  waiter(asio::io_context& loop, reply to_answer) : answer(std::move(to_answer)), timer(loop) {}

  // The first of result and deadline counts.
  // False when it was settled before.
  bool settle(const std::shared_ptr<const bytes>& result) {
    if (!answer) {
      return false;
    }
    timer.cancel();
    std::exchange(answer, nullptr)(result);
    return true;
  }

  bool settled() const { return !answer; }

  reply answer;
  asio::steady_timer timer;
};

// Shared with its threads, which may outlive the reader.
struct slow_reader::thread_pool : std::enable_shared_from_this<thread_pool> {
  struct task {
    job read;
    std::function<void(const bytes&)> hand_over;  // called with `lock` held, and not once stopped
  };

  // False when there is no thread for it and none can be had.
  bool add(task new_task) {
    std::unique_lock<std::mutex> guard(lock);
    tasks.push_back(std::move(new_task));
    if (idle < tasks.size() && threads < most_threads && !add_thread() && threads == 0) {
      tasks.pop_back();
      return false;
    }
    guard.unlock();  // or the thread would wake only to wait for the lock
    work.notify_one();
    return true;
  }

  bool add_thread() {
    try {
      std::thread([self = shared_from_this()] { self->run(); }).detach();
    } catch (const std::system_error&) {
      return false;
    }
    ++threads;
    return true;
  }

  void run() {
    drop_bpf_capabilities();
    std::unique_lock<std::mutex> guard(lock);
    while (true) {
      ++idle;
      work.wait(guard, [this] { return stopped || !tasks.empty(); });
      --idle;
      if (stopped) {
        return;
      }
      const task next = std::move(tasks.front());
      tasks.pop_front();
      guard.unlock();
      const bytes result = when_memory_allows(next.read);
      when_memory_allows([&] {
        const std::lock_guard<std::mutex> hand_over_guard(lock);
        if (!stopped) {
          next.hand_over(result);
        }
      });
      guard.lock();
    }
  }

  void stop() {
    const std::lock_guard<std::mutex> guard(lock);
    stopped = true;
    tasks.clear();
    work.notify_all();
  }

  size_t most_threads = 1;
  std::mutex lock;  // guards what follows
  std::condition_variable work;
  std::deque<task> tasks;
  size_t threads = 0;
  size_t idle = 0;
  bool stopped = false;
};

slow_reader::slow_reader(asio::io_context& event_loop, size_t threads)
    : loop(event_loop), pool(std::make_shared<thread_pool>()) {
  pool->most_threads = threads;
}

int64_t slow_reader::least_kept_us(const entry& slot) {
  return slot.result && slot.result->empty() ? nothing_young_us : least_young_us;
}

slow_reader::~slow_reader() {
  pool->stop();
}

void slow_reader::ask(const place& where, int64_t max_age_us, const job& read,
                      const reply& answer) {
  forget_old();
  const int64_t now_us = samplers::monotonic_us();
  const auto known = entries.find(where.key);
  if (known != entries.end() && known->second.result) {
    entry& slot = known->second;
    if (slot.not_seen || now_us - slot.ended_us < std::max(max_age_us, least_kept_us(slot))) {
      slot.not_seen = false;
      answer(slot.result);
      return;
    }
  }
  const auto lane = lanes.find(where.lane);
  const bool stuck = lane != lanes.end() && now_us - lane->second >= deadline_us;
  if (stuck || !add_question(where, read)) {
    answer(nullptr);
    return;
  }
  wait_for(where.key, answer);
  start_questions();
}

// False when there are too many.
bool slow_reader::add_question(const place& where, const job& read) {
  entry& slot = entries[where.key];
  if (slot.under_way) {
    return true;
  }
  if (!make_room(where.key)) {
    entries.erase(where.key);
    return false;
  }
  slot.under_way = true;
  // A client with many questions gets far ahead, and those with few come between.
  uint64_t& last = last_turns[where.client];
  last = std::max(last, turn) + 1;
  questions.push_back({where, last, read});
  return true;
}

void slow_reader::start_questions() {
  while (lanes.size() < pool->most_threads) {
    auto next = questions.end();
    for (auto one = questions.begin(); one != questions.end(); ++one) {
      if (lanes.count(one->where.lane) == 0 &&
          (next == questions.end() || one->turn < next->turn)) {
        next = one;
      }
    }
    if (next == questions.end()) {
      return;
    }
    const question started = std::move(*next);
    questions.erase(next);
    turn = std::max(turn, started.turn);
    if (!start(started)) {
      give_up(started.where.key);
    }
  }
}

bool slow_reader::start(const question& next) {
  const auto hand_over = [this, where = next.where](const bytes& result) {
    asio::post(loop, [this, where, result] { ended(where.key, where.lane, result); });
  };
  if (!pool->add({next.read, hand_over})) {
    return false;
  }
  lanes[next.where.lane] = samplers::monotonic_us();
  return true;
}

// Answers whoever waits for the read, which is not under way any more, without a result.
void slow_reader::give_up(const std::string& key) {
  const auto waiters = std::exchange(entries[key].waiters, {});
  entries.erase(key);
  for (const auto& waiting : waiters) {
    waiting->settle(nullptr);
  }
}

// Forgets the oldest result when there are too many entries beside the one of `key`. False when all
// of them are being read.
bool slow_reader::make_room(const std::string& key) {
  if (entries.size() <= most_entries) {
    return true;
  }
  auto oldest = entries.end();
  for (auto one = entries.begin(); one != entries.end(); ++one) {
    const bool removable = !one->second.under_way && one->first != key;
    if (removable && (oldest == entries.end() || one->second.ended_us < oldest->second.ended_us)) {
      oldest = one;
    }
  }
  if (oldest == entries.end()) {
    return false;
  }
  entries.erase(oldest);
  return true;
}

void slow_reader::wait_for(const std::string& key, const reply& answer) {
  auto waiting = std::make_shared<waiter>(loop, answer);
  entries[key].waiters.push_back(waiting);
  waiting->timer.expires_after(std::chrono::microseconds(deadline_us));
  waiting->timer.async_wait([this, waiting, key](const asio::error_code& error) {
    if (error || !waiting->settle(nullptr)) {
      return;
    }
    // A question that nobody waits for any more is not asked.
    const auto mine = std::find_if(questions.begin(), questions.end(),
                                   [&](const question& one) { return one.where.key == key; });
    const auto& waiters = entries[key].waiters;
    if (mine != questions.end() && std::all_of(waiters.begin(), waiters.end(),
                                               [](const auto& one) { return one->settled(); })) {
      questions.erase(mine);
      entries.erase(key);
    }
  });
}

void slow_reader::ended(const std::string& key, const std::string& lane, bytes result) {
  lanes.erase(lane);
  entry& slot = entries[key];
  slot.under_way = false;
  slot.ended_us = samplers::monotonic_us();
  slot.result = std::make_shared<const bytes>(std::move(result));
  const auto waiters = std::exchange(slot.waiters, {});
  const auto kept = slot.result;
  bool seen = false;
  for (const auto& waiting : waiters) {
    seen = waiting->settle(kept) || seen;
  }
  entries[key].not_seen = !seen;
  start_questions();
}

void slow_reader::forget_old() {
  const int64_t now_us = samplers::monotonic_us();
  for (auto one = entries.begin(); one != entries.end();) {
    const int64_t kept_us =
        one->second.not_seen ? late_us : std::max(most_young_us, least_kept_us(one->second));
    const bool old = !one->second.under_way && now_us - one->second.ended_us >= kept_us;
    one = old ? entries.erase(one) : std::next(one);
  }
  for (auto one = last_turns.begin(); one != last_turns.end();) {
    one = questions.empty() || one->second <= turn ? last_turns.erase(one) : std::next(one);
  }
}
