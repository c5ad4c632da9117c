// SPDX-License-Identifier: Apache-2.0
// The length of a cycle, less what its work took.
#ifndef ZORVA_CYCLE_H
#define ZORVA_CYCLE_H

#include <sys/time.h>

// Milliseconds left of a cycle of `cycle_ms` that began at `time1`, now being `time2`; negative
// when its work took longer. A clock that was set forward by months looks like a long cycle, and
// does not overflow into a long wait.
int rest_of_cycle(int cycle_ms, timeval& time1, timeval& time2);

#endif
