// The modes of the terminal on standard input. All of these may be called in a signal handler.
#ifndef ZORVA_TERMINAL_MODES_H
#define ZORVA_TERMINAL_MODES_H

// False when the terminal belongs to another job now: changing its modes, or reading it, would stop
// this process. True as well when standard input is no terminal.
bool terminal_is_ours();

// Key by key and without echo, or line by line with it. Nothing else is changed, nor anything when
// it is so already, or when the terminal is not ours.
void set_key_mode();
void set_line_mode();

#endif
