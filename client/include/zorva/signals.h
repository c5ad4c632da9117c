// Signals that end the program: what the server holds for it is released, the terminal is put back,
// and the process dies by the signal.
#ifndef ZORVA_SIGNALS_H
#define ZORVA_SIGNALS_H

#include <atomic>
#include <mutex>
#include <thread>

class cpu_stat_manager;
class net_stat_manager;

// The client objects that the clean-up talks to. Set by whoever makes the objects, as soon as they
// exist; a signal may come at any time before.
struct clean_up_targets {
  std::atomic<cpu_stat_manager*> cpu{nullptr};
  std::atomic<net_stat_manager*> net{nullptr};
};
extern clean_up_targets clean_up_clients;

// Handles SIGILL, SIGABRT, SIGBUS, SIGSEGV, SIGFPE, SIGSTKFLT, SIGPIPE and SIGINT for as long as it
// lives; there is one, made first of all on the main thread.
//
// The handler only notes the signal. A thread of this object does the rest: it logs it and, unless
// the program is ending already, calls off what the server holds, restores the terminal, and raises
// the signal again with its default action. A step that hangs delays that by 3 s at most. A thread
// that faults waits for this to happen and then dies of its fault, so that a core shows the place.
class signal_guard {
 public:
  signal_guard();
  ~signal_guard();
  signal_guard(const signal_guard&) = delete;
  signal_guard& operator=(const signal_guard&) = delete;

  // To be held by the main thread while it takes apart what the clean-up uses. When a signal is
  // ending the program already, this does not return: the process dies by the signal.
  std::unique_lock<std::mutex> begin_shutdown();

 private:
  void watch(int pipe_end);

  std::thread watcher;
};

#endif
