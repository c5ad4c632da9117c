// SPDX-License-Identifier: Apache-2.0
// A panel: its text, its place and its curses window.
#ifndef ZORVA_PANEL_H
#define ZORVA_PANEL_H

#include <curses.h>

#include <atomic>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include "zorva/layout.h"

class windows_manager;

// Made with std::make_shared and held by the manager's map and by the threads that fill it.
// Destroyed with the manager's lock held, or after the refresher has ended: curses takes one thread
// at a time.
class window_info {
 public:
  // `interval_ms` is the worker's cycle. No curses call is made yet.
  window_info(const std::string& name, int x, int y, int width, int high, int interval_ms);
  // Whoever started `thread` has joined it.
  ~window_info();
  window_info(const window_info&) = delete;
  window_info& operator=(const window_info&) = delete;

  // Hands a complete text over to the refresher. Any thread.
  void publish(const std::string& text);

  // Paints `msg` from the window's top left corner, its first line as a header bar when
  // `light_header` is set. What the text does not cover is blank afterwards; an empty one leaves
  // all as it was. The caller holds the manager's lock.
  void update_window(const char* msg, bool light_header);

  // `ss` and the raising and lowering of need_flush are guarded by text_lock.
  std::stringstream ss;   // the text, header line first
  WINDOW* win = nullptr;  // owned; guarded by the manager's lock, like pos
  void* priv = nullptr;   // what the worker queries; not owned
  int cycle_ms;           // the worker's cycle; not used without one
  position pos;
  std::string name;
  std::thread thread;                   // the worker, if it has one of its own
  std::atomic<bool> need_flush{false};  // `ss` holds a text that is not painted yet
  windows_manager* win_mgr = nullptr;   // set when registered; not owned
  std::mutex text_lock;                 // taken after the manager's lock, if that is held

  // Guarded by the manager's lock.
  bool has_place = true;   // the terminal has room for it; else it is not painted
  bool lost_paint = true;  // what the terminal shows in its place is not the panel's: it is to be
                           // painted also without a new text

 private:
  const char* paint_header(const char* msg) const;
};

#endif
