// SPDX-License-Identifier: Apache-2.0
// Signals that end the program: what the server holds for it is released, the terminal is put back,
// and the process dies by the signal.
#ifndef ZORVA_SIGNALS_H
#define ZORVA_SIGNALS_H

#include <atomic>
#include <mutex>
#include <thread>

class cpu_stat_manager;
class net_stat_manager;
class windows_manager;

// The objects that the clean-up talks to. Set by whoever makes them, as soon as they exist; a
// signal may come at any time before.
struct clean_up_targets {
  std::atomic<cpu_stat_manager*> cpu{nullptr};
  std::atomic<net_stat_manager*> net{nullptr};
  std::atomic<windows_manager*> winds{nullptr};  // while curses has the terminal
};
extern clean_up_targets clean_up_objects;

// Handles SIGILL, SIGABRT, SIGBUS, SIGSEGV, SIGFPE, SIGSTKFLT, SIGPIPE and SIGINT for as long as it
// lives; there is one, made first of all on the main thread.
//
// The handler only notes the signal. A thread of this object does the rest: it logs it and, unless
// the program is ending already, calls off what the server holds, restores the terminal, and raises
// the signal again with its default action. A step that hangs delays that by 3 s at most. A thread
// that faults waits for this to happen and then dies of its fault, so that a core shows the place.
//
// The same thread takes SIGTERM, SIGHUP and SIGQUIT, puts the terminal back and then lets them have
// the effect that they have without it, and SIGTSTP, SIGCONT and SIGWINCH, for job control and
// changes of the terminal's size. It needs no handler for these: they are blocked in all threads.
class signal_guard {
 public:
  signal_guard();
  ~signal_guard();
  signal_guard(const signal_guard&) = delete;
  signal_guard& operator=(const signal_guard&) = delete;

  // To be held by the main thread while it makes or takes apart what the clean-up uses: none begins
  // meanwhile. When a signal is ending the program already, this does not return: the process dies
  // by the signal.
  std::unique_lock<std::mutex> hold_off();

 private:
  static void watch(int pipe_end, int signal_fd);

  std::thread watcher;
};

#endif
