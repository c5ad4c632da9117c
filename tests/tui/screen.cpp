// SPDX-License-Identifier: Apache-2.0
#include "screen.h"

namespace {

bool is_bar(const VTermScreenCell& cell) {
  constexpr int black = 0;
  constexpr int green = 2;
  return VTERM_COLOR_IS_INDEXED(&cell.bg) && cell.bg.indexed.idx == green &&
         VTERM_COLOR_IS_INDEXED(&cell.fg) && cell.fg.indexed.idx == black;
}

VTermScreenCell cell_at(VTermScreen* cells, int row, int column) {
  VTermScreenCell cell{};
  vterm_screen_get_cell(cells, {row, column}, &cell);
  return cell;
}

}  // namespace

screen::screen(int rows, int columns)
    : terminal(vterm_new(rows, columns)), cells(vterm_obtain_screen(terminal.get())) {
  vterm_set_utf8(terminal.get(), 1);
  callbacks.settermprop = set_property;
  vterm_screen_set_callbacks(cells, &callbacks, this);
  vterm_screen_enable_altscreen(cells, 1);
  vterm_screen_reset(cells, 1);
}

int screen::set_property(VTermProp property, VTermValue* value, void* self) {
  auto& one = *static_cast<screen*>(self);
  if (property == VTERM_PROP_ALTSCREEN) {
    one.full_screen = value->boolean != 0;
  } else if (property == VTERM_PROP_CURSORVISIBLE) {
    one.cursor_visible = value->boolean != 0;
  }
  return 1;
}

void screen::show(const std::string& output) {
  show_more(output.substr(seen));
  seen = output.size();
}

void screen::show_more(const std::string& bytes) {
  vterm_input_write(terminal.get(), bytes.data(), bytes.size());
}

void screen::resize(int rows, int columns) {
  vterm_set_size(terminal.get(), rows, columns);
}

int screen::columns() const {
  int rows = 0;
  int columns = 0;
  vterm_get_size(terminal.get(), &rows, &columns);
  return columns;
}

std::string screen::text(int row, int column, int length) const {
  std::string line;
  for (int x = column; x < columns() && x < column + length; ++x) {
    const VTermScreenCell cell = cell_at(cells, row, x);
    line += cell.chars[0] == 0 ? ' ' : static_cast<char>(cell.chars[0]);
  }
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

int screen::bar_width(int row, int column) const {
  int width = 0;
  while (column + width < columns() && is_bar(cell_at(cells, row, column + width))) {
    ++width;
  }
  return width;
}

std::string screen::bars(int row) const {
  std::string found;
  for (int x = 0; x < columns(); ++x) {
    found += is_bar(cell_at(cells, row, x)) ? '#' : ' ';
  }
  return found;
}
