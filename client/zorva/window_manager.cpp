#include "zorva/window_manager.h"

#include <iostream>
#include <utility>

#include "zorva/settings.h"

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
  info->win = newwin(pos->height, pos->width, pos->y, pos->x);
  if (info->win == nullptr) {
    std::cerr << "Create new window failed" << std::endl;
    return -1;
  }
  // The cursor is hidden: moving it back after each paint would be bytes for nothing.
  leaveok(info->win, TRUE);
  return 0;
}

int windows_manager::create_monitor_window(
    // NOLINTNEXTLINE(performance-unnecessary-value-param): the worker gets a handle of its own
    std::shared_ptr<window_info> winfo, std::function<void(std::shared_ptr<window_info>)> function,
    void* priv) {
  winfo->priv = priv;
  winfo->win_mgr = this;
  // From here on the refresher may be painting.
  const std::lock_guard<std::mutex> win_lk(lock);
  if (create_window(winfo, &winfo->pos) < 0) {
    return -1;
  }
  if (function) {
    winfo->thread = std::thread(std::move(function), winfo);
  }
  windows.emplace(winfo->name, winfo);
  return 0;
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
