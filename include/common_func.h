// SPDX-License-Identifier: Apache-2.0
// Helpers that the program shares with the monitor client library, which defines them.
#ifndef COMMON_FUNC_H
#define COMMON_FUNC_H

#include <sys/time.h>

#include <cstdint>

// Milliseconds from `t1` to `t2`, rounded down. 0 when `t2` lies before `t1`, which happens when
// the wall clock was set back between the two: a caller that subtracts the result from its cycle
// then waits one whole cycle instead of the length of the step.
uint64_t time_diff(timeval& t1, timeval& t2);

#endif
