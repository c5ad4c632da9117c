// SPDX-License-Identifier: Apache-2.0
// The full screen.
#ifndef ZORVA_TUI_H
#define ZORVA_TUI_H

class signal_guard;

// Builds the panels and starts their threads, reads keys until `q`, and takes all of it down again.
void run_tui(signal_guard& signals);

#endif
