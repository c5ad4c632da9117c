#include "zorva/screen_exit.h"

#include <curses.h>
// A file of its own: this header's macros have the names of half the world.
#include <term.h>

#include <cstdint>
#include <string>

namespace {

// tputs(3) hands its bytes to a plain function; the main thread is the only one that calls it.
std::string* collected = nullptr;

int collect(int c) {
  *collected += static_cast<char>(c);
  return c;
}

}  // namespace

std::string screen_exit_sequence() {
  std::string bytes;
  collected = &bytes;
  for (const char* name : {"sgr0", "cnorm", "rmcup"}) {
    const char* sequence = tigetstr(name);
    // -1 is tigetstr's answer for a name that is no string.
    if (sequence != nullptr && reinterpret_cast<intptr_t>(sequence) != -1) {
      tputs(sequence, 1, collect);
    }
  }
  collected = nullptr;
  return bytes;
}
