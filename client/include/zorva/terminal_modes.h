// SPDX-License-Identifier: Apache-2.0
// The modes of the terminal on standard input: the shell's, the reports', the full screen's.
#ifndef ZORVA_TERMINAL_MODES_H
#define ZORVA_TERMINAL_MODES_H

#include <termios.h>

#include <mutex>

// False when the terminal belongs to another job now: changing its modes, or reading it, would stop
// this process. True as well when standard input is no terminal. May be called in a signal handler.
bool terminal_is_ours();

// Held by whoever takes the terminal away from the keyboard loop: while it is the shell's, because
// this job is stopped, and for good when a signal ends the program.
extern std::mutex terminal_taken;

// Key by key and without echo, for the keyboard loop. Nothing else is changed; does nothing if it
// is so already, or if the terminal is not ours. Waits for `terminal_taken`.
void set_key_mode();

// Gives back, at the end of the keyboard loop, the modes that key mode took the place of. Those are
// the ones that the loop found, unless the terminal was another job's then.
void leave_key_mode(const termios& found);

// As set_key_mode(), if the keyboard loop wants it; the caller has `terminal_taken`.
void resume_key_mode();

// Line by line and with echo. Does not wait, and may be called in a signal handler.
void set_line_mode();

// Note what the shell left the terminal in, and what curses made of it. To be called by the main
// thread right before and after curses begins; a job in the background stops first, until it is the
// terminal's, since its modes are somebody else's as long as it is not.
void note_shell_modes();
void note_screen_modes();

// Give the terminal the modes that were noted. The shell's are also given when the terminal belongs
// to another job now but still has the full screen's: this job was stopped by a signal that leaves
// no time. Both may be called in a signal handler.
void give_shell_modes();
void give_screen_modes();

#endif
