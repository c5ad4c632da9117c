// SPDX-License-Identifier: Apache-2.0
// Whether curses can show a full screen on this terminal.
#ifndef ZORVA_TERMINAL_CHECK_H
#define ZORVA_TERMINAL_CHECK_H

// Says on standard error what to do when TERM names no terminal that can show a full screen. To be
// called before curses begins, which ends the program with 1 when it does not know the terminal.
void advise_on_terminal();

#endif
