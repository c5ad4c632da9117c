// SPDX-License-Identifier: Apache-2.0
// Ctrl-Z, fg and bg: stopping and going on with the terminal whole on either side.
#ifndef ZORVA_JOB_CONTROL_H
#define ZORVA_JOB_CONTROL_H

#include <functional>

class windows_manager;

// Gives the terminal back to the shell, stops the process, and takes the terminal again once the
// process goes on. `winds` is the full screen's manager while curses has the terminal, else null.
// Nothing paints meanwhile.
//
// A full screen that goes on in the background stops again, as it could not be seen, unless
// `end_is_near` says that a signal is about to end the program. Reports go on there.
void stop_job(windows_manager* winds, const std::function<bool()>& end_is_near);

// The same for a process that goes on after a stop which left it no time (SIGSTOP).
void resume_job(windows_manager* winds, const std::function<bool()>& end_is_near);

#endif
