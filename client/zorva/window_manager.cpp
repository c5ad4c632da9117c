// SPDX-License-Identifier: Apache-2.0
#include "zorva/window_manager.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <iostream>
#include <utility>

#include "zorva/settings.h"

namespace {

bool is_at(WINDOW* win, const position& place) {
  return getbegx(win) == place.x && getbegy(win) == place.y && getmaxx(win) == place.width &&
         getmaxy(win) == place.height;
}

bool has_room(const position& place) {
  return place.width > 0 && place.height > 0;
}

WINDOW* make_window(const position& place) {
  WINDOW* const win = newwin(place.height, place.width, place.y, place.x);
  if (win != nullptr) {
    // The cursor is hidden: moving it back after each paint would be bytes for nothing.
    leaveok(win, TRUE);
  }
  return win;
}

}  // namespace

windows_manager::windows_manager() {
  initscr();
  cbreak();
  noecho();
  curs_set(0);
  mainwin = stdscr;
  height = getmaxy(mainwin);
  width = getmaxx(mainwin);
  start_color();
  init_pair(1, COLOR_BLACK, COLOR_GREEN);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the callers' handle is kept alive
int windows_manager::create_window(std::shared_ptr<window_info> info, position* pos) {
  info->pos = *pos;
  info->win = make_window(*pos);
  if (info->win == nullptr) {
    std::cerr << "Create new window failed" << std::endl;
    terminal_changed = true;  // the line may stand in the middle of the screen
    return -1;
  }
  return 0;
}

int windows_manager::create_monitor_window(
    // NOLINTNEXTLINE(performance-unnecessary-value-param): the worker gets a handle of its own
    std::shared_ptr<window_info> winfo, worker function, void* priv) {
  winfo->priv = priv;
  winfo->win_mgr = this;
  // From here on the refresher may be painting.
  const std::lock_guard<std::mutex> win_lk(lock);
  registrations[winfo->name] = {function, priv, winfo->cycle_ms};
  if (create_window(winfo, &winfo->pos) < 0) {
    return -1;
  }
  start(winfo, std::move(function));
  return 0;
}

void windows_manager::start(const std::shared_ptr<window_info>& panel, worker function) {
  if (function) {
    panel->thread = std::thread(std::move(function), panel);
  }
  windows.emplace(panel->name, panel);
}

int windows_manager::destory_monitor_window(const std::string& wind_name) {
  const std::lock_guard<std::mutex> win_lk(lock);
  return windows.erase(wind_name) == 1 ? 0 : -1;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): as create_window
int windows_manager::resize_window(std::shared_ptr<window_info> info, position* pos) {
  info->pos = *pos;
  wresize(info->win, pos->height, pos->width);
  mvwin(info->win, pos->y, pos->x);
  wclear(info->win);
  // Erased is enough: without this each panel's next paint would clear the whole terminal first.
  clearok(info->win, FALSE);
  info->lost_paint = true;
  return 0;
}

int windows_manager::resize_windows() {
  const std::lock_guard<std::mutex> win_lk(lock);
  const int h = getmaxy(mainwin);
  const int w = getmaxx(mainwin);
  if (h == height && w == width) {
    return 0;
  }
  height = h;
  width = w;
  auto def_pos = default_layout(width, height, manager.enable_perf);
  for (const auto& [name, panel] : windows) {
    resize_window(panel, &def_pos[name]);
  }
  return 0;
}

void windows_manager::take_terminal_size() {
  if (!terminal_changed.exchange(false)) {
    return;
  }
  const std::lock_guard<std::mutex> win_lk(lock);
  paint_anew = true;
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0 &&
      is_term_resized(size.ws_row, size.ws_col)) {
    resizeterm(size.ws_row, size.ws_col);
  }
}

void windows_manager::mend_screen() {
  bool wrong = std::exchange(paint_anew, false);
  // While the counters are being switched, their panel may be there before or after the setting.
  const bool perf = manager.enable_perf || windows.count("perf") > 0;
  if (const layout_key wanted{width, height, perf}; wanted != mended_for) {
    mended_for = wanted;
    places = default_layout(width, height, perf);
  }
  for (const auto& [name, panel] : windows) {
    const auto place = places.find(name);
    if (place != places.end() && put_in_place(*panel, place->second)) {
      wrong = true;
    }
  }
  wrong = register_missing() || wrong;
  if (wrong) {
    paint_all_anew();
  }
}

// True when the panel was not as it should be. Curses has its own idea of what becomes of windows
// when the terminal shrinks, and refuses to move one that would not be on the screen as a whole; a
// new one may still be made there.
bool windows_manager::put_in_place(window_info& panel, const position& place) {
  const bool had_place = std::exchange(panel.has_place, has_room(place));
  panel.pos = place;
  if (!panel.has_place || is_at(panel.win, place)) {
    return had_place != panel.has_place;
  }
  WINDOW* const fresh = make_window(place);
  if (fresh != nullptr) {
    delwin(panel.win);
    panel.win = fresh;
  }
  return true;
}

// True when a panel was registered. None is while the program exits: its threads are being joined.
bool windows_manager::register_missing() {
  bool registered = false;
  for (const auto& [name, place] : places) {
    const auto how = registrations.find(name);
    if (windows.count(name) > 0 || how == registrations.end() || !has_room(place) ||
        manager.to_exit) {
      continue;
    }
    const auto panel = std::make_shared<window_info>(name, place.x, place.y, place.width,
                                                     place.height, how->second.cycle_ms);
    panel->priv = how->second.priv;
    panel->win_mgr = this;
    panel->win = make_window(place);
    if (panel->win == nullptr) {
      continue;
    }
    const auto late = late_workers.find(name);
    start(panel, late == late_workers.end() ? how->second.function : late->second);
    registered = true;
  }
  return registered;
}

// Clears the terminal and leaves each panel to be painted.
void windows_manager::paint_all_anew() {
  // Nothing is ever written into it: it blanks also what belongs to no panel.
  touchwin(mainwin);
  wnoutrefresh(mainwin);
  clearok(curscr, TRUE);
  doupdate();
  for (const auto& [name, panel] : windows) {
    panel->lost_paint = true;
  }
}

void windows_manager::place_process_panel(bool perf) {
  const std::lock_guard<std::mutex> win_lk(lock);
  const auto found = windows.find("process");
  if (found != windows.end()) {
    position pos = default_layout(width, height, perf)["process"];
    resize_window(found->second, &pos);
  }
}

position windows_manager::place_of(const std::string& name, bool perf) {
  const std::lock_guard<std::mutex> win_lk(lock);
  return default_layout(width, height, perf)[name];
}
