// SPDX-License-Identifier: Apache-2.0
// The curses screen and the panels on it.
#ifndef ZORVA_WINDOW_MANAGER_H
#define ZORVA_WINDOW_MANAGER_H

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <unordered_map>

#include "zorva/panel.h"

class windows_manager {
 public:
  using worker = std::function<void(std::shared_ptr<window_info>)>;

  // Starts curses: the terminal is in its hands until somebody calls endwin().
  windows_manager();

  // Makes the panel's curses window at `pos`. 0, or -1 after a line on standard error when there is
  // no room for it; `win` then stays null. The caller holds `lock`.
  int create_window(std::shared_ptr<window_info> info, position* pos);

  // Registers a panel: makes its window, starts `function(winfo)` on a thread of the panel's when
  // `function` is not empty, and enters it under its name. -1 when there is no room for its window:
  // the panel then is not registered and has no thread. A name that is taken keeps its first panel.
  int create_monitor_window(std::shared_ptr<window_info> winfo, worker function, void* priv);

  // Takes a panel out of the map; its thread is not stopped. -1 when there is none of that name.
  int destory_monitor_window(const std::string& wind_name);

  // Gives a panel another place and erases it; 0. The caller holds `lock`.
  int resize_window(std::shared_ptr<window_info> info, position* pos);

  // Lays all panels out anew when curses has another size of the terminal than before; 0. Called by
  // the refresher.
  int resize_windows();

  // Tells curses the terminal's size once it may have changed: curses itself looks only when it
  // writes next. Called by the refresher before resize_windows().
  void take_terminal_size();

  // Makes the screen what it would be after a fresh start on this terminal: gives each panel that
  // is elsewhere its place, registers those that had no room before, and has everything painted
  // anew if something was wrong. Called by the refresher before it paints; the caller holds `lock`.
  void mend_screen();

  // Gives the process list the place that it has with the counters on or off, if it is there.
  void place_process_panel(bool perf);

  // The place of the panel `name` on the terminal as last seen, with the counters on or off.
  position place_of(const std::string& name, bool perf);

  // The terminal may have another size than curses knows, or show something else: it was resized,
  // another program or a message had it. take_terminal_size() lowers it. Any thread.
  std::atomic<bool> terminal_changed{false};

  // Workers for panels that are registered only once the terminal has become large enough, in place
  // of the ones that they were first to be registered with. Written before the refresher starts.
  std::unordered_map<std::string, worker> late_workers;

  // What follows is guarded by `lock`, and so is every curses call while threads run.
  int width = 0;  // of the terminal as last seen
  int height = 0;
  WINDOW* mainwin = nullptr;
  std::unordered_map<std::string, std::shared_ptr<window_info>> windows;
  std::mutex lock;

 private:
  // How a panel was to be registered.
  struct registration {
    worker function;
    void* priv;
    int cycle_ms;
  };

  static bool put_in_place(window_info& panel, const position& place);
  bool register_missing();
  void start(const std::shared_ptr<window_info>& panel, worker function);
  void paint_all_anew();

  // Guarded by `lock`.
  using layout_key = std::tuple<int, int, bool>;                // width, height, with the counters
  layout_key mended_for{-1, -1, false};                         // what `places` are for
  std::unordered_map<std::string, position> places;             // of the panels, by name
  bool paint_anew = false;                                      // the next frame paints everything
  std::unordered_map<std::string, registration> registrations;  // by panel name
};

#endif
