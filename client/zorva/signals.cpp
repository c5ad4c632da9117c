// SPDX-License-Identifier: Apache-2.0
#include "zorva/signals.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <initializer_list>
#include <iterator>
#include <system_error>

#include "client_comm.h"
#include "cpu_stat_manager.h"
#include "net_stat_manager.h"
#include "zorva/bounded_lock.h"
#include "zorva/job_control.h"
#include "zorva/log.h"
#include "zorva/screen_keeper.h"
#include "zorva/settings.h"
#include "zorva/terminal_modes.h"
#include "zorva/window_manager.h"

clean_up_targets clean_up_objects;

namespace {

constexpr int clean_up_limit_s = 3;
constexpr int clean_up_patience_ms = 1000;

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
// The terminal was put back.
std::atomic<bool> terminal_is_back{false};
// Held while the clean-up, or the main thread's own shutdown, uses the client objects.
std::mutex shutdown_lock;

// The functions from here to signalHandler call nothing that signal-safety(7) does not list.

// What a hanging clean-up has left undone, as far as it can be done without curses.
void restore_terminal_at_last() {
  if (terminal_is_back) {
    return;
  }
  if (clean_up_objects.winds.load() != nullptr) {
    leave_screen();
  }
  set_line_mode();
}

void raise_unblocked(int signo) {
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, signo);
  pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
  raise(signo);
}

[[noreturn]] void die_by(int signo) {
  signal(signo, SIG_DFL);
  raise_unblocked(signo);
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
      poll(nullptr, 0, slice_ms);
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

// Takes the terminal from the keyboard loop and the screen from the refresher, and keeps both: a
// paint after this would begin curses anew. A thread that hangs or has faulted while it painted
// does not give the screen up, so that the wait is short.
void restore_terminal() {
  lock_within(terminal_taken, clean_up_patience_ms).release();
  windows_manager* const winds = clean_up_objects.winds;
  if (winds != nullptr) {
    take_screen(*winds).release();
    end_screen();
  }
  set_line_mode();
  terminal_is_back = true;
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
  const std::lock_guard<std::mutex> shutdown(shutdown_lock);
  if (manager.to_exit.exchange(true)) {
    return;  // the program ends by itself, or of this signal if that hangs
  }
  release_monitors();
  restore_terminal();
  log_pending(pipe_end);
  die_by(signo);
}

// The faulting thread waits in its handler and ends the process itself, or ends it without this
// when a step hangs. That thread may be the main one, holding the shutdown lock, which is not
// waited for then.
void clean_up_after_fault(int signo) {
  constexpr int patience_ms = 300;
  log_signal(signo);
  const auto shutdown = lock_within(shutdown_lock, patience_ms);
  if (!manager.to_exit.exchange(true)) {
    release_monitors();
  }
  restore_terminal();
  clean_up_done = true;
}

// Of these none has a handler of the program's. Those that stop the job or let it go on, or end it,
// reach a terminal that is put back first; they then have the effect that they would have had
// without. SIGTERM is one that curses catches, and must not while somebody paints.
constexpr int ending_signals[] = {SIGTERM, SIGHUP, SIGQUIT};
constexpr int job_signals[] = {SIGTSTP, SIGCONT, SIGWINCH};

sigset_t watched_signals() {
  sigset_t watched;
  sigemptyset(&watched);
  for (const int signo : ending_signals) {
    sigaddset(&watched, signo);
  }
  for (const int signo : job_signals) {
    sigaddset(&watched, signo);
  }
  // What whoever started the program has it ignore stays ignored.
  for (const int signo : {SIGTERM, SIGHUP, SIGQUIT, SIGTSTP}) {
    struct sigaction now {};
    if (sigaction(signo, nullptr, &now) == 0 && now.sa_handler == SIG_IGN) {
      sigdelset(&watched, signo);
    }
  }
  return watched;
}

// A signal that is about to end the program has come.
bool end_is_near(int pipe_end) {
  pollfd waiting{pipe_end, POLLIN, 0};
  if (poll(&waiting, 1, 0) > 0) {
    return true;
  }
  sigset_t pending;
  sigpending(&pending);
  for (const int signo : ending_signals) {
    if (sigismember(&pending, signo) == 1) {
      return true;
    }
  }
  return false;
}

// The full screen's manager, which is there for as long as the shutdown lock is held.
void pass_job_signal(int signo, int pipe_end) {
  constexpr int patience_ms = 300;
  const auto shutdown = lock_within(shutdown_lock, patience_ms);
  windows_manager* const winds = shutdown.owns_lock() ? clean_up_objects.winds.load() : nullptr;
  const auto ends = [pipe_end] { return end_is_near(pipe_end); };
  if (signo == SIGTSTP) {
    stop_job(winds, ends);
  } else if (signo == SIGCONT) {
    resume_job(winds, ends);
  } else if (winds != nullptr) {
    winds->terminal_changed = true;
  }
}

// Ends the process as the signal would have done by itself, but for the terminal. In the full
// screen that is the action of curses for SIGTERM, which runs here, while nobody paints.
void end_by_watched(int signo) {
  start_watchdog(signo);
  const std::lock_guard<std::mutex> shutdown(shutdown_lock);
  if (manager.to_exit) {
    return;  // the program ends by itself, or of this signal if that hangs
  }
  windows_manager* const winds = clean_up_objects.winds;
  if (signo == SIGTERM && winds != nullptr) {
    const auto screen = take_screen(*winds);
    if (screen.owns_lock() && screen_is_shown()) {
      free_terminal();
      raise_unblocked(signo);
    }
  }
  restore_terminal();
  die_by(signo);
}

void act_on_note(unsigned char note, int pipe_end) {
  const int signo = note & ~fault_mark;
  if ((note & fault_mark) != 0) {
    clean_up_after_fault(signo);
  } else {
    end_by_signal(signo, pipe_end);
  }
}

void act_on_watched(int signo, int pipe_end) {
  const bool ends = std::find(std::begin(ending_signals), std::end(ending_signals), signo) !=
                    std::end(ending_signals);
  if (ends) {
    end_by_watched(signo);
  } else {
    pass_job_signal(signo, pipe_end);
  }
}

}  // namespace

