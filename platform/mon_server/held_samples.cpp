// SPDX-License-Identifier: Apache-2.0
#include "held_samples.h"

#include <algorithm>
#include <numeric>
#include <tuple>

#include "handlers.h"

namespace {

// No sample that old is answered again, so that the next interval starts at the session's newest.
constexpr int64_t start_unused_us = 10 * 1000000LL;
// Three of the longest cycles that are usual. A client that comes back after that has rates since
// the newest sample that anybody had taken.
constexpr int64_t gone_us = 180 * 1000000LL;

size_t size_of(const samplers::cpu_sample& sample) {
  return sizeof sample + sample.cpus.capacity() * sizeof sample.cpus[0];
}

template <class sample_with_entries>
size_t size_of(const sample_with_entries& sample) {
  return sizeof sample + sample.entries.capacity() * sizeof sample.entries[0];
}

// Calls `take` with each interval whose samples grow with the machine, and the number of its kind.
template <class function>
void for_each_interval(session_state& state, function take) {
  take(state.processes, 0);
  take(state.threads, 1);
  take(state.cpus, 2);
  take(state.blocks, 3);
  take(state.net_devices, 4);
}

}  // namespace

void held_samples::find(const std::vector<session_state*>& sessions) {
  found.clear();
  for (session_state* const session : sessions) {
    for_each_interval(*session, [this](const auto& interval, int kind) {
      for (const auto* sample : {interval.before.get(), interval.now.get()}) {
        if (sample != nullptr) {
          found.push_back({kind, sample->time_us, sample, size_of(*sample)});
        }
      }
    });
  }
}

// Of `found`: each once, without the two newest of each kind.
void held_samples::keep_older() {
  const auto newest_first = [](const held& a, const held& b) {
    return std::tie(a.kind, b.time_us, a.sample) < std::tie(b.kind, a.time_us, b.sample);
  };
  const auto same = [](const held& a, const held& b) { return a.sample == b.sample; };
  std::sort(found.begin(), found.end(), newest_first);
  found.erase(std::unique(found.begin(), found.end(), same), found.end());
  size_t kept = 0;
  for (size_t i = 0, first_of_kind = 0; i < found.size(); ++i) {
    first_of_kind = found[i].kind == found[first_of_kind].kind ? first_of_kind : i;
    if (i - first_of_kind >= 2) {
      found[kept++] = found[i];
    }
  }
  found.resize(kept);
}

void held_samples::bound(const std::vector<session_state*>& sessions, size_t most_bytes) {
  find(sessions);
  const auto add = [](size_t sum, const held& one) { return sum + one.size; };
  if (std::accumulate(found.begin(), found.end(), size_t{0}, add) <= most_bytes) {
    return;
  }
  keep_older();
  std::sort(found.begin(), found.end(),
            [](const held& a, const held& b) { return a.time_us < b.time_us; });
  size_t size = std::accumulate(found.begin(), found.end(), size_t{0}, add);
  auto first_kept = found.begin();
  for (; size > most_bytes; ++first_kept) {
    size -= first_kept->size;
  }
  const auto goes = [&](const void* sample) {
    return std::any_of(found.begin(), first_kept,
                       [sample](const held& one) { return one.sample == sample; });
  };
  for (session_state* const session : sessions) {
    for_each_interval(*session, [&](auto& interval, int) {
      if (interval.now && goes(interval.now.get())) {
        interval.let_go();
      } else if (interval.before && goes(interval.before.get())) {
        interval.before.reset();
      }
    });
  }
}

void let_go_when_idle(session_state& state, int64_t idle_us) {
  for_each_interval(state, [idle_us](auto& interval, int) {
    if (idle_us >= gone_us) {
      interval.let_go();
    } else if (idle_us >= start_unused_us) {
      interval.before.reset();
    }
  });
}
