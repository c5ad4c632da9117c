// SPDX-License-Identifier: Apache-2.0
// Taking the full screen from whoever paints it, and giving the terminal back to the shell, also
// when the terminal takes no output.
#ifndef ZORVA_SCREEN_KEEPER_H
#define ZORVA_SCREEN_KEEPER_H

#include <condition_variable>
#include <mutex>
#include <thread>

class windows_manager;

// To be called by the main thread right before and after curses begins: notes how the terminal is
// given back.
void screen_will_begin();
void screen_has_begun();

// While it lives, a terminal that takes no output keeps nobody who writes to it: after a moment of
// patience, what is on its way to the terminal is dropped, again and again. Does nothing while
// another job has the terminal.
class output_dropper {
 public:
  output_dropper();
  ~output_dropper();
  output_dropper(const output_dropper&) = delete;
  output_dropper& operator=(const output_dropper&) = delete;

 private:
  void run();

  std::mutex lock;
  std::condition_variable changed;
  bool done = false;
  std::thread thread;
};

// Takes the manager's lock, so that nothing paints. Without it when it could not be had within a
// second, because a thread has faulted or hangs.
std::unique_lock<std::mutex> take_screen(windows_manager& winds);

// Makes room for the last bytes that somebody writes to the terminal, if it has none. May be called
// in a signal handler.
void free_terminal();

// Curses shows the screen, and the terminal is this job's.
bool screen_is_shown();

// Ends curses unless it was ended before: the cursor is visible, the screen that was there before
// is shown, the modes are the shell's. The caller has taken the screen, if that was possible.
void end_screen();

// Put the terminal back, and take it again, without curses. May be called in a signal handler.
void leave_screen();
void enter_screen();

#endif
