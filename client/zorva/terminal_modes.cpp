#include "zorva/terminal_modes.h"

#include <termios.h>
#include <unistd.h>

namespace {

constexpr tcflag_t line_flags = ICANON | ECHO;

void set_line_flags(tcflag_t wanted) {
  termios modes{};
  if (!terminal_is_ours() || tcgetattr(STDIN_FILENO, &modes) != 0 ||
      (modes.c_lflag & line_flags) == wanted) {
    return;
  }
  modes.c_lflag = (modes.c_lflag & ~line_flags) | wanted;
  tcsetattr(STDIN_FILENO, TCSANOW, &modes);
}

}  // namespace

bool terminal_is_ours() {
  const pid_t foreground = tcgetpgrp(STDIN_FILENO);
  return foreground < 0 || foreground == getpgrp();
}

void set_key_mode() {
  set_line_flags(0);
}

void set_line_mode() {
  set_line_flags(line_flags);
}
