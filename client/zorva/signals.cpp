#include "zorva/signals.h"

#include <curses.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "client_comm.h"
#include "cpu_stat_manager.h"
#include "net_stat_manager.h"
#include "zorva/log.h"
#include "zorva/screen_exit.h"
#include "zorva/settings.h"
#include "zorva/terminal_modes.h"
#include "zorva/window_manager.h"

clean_up_targets clean_up_objects;

namespace {

constexpr int clean_up_limit_s = 3;

// What the handler writes to the pipe, a byte a signal: its number, and whether this process
// brought it about by a fault of its own.
constexpr unsigned char fault_mark = 0x80;
constexpr unsigned char stop_watching = 0;

// Written before the handlers are installed, and by the guard's destructor.
std::atomic<int> note_fd{-1};
// The watcher, while it runs and can be waited for.
std::atomic<bool> watcher_runs{false};
pthread_t watcher_id;
// The clean-up that a faulting thread waits for is over.
std::atomic<bool> clean_up_done{false};
// The signal that the watchdog ends the process by.
std::atomic<int> dying_signal{0};
// Held while the clean-up, or the main thread's own shutdown, uses the client objects.
std::mutex shutdown_lock;

// For the case that curses cannot be asked any more: the terminal's modes before curses, and what
// ends the full screen. Written before the clean-up has a window manager.
termios found_tio{};
char leave_screen[128];
size_t leave_screen_size = 0;

// The functions from here to signalHandler call nothing that signal-safety(7) does not list.

// What a hanging clean-up has left undone, as far as it can be done without curses.
void restore_terminal_at_last() {
  if (clean_up_objects.winds.load() != nullptr && terminal_is_ours()) {
    pollfd screen{STDOUT_FILENO, POLLOUT, 0};
    if (poll(&screen, 1, 0) == 1 && (screen.revents & POLLOUT) != 0) {
      [[maybe_unused]] const ssize_t written =
          write(STDOUT_FILENO, leave_screen, leave_screen_size);
    }
    tcsetattr(STDIN_FILENO, TCSANOW, &found_tio);
  }
  set_line_mode();
}

[[noreturn]] void die_by(int signo) {
  signal(signo, SIG_DFL);
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, signo);
  pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
  raise(signo);
  _exit(128 + signo);
}

// Faults raise their signal with a positive code; abort(3) sends it to its own thread. The same
// signals sent by kill(1) are no faults: what they interrupted goes on.
bool is_own_fault(int signo, const siginfo_t& info) {
  switch (signo) {
    case SIGILL:
    case SIGBUS:
    case SIGSEGV:
    case SIGFPE:
      return info.si_code > 0;
    case SIGABRT:
      return info.si_code == SI_TKILL && info.si_pid == getpid();
    default:
      return false;
  }
}

[[noreturn]] void die_of_fault(int signo) {
  constexpr int slice_ms = 10;
  if (watcher_runs && pthread_equal(watcher_id, pthread_self()) == 0) {
    for (int waited_ms = 0; waited_ms < clean_up_limit_s * 1000 && !clean_up_done;
         waited_ms += slice_ms) {
      const timespec slice{0, slice_ms * 1000000L};
      nanosleep(&slice, nullptr);
    }
  }
  if (!clean_up_done) {
    restore_terminal_at_last();
  }
  die_by(signo);
}

void signalHandler(int signo, siginfo_t* info, void* /*p*/) {
  const int saved_errno = errno;
  const bool fault = is_own_fault(signo, *info);
  auto note = static_cast<unsigned char>(signo);
  if (fault) {
    note |= fault_mark;
  }
  // Full or closed, the pipe has nothing to tell anybody any more.
  [[maybe_unused]] const ssize_t written = write(note_fd, &note, 1);
  if (fault) {
    die_of_fault(signo);
  }
  errno = saved_errno;
}

void end_at_limit(int /*signo*/) {
  restore_terminal_at_last();
  die_by(dying_signal);
}

void install(int signo) {
  struct sigaction act {};
  act.sa_sigaction = signalHandler;
  act.sa_flags = SA_RESTART | SA_SIGINFO;
  sigemptyset(&act.sa_mask);
  sigaction(signo, &act, nullptr);
}

void signal_init() {
  for (const int signo : {SIGILL, SIGABRT, SIGBUS, SIGSEGV, SIGFPE, SIGSTKFLT, SIGPIPE, SIGINT}) {
    install(signo);
  }
}

