// SPDX-License-Identifier: Apache-2.0
#include "zorva/screen_keeper.h"

#include <curses.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <system_error>

#include "zorva/bounded_lock.h"
#include "zorva/screen_sequences.h"
#include "zorva/terminal_modes.h"
#include "zorva/window_manager.h"

namespace {

struct sequence {
  char bytes[128];
  size_t size = 0;
};
// Written by the main thread before the clean-up and the job control know of the screen.
sequence entering;
sequence leaving;
// The terminal took no output, and may still have no more room than what was dropped.
std::atomic<bool> was_full{false};

void note(sequence& one, const std::string& bytes) {
  one.size = bytes.copy(one.bytes, sizeof one.bytes);
}

bool takes_output(int timeout_ms) {
  pollfd screen{STDOUT_FILENO, POLLOUT, 0};
  return poll(&screen, 1, timeout_ms) == 1 && (screen.revents & POLLOUT) != 0;
}

// Also ends a pause that Ctrl-S began. Stopping and starting the output wakes a write(2) that waits
// for room.
void drop_output() {
  if (terminal_is_ours()) {
    was_full = true;
    tcflush(STDOUT_FILENO, TCOFLUSH);
    tcflow(STDOUT_FILENO, TCOOFF);
    tcflow(STDOUT_FILENO, TCOON);
  }
}

void send(const sequence& one) {
  free_terminal();
  if (takes_output(0)) {
    [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, one.bytes, one.size);
  }
}

}  // namespace

void screen_will_begin() {
  note_shell_modes();
}

void screen_has_begun() {
  note_screen_modes();
  note(entering, screen_enter_sequence());
  note(leaving, screen_exit_sequence());
}

// Without a thread, when none can be had, it drops nothing.
output_dropper::output_dropper() {
  try {
    thread = std::thread([this] { run(); });
  } catch (const std::system_error&) {
  }
}

output_dropper::~output_dropper() {
  {
    const std::lock_guard<std::mutex> guard(lock);
    done = true;
  }
  changed.notify_one();
  if (thread.joinable()) {
    thread.join();
  }
}

void output_dropper::run() {
  constexpr std::chrono::milliseconds patience{300};  // a paint over a slow line may end by itself
  constexpr std::chrono::milliseconds pause{20};
  std::unique_lock<std::mutex> guard(lock);
  for (auto wait = patience; !changed.wait_for(guard, wait, [this] { return done; });
       wait = pause) {
    drop_output();
  }
}

std::unique_lock<std::mutex> take_screen(windows_manager& winds) {
  constexpr int limit_ms = 1000;
  const output_dropper dropper;
  return lock_within(winds.lock, limit_ms);
}

void free_terminal() {
  constexpr int patience_ms = 100;
  if (was_full.exchange(false) || !takes_output(patience_ms)) {
    drop_output();
  }
}

bool screen_is_shown() {
  return !isendwin() && terminal_is_ours();
}

void end_screen() {
  if (!isendwin()) {
    if (!terminal_is_ours()) {
      leave_screen();
      return;
    }
    free_terminal();
    curs_set(1);
    endwin();
  }
  give_shell_modes();
}

void leave_screen() {
  send(leaving);
  give_shell_modes();
}

// It may never have been left: entering it twice would have some terminals remember the hidden
// cursor as the one to go back to.
void enter_screen() {
  give_screen_modes();
  send(leaving);
  send(entering);
}
