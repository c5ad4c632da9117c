// How this terminal leaves the full screen, for when curses cannot be asked any more.
#ifndef ZORVA_SCREEN_EXIT_H
#define ZORVA_SCREEN_EXIT_H

#include <string>

// The bytes that put attributes, cursor and screen of the terminal back (sgr0, cnorm and rmcup of
// terminfo(5)). To be called once curses has begun.
std::string screen_exit_sequence();

#endif
