// SPDX-License-Identifier: Apache-2.0
// Switching the performance counters on and off.
#ifndef ZORVA_PERF_SWITCH_H
#define ZORVA_PERF_SWITCH_H

class cpu_stat_manager;
class windows_manager;

// -EBUSY, which a client library answers while another client has the counters, or when it took
// them.
constexpr int counters_taken_errno = -16;

// Takes the counters for this client, from another client if need be, and logs each step and
// failure. Returns the last status: negative when this client did not get them.
int take_perf_counters(cpu_stat_manager& cpu);

// Takes the counters' panel off the screen and gives its room to the process list.
void close_perf_panel(windows_manager& winds);

// Which time it is that this client has the counters on, by the key. Any thread.
unsigned turn_of_counters();

// Another client has taken the counters, as a request of that turn has told: they are off, and
// their panel goes. Changes nothing when the key has switched them on again since.
void lose_perf_counters(windows_manager& winds, unsigned turn);

// What the key `p` does: the counters on when they are off, off when they are on; on the full
// screen their panel comes and goes with them. Runs on the main thread.
void switch_perf();

#endif
