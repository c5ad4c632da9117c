#include "counters_owner.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "server_log.h"

namespace {

constexpr char rights_wanted[] =
    " (they want CAP_PERFMON or kernel.perf_event_paranoid at 0; Debian's kernels give them to "
    "CAP_PERFMON only with kernel.perf_event_paranoid at 2 or less)";

}  // namespace

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
      server_log(log_priority::warning, "no counters: " + std::string(strerror(-ret)) +
                                            (ret == -EACCES ? rights_wanted : ""));
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