signal_guard::signal_guard() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe for signals");
  }
  // A handler must never wait for room.
  fcntl(ends[1], F_SETFL, O_NONBLOCK);
  note_fd = ends[1];
  sigset_t watched = watched_signals();
  const int signal_fd = signalfd(-1, &watched, SFD_CLOEXEC);
  if (signal_fd < 0) {
    throw std::system_error(errno, std::generic_category(), "descriptor for signals");
  }
  // Blocked in every thread to come. SIGINT is taken by the watcher, so that one which came while
  // the process was stopped is known as soon as it goes on. Without SIGTTIN a read of keys from the
  // background fails, and does not stop the process before the watcher has put the terminal back.
  sigaddset(&watched, SIGINT);
  sigaddset(&watched, SIGTTIN);
  pthread_sigmask(SIG_BLOCK, &watched, nullptr);
  watcher = std::thread(watch, ends[0], signal_fd);
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

void signal_guard::watch(int pipe_end, int signal_fd) {
  sigset_t own;
  sigemptyset(&own);
  sigaddset(&own, SIGINT);
  pthread_sigmask(SIG_UNBLOCK, &own, nullptr);
  sigemptyset(&own);
  sigaddset(&own, SIGTTOU);  // it changes the terminal's modes from the background on purpose
  pthread_sigmask(SIG_BLOCK, &own, nullptr);
  pollfd sources[] = {{pipe_end, POLLIN, 0}, {signal_fd, POLLIN, 0}};
  while (true) {
    if (poll(sources, 2, -1) < 0) {
      continue;  // a handler ran on this thread
    }
    unsigned char note = stop_watching;
    signalfd_siginfo watched{};
    if (sources[0].revents != 0) {
      if (read(pipe_end, &note, 1) != 1 || note == stop_watching) {
        return;
      }
      act_on_note(note, pipe_end);
    } else if (read(signal_fd, &watched, sizeof watched) == ssize_t{sizeof watched}) {
      act_on_watched(static_cast<int>(watched.ssi_signo), pipe_end);
    }
  }
}
