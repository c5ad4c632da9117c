// Samples that sessions share, and what a session keeps of them.
//
// A sample never changes once it is taken. Each session keeps the two that it saw last, so that its
// rates are over its own cycle, whoever had the samples taken.
#ifndef SNAPSHOTS_H
#define SNAPSHOTS_H

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

#include "samplers/clock.h"

// How often a client asks for a figure, and how old one may be that it is given.
class client_cycle {
 public:
  void ask() { asked_us = samplers::monotonic_us(); }

  // Four fifths of the time since the client asked last. However many clients there are, one sample
  // a cycle then mostly serves them all, and rates stay true, since they are over the time between
  // samples. A tenth of a second is ten clock ticks, below which CPU shares would be mostly
  // rounding.
  int64_t young_us() const {
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
    cycle.ask();
    if (newest != now) {
      before = std::move(now);
      now = std::move(newest);
    }
  }
  void reset() { *this = {}; }

  int64_t young_us() const { return cycle.young_us(); }

 private:
  client_cycle cycle;
};

template <class sample>
class snapshot_source {
 public:
  // Ends the interval with the newest sample: with one that `take` takes now, or with the last one
  // if that is young enough for it. `take` is given the sample to fill in and the last one, which
  // may be null, and returns 0 or a negative errno. 0, or why taking one failed; the interval is
  // then left without its start.
  template <class function>
  int end_interval(rate_interval<sample>& interval, function take) {
    if (!last || samplers::monotonic_us() - last->time_us >= interval.young_us()) {
      interval.before.reset();  // so that its memory may serve for the new one
      const std::shared_ptr<sample> taken = unused_sample();
      const int error = take(*taken, last.get());
      if (error < 0) {
        return error;
      }
      last = taken;
    }
    interval.advance(last);
    return 0;
  }

 private:
  // One that nobody looks at any more, with the memory that it has grown to, or a new one. Of those
  // that nobody looks at no more than one is kept.
  std::shared_ptr<sample> unused_sample() {
    const auto unused = [](const std::shared_ptr<sample>& one) { return one.use_count() == 1; };
    const auto first = std::find_if(all.begin(), all.end(), unused);
    if (first == all.end()) {
      all.push_back(std::make_shared<sample>());
      return all.back();
    }
    std::shared_ptr<sample> found = *first;
    all.erase(std::remove_if(std::next(first), all.end(), unused), all.end());
    return found;
  }

  std::shared_ptr<const sample> last;
  std::vector<std::shared_ptr<sample>> all;
};

#endif
