// Samples that sessions share, and what a session keeps of them.
//
// A sample never changes once it is taken. Each session keeps the two that it saw last, so that its
// rates are over its own cycle, whoever had the samples taken.
#ifndef SNAPSHOTS_H
#define SNAPSHOTS_H

#include <cstdint>
#include <memory>
#include <utility>

#include "samplers/clock.h"

template <class sample>
class snapshot_source {
 public:
  // The newest sample: one that `take` (sample& -> 0 or a negative errno) takes now, or the last
  // one while it is young enough to stand for now. Null, and the error, when taking one fails.
  template <class function>
  std::shared_ptr<const sample> newest(function take, int& error) {
    // Ten clients that ask within a tenth of a second cost one sampling; a tenth of a second is
    // also ten clock ticks, below which CPU shares would be mostly rounding.
    constexpr int64_t young_us = 100000;
    error = 0;
    if (last && samplers::monotonic_us() - last->time_us < young_us) {
      return last;
    }
    auto taken = std::make_shared<sample>();
    error = take(*taken);
    if (error < 0) {
      return nullptr;
    }
    last = std::move(taken);
    return last;
  }

 private:
  std::shared_ptr<const sample> last;
};

// The interval that a session's rates are over.
template <class sample>
struct rate_interval {
  std::shared_ptr<const sample> before;  // null: nothing was seen before `now`
  std::shared_ptr<const sample> now;

  // Ends the interval with `newest`. The same sample twice leaves the interval, and its rates, as
  // they were.
  void advance(std::shared_ptr<const sample> newest) {
    if (newest != now) {
      before = std::move(now);
      now = std::move(newest);
    }
  }
  void reset() {
    before.reset();
    now.reset();
  }
};

#endif
