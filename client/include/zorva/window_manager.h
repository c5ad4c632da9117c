// The curses screen and the panels on it.
#ifndef ZORVA_WINDOW_MANAGER_H
#define ZORVA_WINDOW_MANAGER_H

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "zorva/panel.h"

class windows_manager {
 public:
  // Starts curses: the terminal is in its hands until somebody calls endwin().
  windows_manager();

  // Makes the panel's curses window at `pos`. 0, or -1 after a line on standard error when there is
  // no room for it; `win` then stays null. The caller holds `lock`.
  int create_window(std::shared_ptr<window_info> info, position* pos);

  // Registers a panel: makes its window, starts `function(winfo)` on a thread of the panel's when
  // `function` is not empty, and enters it under its name. -1 when there is no room for its window:
  // the panel then is not registered and has no thread. A name that is taken keeps its first panel.
  int create_monitor_window(std::shared_ptr<window_info> winfo,
                            std::function<void(std::shared_ptr<window_info>)> function, void* priv);

  // Takes a panel out of the map; its thread is not stopped. -1 when there is none of that name.
  int destory_monitor_window(const std::string& wind_name);

  // Gives a panel another place and erases it; 0. The caller holds `lock`.
  int resize_window(std::shared_ptr<window_info> info, position* pos);

  // Lays all panels out anew when the terminal has another size than before; 0. Called by the
  // refresher.
  int resize_windows();

  // Gives the process list the place that it has with the counters on or off, if it is there.
  void place_process_panel(bool perf);

  // The place of the panel `name` on the terminal as last seen, with the counters on or off.
  position place_of(const std::string& name, bool perf);

  // What follows is guarded by `lock`, and so is every curses call while threads run.
  int width = 0;  // of the terminal as last seen
  int height = 0;
  WINDOW* mainwin = nullptr;
  std::unordered_map<std::string, std::shared_ptr<window_info>> windows;
  std::mutex lock;
};

#endif
