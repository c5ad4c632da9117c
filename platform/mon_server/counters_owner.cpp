// SPDX-License-Identifier: Apache-2.0
#include "counters_owner.h"

#include <cerrno>
#include <string>
#include <utility>

#include "obstacles.h"
#include "server_log.h"

int counters_owner::enable(counters_claim& claim) {
  if (holder == &claim) {
    return 0;
  }
  claim.refused = holder != nullptr;
  if (claim.refused) {
    return -EBUSY;
  }
  auto opened = std::make_unique<open_counters>();
  int ret = opened->set.open();
  if (ret == 0) {
    ret = opened->set.read(last);
  }
  if (opened->set.lacks_descriptors && !std::exchange(lack_told, true)) {
    server_log(log_priority::warning,
               "too few descriptors (ulimit -n) for all counters: some are unknown");
  }
  if (ret < 0) {
    if (!std::exchange(failure_told, true)) {
      kernel_facts kernel(opened->machine);
      server_log(log_priority::warning, "no counters: " + log_text(counters_obstacle(kernel, ret)));
    }
    return ret;
  }
  counters = std::move(opened);
  holder = &claim;
  claim.lost = false;
  return 0;
}

int counters_owner::disable(counters_claim& claim) {
  if (holder != nullptr && holder != &claim && claim.refused) {
    holder->lost = true;
    stop();
  } else if (holder == &claim) {
    stop();
  }
  claim.refused = false;
  claim.lost = false;
  return 0;
}

int counters_owner::read(counters_claim& claim, perf_sample& sample) {
  if (holder != &claim) {
    return claim.lost || claim.refused || holder != nullptr ? -EBUSY : -EINVAL;
  }
  samplers::counter_reading now;
  const int ret = counters->set.read(now);
  if (ret < 0) {
    return ret;
  }
  sample = samplers::counter_differences(&last, now);
  last = std::move(now);
  return 0;
}

void counters_owner::release(counters_claim& claim) {
  if (holder == &claim) {
    stop();
  }
}

void counters_owner::stop() {
  holder = nullptr;
  counters.reset();
}
