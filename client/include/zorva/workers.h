// SPDX-License-Identifier: Apache-2.0
// The threads that fill the panels.
#ifndef ZORVA_WORKERS_H
#define ZORVA_WORKERS_H

#include <memory>

class window_info;

// Each is the thread function of a panel, whose `priv` is the monitor object, and runs until the
// program exits. sys_core_thread also fills "process" and "perf".
void common_info_thread(std::shared_ptr<window_info> winfo);
void sys_core_thread(std::shared_ptr<window_info> winfo);
void bpu_thread(std::shared_ptr<window_info> winfo);

// The worker of a process list that had no room when the program started: sys_core_thread looks for
// one only then.
void process_thread(std::shared_ptr<window_info> winfo);

// Returns at once: the VIO panel stays empty, its figures are in the reports. `priv` is the VIO
// client object.
void vio_thread(std::shared_ptr<window_info> winfo);

// Returns once all panels exist.
void wait_until_ready();

#endif
