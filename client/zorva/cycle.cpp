// SPDX-License-Identifier: Apache-2.0
#include "zorva/cycle.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include "common_func.h"

int rest_of_cycle(int cycle_ms, timeval& time1, timeval& time2) {
  constexpr uint64_t longest = std::numeric_limits<int>::max();
  const auto loss_time = static_cast<int>(std::min(time_diff(time1, time2), longest));
  const int64_t rest = int64_t{cycle_ms} - loss_time;
  return static_cast<int>(std::max<int64_t>(rest, -1));
}
