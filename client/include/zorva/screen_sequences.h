// SPDX-License-Identifier: Apache-2.0
// How this terminal enters and leaves the full screen, for when curses cannot be asked.
#ifndef ZORVA_SCREEN_SEQUENCES_H
#define ZORVA_SCREEN_SEQUENCES_H

#include <string>

// The bytes that show the full screen without a cursor (smcup and civis of terminfo(5)), and those
// that put attributes, cursor and screen of the terminal back (sgr0, cnorm and rmcup). To be called
// once curses has begun, on the main thread.
std::string screen_enter_sequence();
std::string screen_exit_sequence();

#endif
