// Switching the performance counters on and off.
#ifndef ZORVA_PERF_SWITCH_H
#define ZORVA_PERF_SWITCH_H

class cpu_stat_manager;

// Takes the counters for this client, from another client if need be, and logs each step and
// failure. Returns the last status: negative when this client did not get them.
int take_perf_counters(cpu_stat_manager& cpu);

// What the key `p` does: the counters on when they are off, off when they are on. Runs on the main
// thread.
void switch_perf();

#endif
