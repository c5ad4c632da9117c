// SPDX-License-Identifier: Apache-2.0
#include "zorva/terminal_modes.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <optional>

std::mutex terminal_taken;

namespace {

constexpr tcflag_t line_flags = ICANON | ECHO;

// The keyboard loop reads keys.
std::atomic<bool> keys_wanted{false};
// What key mode took the place of last; guarded by terminal_taken.
std::optional<termios> modes_before_keys;

// Each written by the main thread before the flag that says so.
termios shell_modes{};
termios screen_modes{};
std::atomic<bool> shell_modes_noted{false};
std::atomic<bool> screen_modes_noted{false};

void set_line_flags(tcflag_t wanted) {
  termios modes{};
  if (!terminal_is_ours() || tcgetattr(STDIN_FILENO, &modes) != 0 ||
      (modes.c_lflag & line_flags) == wanted) {
    return;
  }
  modes.c_lflag = (modes.c_lflag & ~line_flags) | wanted;
  tcsetattr(STDIN_FILENO, TCSANOW, &modes);
}

bool has_screen_modes() {
  termios now{};
  return screen_modes_noted && tcgetattr(STDIN_FILENO, &now) == 0 &&
         now.c_iflag == screen_modes.c_iflag && now.c_oflag == screen_modes.c_oflag &&
         now.c_cflag == screen_modes.c_cflag && now.c_lflag == screen_modes.c_lflag;
}

}  // namespace

bool terminal_is_ours() {
  const pid_t foreground = tcgetpgrp(STDIN_FILENO);
  return foreground < 0 || foreground == getpgrp();
}

void set_key_mode() {
  const std::lock_guard<std::mutex> guard(terminal_taken);
  keys_wanted = true;
  termios now{};
  if (terminal_is_ours() && tcgetattr(STDIN_FILENO, &now) == 0 && (now.c_lflag & line_flags) != 0) {
    modes_before_keys = now;
  }
  set_line_flags(0);
}

void leave_key_mode(const termios& found) {
  const std::lock_guard<std::mutex> guard(terminal_taken);
  keys_wanted = false;
  const termios given = modes_before_keys.value_or(found);
  tcsetattr(STDIN_FILENO, TCSANOW, &given);
}

void resume_key_mode() {
  if (keys_wanted) {
    set_line_flags(0);
  }
}

void set_line_mode() {
  set_line_flags(line_flags);
}

void note_shell_modes() {
  constexpr useconds_t look_us = 100000;  // where the signal is ignored, it does not stop
  while (!terminal_is_ours()) {
    raise(SIGTTOU);
    usleep(look_us);
  }
  shell_modes_noted = tcgetattr(STDIN_FILENO, &shell_modes) == 0;
}

void note_screen_modes() {
  screen_modes_noted = tcgetattr(STDIN_FILENO, &screen_modes) == 0;
}

void give_shell_modes() {
  if (!shell_modes_noted || (!terminal_is_ours() && !has_screen_modes())) {
    return;
  }
  // In the background this signal would stop the process where it is not blocked.
  sigset_t background;
  sigset_t before;
  sigemptyset(&background);
  sigaddset(&background, SIGTTOU);
  pthread_sigmask(SIG_BLOCK, &background, &before);
  tcsetattr(STDIN_FILENO, TCSANOW, &shell_modes);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void give_screen_modes() {
  if (screen_modes_noted && terminal_is_ours()) {
    tcsetattr(STDIN_FILENO, TCSANOW, &screen_modes);
  }
}
