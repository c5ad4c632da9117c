// SPDX-License-Identifier: Apache-2.0
#include "zorva/panel.h"

#include <cstring>

window_info::window_info(const std::string& panel_name, int x, int y, int width, int high,
                         int interval_ms)
    : cycle_ms(interval_ms), pos{x, y, width, high}, name(panel_name) {}

window_info::~window_info() {
  if (win != nullptr) {
    wclear(win);
    delwin(win);
  }
}

void window_info::publish(const std::string& text) {
  const std::lock_guard<std::mutex> guard(text_lock);
  ss.str(text);
  ss.clear();
  ss.seekp(0, std::ios::end);
  need_flush = true;
}

// Prints the first line as a bar of all columns but the last. Returns what of `msg` is left: the
// rest of a line that is cut starts with the first character that did not fit.
const char* window_info::paint_header(const char* msg) const {
  const char* line_end = std::strchr(msg, '\n');
  if (line_end == nullptr) {
    return msg;
  }
  const int bar_width = pos.width - 1;
  const int length = line_end - msg > bar_width ? bar_width : static_cast<int>(line_end - msg);
  std::string header(msg, static_cast<size_t>(length));
  header.resize(static_cast<size_t>(bar_width), ' ');
  wattr_on(win, COLOR_PAIR(1), nullptr);
  waddstr(win, header.c_str());
  wattr_off(win, COLOR_PAIR(1), nullptr);
  return msg + length;
}

void window_info::update_window(const char* msg, bool light_header) {
  const bool says_something = *msg != '\0';
  if (says_something) {
    // In the last row, curses clears nothing at a line end that follows a wrapped line.
    wmove(win, getmaxy(win) - 1, 0);
    wclrtoeol(win);
  }
  wmove(win, 0, 0);
  if (light_header && pos.width > 0) {
    msg = paint_header(msg);
  }
  // Not wprintw: in ncurses 6.4 it reads its arguments twice when the text is longer than the
  // screen.
  const bool all_printed = waddstr(win, msg) != ERR;
  if (says_something && all_printed) {
    wclrtobot(win);  // what a longer text has left
  }
  wrefresh(win);
}
