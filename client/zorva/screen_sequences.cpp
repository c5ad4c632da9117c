// SPDX-License-Identifier: Apache-2.0
#include "zorva/screen_sequences.h"

#include <curses.h>
// A file of its own: this header's macros have the names of half the world.
#include <term.h>

#include <cstdint>
#include <initializer_list>
#include <string>

namespace {

// tputs(3) hands its bytes to a plain function; the main thread is the only one that calls it.
std::string* collected = nullptr;

int collect(int c) {
  *collected += static_cast<char>(c);
  return c;
}

std::string sequence_of(std::initializer_list<const char*> names) {
  std::string bytes;
  collected = &bytes;
  for (const char* name : names) {
    const char* sequence = tigetstr(name);
    // -1 is tigetstr's answer for a name that is no string.
    if (sequence != nullptr && reinterpret_cast<intptr_t>(sequence) != -1) {
      tputs(sequence, 1, collect);
    }
  }
  collected = nullptr;
  return bytes;
}

}  // namespace

std::string screen_enter_sequence() {
  return sequence_of({"smcup", "civis"});
}

std::string screen_exit_sequence() {
  return sequence_of({"sgr0", "cnorm", "rmcup"});
}
