// SPDX-License-Identifier: Apache-2.0
// Samples that sessions share, and what a session keeps of them.
//
// A sample never changes once it is taken. Each session keeps the two that it saw last, so that its
// rates are over its own cycle, whoever had the samples taken.
#ifndef SNAPSHOTS_H
#define SNAPSHOTS_H

#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

#include "samplers/clock.h"

// How often a client asks for a figure, and how old one may be that it is given.
class client_cycle {
 public:
  void note_request() { asked_us = samplers::monotonic_us(); }

  // Four fifths of the time since the client asked last. However many clients there are, one sample
  // a cycle then mostly serves them all, and rates stay true, since they are over the time between
  // samples. A tenth of a second is ten clock ticks, below which CPU shares would be mostly
  // rounding.
  int64_t max_age_us() const {
    constexpr int64_t shortest_us = 100000;
    constexpr int64_t longest_us = 800000;
    const int64_t cycle_us = asked_us != 0 ? samplers::monotonic_us() - asked_us : 0;
    return std::clamp(cycle_us * 4 / 5, shortest_us, longest_us);
  }

 private:
  int64_t asked_us = 0;
};

// The interval that a session's rates are over.
template <class sample>
struct rate_interval {
  std::shared_ptr<const sample> before;  // null: nothing was seen before `now`
  std::shared_ptr<const sample> now;

  // Ends the interval with `newest`. The same sample twice leaves the interval, and its rates, as
  // they were.
  void advance(std::shared_ptr<const sample> newest) {
    cycle.note_request();
    if (newest != now) {
      before = std::move(now);
      now = std::move(newest);
    }
    resumes = false;
  }
  void reset() { *this = {}; }

  // Spares the memory of the samples. The next interval starts at the newest sample that there is
  // then, and is not a first one.
  void let_go() {
    resumes = resumes || now;
    before.reset();
    now.reset();
  }

  int64_t max_age_us() const { return cycle.max_age_us(); }

  bool resumes = false;  // its samples were let go of

 private:
  client_cycle cycle;
};

// The memory of one sample that nobody looks at any more, for the next one. Any thread may put one
// there.
template <class sample>
class spare_sample {
 public:
  std::unique_ptr<sample> take() {
    const std::lock_guard<std::mutex> guard(lock);
    return std::move(spare);
  }
  void put(std::unique_ptr<sample> unused) {
    const std::lock_guard<std::mutex> guard(lock);
    spare.swap(unused);
  }

 private:
  std::mutex lock;  // guards what follows
  std::unique_ptr<sample> spare;
};

// Samples of one kind. One that costs much is kept for a multiple of its cost, however many clients
// ask how often.
template <class sample>
class snapshot_source {
 public:
  // After each sample none is taken for `rest` times as long as it took. The five sources of the
  // event loop thus take less than half of its time.
  explicit snapshot_source(int64_t rest = 10) : rest_factor(rest) {}

  // Ends the interval with the newest sample: with one that `take` takes now, or with the last one
  // if that is young enough for it. `take` is given the sample to fill in and the last one, which
  // may be null, and returns 0 or a negative errno. 0, or why taking one failed, now or when it was
  // tried last; the interval is then left without its start.
  template <class function>
  int sample_into(rate_interval<sample>& interval, function take) {
    const int64_t max_age_us = interval.max_age_us();
    if (interval.resumes) {
      interval.now = is_young(max_age_us) ? previous.lock() : last;
    }
    if (!is_young(max_age_us)) {
      interval.before.reset();  // so that its memory may serve for the new one
    }
    std::shared_ptr<const sample> found;
    const int error = newest(max_age_us, take, found);
    if (error == 0) {
      interval.advance(found);
    }
    return error;
  }

  // The newest sample without an interval: the last one if it is younger than `max_age_us`, else
  // one that `take` takes. 0 or a negative errno.
  template <class function>
  int newest(int64_t max_age_us, function take, std::shared_ptr<const sample>& found) {
    if (!is_young(max_age_us)) {
      const int64_t started_us = samplers::monotonic_us();
      const std::shared_ptr<sample> taken = new_sample();
      last_error = std::min(take(*taken, last.get()), 0);
      ended_us = samplers::monotonic_us();
      cost_us = ended_us - started_us;
      if (last_error == 0) {
        previous = std::exchange(last, taken);
      }
    }
    if (last_error == 0) {
      found = last;
    }
    return last_error;
  }

 private:
  // The age counts from the end, or one that took long would be old at once. What failed is not
  // tried again for as long as it took.
  bool is_young(int64_t max_age_us) const {
    const int64_t kept_us = last_error == 0 ? std::max(max_age_us, rest_factor * cost_us) : cost_us;
    return ended_us != 0 && samplers::monotonic_us() - ended_us < kept_us;
  }

  // With the memory that one grew to which nobody looks at any more.
  std::shared_ptr<sample> new_sample() {
    std::unique_ptr<sample> unused = spare->take();
    if (!unused) {
      unused = std::make_unique<sample>();
    }
    const auto give_back = [to = spare](sample* one) { to->put(std::unique_ptr<sample>(one)); };
    return {unused.release(), give_back};
  }

  const std::shared_ptr<spare_sample<sample>> spare = std::make_shared<spare_sample<sample>>();
  const int64_t rest_factor;
  int64_t ended_us = 0;  // when a sample was last taken or tried; 0: never
  int64_t cost_us = 0;   // of that
  int last_error = 0;    // of that, a negative errno
  std::shared_ptr<const sample> last;
  std::weak_ptr<const sample> previous;  // the one before it, while somebody looks at it
};

#endif