// From now on the process ends by `signo` after the limit, whatever hangs. The first signal counts.
void start_watchdog(int signo) {
  int none = 0;
  if (!dying_signal.compare_exchange_strong(none, signo)) {
    return;
  }
  struct sigaction act {};
  act.sa_handler = end_at_limit;
  sigemptyset(&act.sa_mask);
  sigaction(SIGALRM, &act, nullptr);
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, SIGALRM);
  pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
  alarm(clean_up_limit_s);
}

void log_signal(int signo) {
  LOG_W("zorva clean up with sig:%d\n", signo);
}

void release_monitors() {
  cpu_stat_manager* const cpu = clean_up_objects.cpu;
  net_stat_manager* const net = clean_up_objects.net;
  if (cpu != nullptr) {
    cpu->cpu_mon_exit();
  }
  if (manager.enable_net && net != nullptr) {
    net->exit_net_monitor();
  }
  if (manager.enable_perf && cpu != nullptr) {
    cpu->disable_perf_mon();
  }
  if (cpu != nullptr && cpu->client) {
    cpu->client->back_client_id();
  }
}

// Takes the screen from the refresher and keeps it: a paint after this would begin curses anew. A
// thread that hangs or has faulted while it painted does not give it up, so that the wait is short.
void end_curses() {
  windows_manager* const winds = clean_up_objects.winds;
  if (winds == nullptr) {
    return;
  }
  constexpr int attempts = 50;
  constexpr useconds_t attempt_us = 10000;
  for (int i = 0; i < attempts && !winds->lock.try_lock(); ++i) {
    usleep(attempt_us);
  }
  curs_set(1);
  endwin();
}

void restore_terminal() {
  if (manager.tui_mode) {
    end_curses();
  }
  set_line_mode();
}

// Signals that came while the clean-up ran are logged and nothing else.
void log_pending(int pipe_end) {
  pollfd waiting{pipe_end, POLLIN, 0};
  unsigned char note = 0;
  while (poll(&waiting, 1, 0) > 0 && read(pipe_end, &note, 1) == 1) {
    log_signal(note & ~fault_mark);
  }
}

void end_by_signal(int signo, int pipe_end) {
  start_watchdog(signo);
  log_signal(signo);
  std::unique_lock<std::mutex> shutdown(shutdown_lock);
  if (manager.to_exit.exchange(true)) {
    return;  // the program ends by itself, or of this signal if that hangs
  }
  release_monitors();
  restore_terminal();
  log_pending(pipe_end);
  die_by(signo);
}

// The faulting thread waits in its handler and ends the process itself, or ends it without this
// when a step hangs. The shutdown lock is left alone: that thread may be the main one, holding it.
void clean_up_after_fault(int signo) {
  log_signal(signo);
  if (!manager.to_exit.exchange(true)) {
    release_monitors();
  }
  restore_terminal();
  clean_up_done = true;
}

}  // namespace

signal_guard::signal_guard() {
  tcgetattr(STDIN_FILENO, &found_tio);
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe for signals");
  }
  // A handler must never wait for room.
  fcntl(ends[1], F_SETFL, O_NONBLOCK);
  note_fd = ends[1];
  watcher = std::thread(&signal_guard::watch, this, ends[0]);
  watcher_id = watcher.native_handle();
  watcher_runs = true;
  signal_init();
}

signal_guard::~signal_guard() {
  watcher_runs = false;
  [[maybe_unused]] const ssize_t written = write(note_fd, &stop_watching, 1);
  watcher.join();
}

std::unique_lock<std::mutex> signal_guard::hold_off() {
  return std::unique_lock<std::mutex>(shutdown_lock);
}

void signal_guard::screen_begins() {
  leave_screen_size = screen_exit_sequence().copy(leave_screen, sizeof leave_screen);
}

void signal_guard::watch(int pipe_end) {
  unsigned char note = stop_watching;
  while (true) {
    const ssize_t got = read(pipe_end, &note, 1);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got != 1 || note == stop_watching) {
      return;
    }
    const int signo = note & ~fault_mark;
    if ((note & fault_mark) != 0) {
      clean_up_after_fault(signo);
    } else {
      end_by_signal(signo, pipe_end);
    }
  }
}
