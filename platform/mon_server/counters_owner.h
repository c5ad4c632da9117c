// SPDX-License-Identifier: Apache-2.0
// The performance counters, which belong to one session at a time.
#ifndef COUNTERS_OWNER_H
#define COUNTERS_OWNER_H

#include <memory>

#include "mon_records.h"
#include "samplers/counters.h"

// What a session knows of the counters.
struct counters_claim {
  bool refused = false;  // its last enable was answered -EBUSY: its next disable takes them
  bool lost = false;     // another session took them from it
};

// Results are 0 or a negative errno. A session is known by its claim's address.
class counters_owner {
 public:
  // Starts counting for the session. -EBUSY while another one has the counters.
  int enable(counters_claim& claim);

  // Stops counting when the session has the counters. Takes them from whoever has them when the
  // session's last enable was refused; changes nothing otherwise.
  int disable(counters_claim& claim);

  // Counts since the session's last read, or since it was enabled. -EBUSY when another session has
  // the counters, or took them from this one; -EINVAL when this one never asked for them.
  int read(counters_claim& claim, perf_sample& sample);

  // The session ends.
  void release(counters_claim& claim);

 private:
  void stop();

  // Counting is done on this machine, whatever tree its other figures are read from.
  struct open_counters {
    const samplers::file_reader machine{""};
    samplers::counter_set set{machine};
  };

  counters_claim* holder = nullptr;
  std::unique_ptr<open_counters> counters;  // while there is a holder
  samplers::counter_reading last;
  bool lack_told = false;  // the log says that descriptors are lacking
  bool failure_told = false;
};

#endif
