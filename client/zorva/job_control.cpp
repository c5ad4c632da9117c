// SPDX-License-Identifier: Apache-2.0
#include "zorva/job_control.h"

#include <curses.h>
#include <pthread.h>
#include <signal.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <mutex>

#include "zorva/bounded_lock.h"
#include "zorva/screen_keeper.h"
#include "zorva/terminal_modes.h"
#include "zorva/window_manager.h"

namespace {

sigset_t set_of(int signo) {
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, signo);
  return only;
}

// Stops the process by what `sends` makes of a signal that this thread has blocked. Takes the
// SIGCONT that ends the stop.
template <class sender>
void stop_by(int signo, const sender& sends) {
  const sigset_t stopping = set_of(signo);
  pthread_sigmask(SIG_UNBLOCK, &stopping, nullptr);
  sends();
  pthread_sigmask(SIG_BLOCK, &stopping, nullptr);
  const sigset_t going_on = set_of(SIGCONT);
  const timespec at_once{};
  sigtimedwait(&going_on, nullptr, &at_once);
}

void stop_as_asked() {
  stop_by(SIGTSTP, [] { raise(SIGTSTP); });
}

// The kernel sends the signal to whoever acts on a terminal that is another job's. It looks and
// sends at once, so that a shell which brings the job back just now does not see it stop again.
// Restarting output is an act without effect on a terminal that is ours meanwhile.
void stop_in_background() {
  stop_by(SIGTTOU, [] { tcflow(STDIN_FILENO, TCOON); });
}

// Both bounded: whoever has one may hang.
std::unique_lock<std::mutex> take_terminal() {
  constexpr int limit_ms = 1000;
  return lock_within(terminal_taken, limit_ms);
}

// The full screen, with nobody painting, for as long as this lives.
class taken_screen {
 public:
  explicit taken_screen(windows_manager& manager) : winds(manager), taken(take_screen(manager)) {}

  void give_to_shell() const {
    if (!terminal_is_ours()) {
      return;
    }
    if (taken.owns_lock()) {
      free_terminal();
      endwin();
      give_shell_modes();
    } else {
      leave_screen();
    }
  }

  // Curses, where it was ended, begins again with the next frame.
  void take_from_shell(const std::function<bool()>& end_is_near) const {
    constexpr useconds_t look_us = 100000;  // where nobody can bring it back, it does not stop
    while (!terminal_is_ours() && !end_is_near()) {
      stop_in_background();
      usleep(look_us);
    }
    if (end_is_near()) {
      return;
    }
    if (taken.owns_lock() && isendwin()) {
      give_screen_modes();
    } else {
      enter_screen();
    }
    winds.terminal_changed = true;
  }

 private:
  windows_manager& winds;
  const std::unique_lock<std::mutex> taken;
};

}  // namespace

void stop_job(windows_manager* winds, const std::function<bool()>& end_is_near) {
  if (winds == nullptr) {
    const auto terminal = take_terminal();
    set_line_mode();
    stop_as_asked();
    resume_key_mode();
    return;
  }
  const taken_screen screen(*winds);
  const auto terminal = take_terminal();
  screen.give_to_shell();
  stop_as_asked();
  screen.take_from_shell(end_is_near);
}

void resume_job(windows_manager* winds, const std::function<bool()>& end_is_near) {
  if (winds == nullptr) {
    const auto terminal = take_terminal();
    resume_key_mode();
    return;
  }
  const taken_screen screen(*winds);
  const auto terminal = take_terminal();
  screen.take_from_shell(end_is_near);
}
