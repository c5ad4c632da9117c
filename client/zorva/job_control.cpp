#include "zorva/job_control.h"

#include <curses.h>
#include <pthread.h>
#include <signal.h>
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

// Stops the process by the default action of a signal that this thread has blocked. Takes the
// SIGCONT that ends the stop.
void stop_by(int signo) {
  const sigset_t stopping = set_of(signo);
  pthread_sigmask(SIG_UNBLOCK, &stopping, nullptr);
  raise(signo);
  pthread_sigmask(SIG_BLOCK, &stopping, nullptr);
  const sigset_t going_on = set_of(SIGCONT);
  const timespec at_once{};
  sigtimedwait(&going_on, nullptr, &at_once);
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
      stop_by(SIGTTOU);
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
    stop_by(SIGTSTP);
    resume_key_mode();
    return;
  }
  const taken_screen screen(*winds);
  const auto terminal = take_terminal();
  screen.give_to_shell();
  stop_by(SIGTSTP);
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
