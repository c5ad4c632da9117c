// SPDX-License-Identifier: Apache-2.0
#include "zorva/terminal_check.h"

#include <curses.h>
// A file of its own: this header's macros have the names of half the world.
#include <term.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <string>

namespace {

// What is wrong with the terminal; empty when nothing is.
std::string find_fault() {
  const char* name = getenv("TERM");
  if (name == nullptr || *name == '\0') {
    return "TERM is not set";
  }
  int found = 0;
  if (setupterm(name, STDOUT_FILENO, &found) != OK) {
    return "this machine has no description of the terminal " + std::string(name);
  }
  const bool can_place_text = cursor_address != nullptr;
  del_curterm(cur_term);
  return can_place_text ? "" : "the terminal " + std::string(name) + " has no full screen";
}

}  // namespace

void advise_on_terminal() {
  const std::string fault = find_fault();
  if (!fault.empty()) {
    std::cerr << "zorva: " << fault << "; try TERM=vt100 zorva, or reports: zorva -b" << std::endl;
  }
}
