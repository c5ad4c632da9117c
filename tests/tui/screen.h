// SPDX-License-Identifier: Apache-2.0
// The screen that a terminal shows of what a program has written to it.
#ifndef SCREEN_H
#define SCREEN_H

#include <vterm.h>

#include <memory>
#include <string>

class screen {
 public:
  screen(int rows, int columns);
  screen(const screen&) = delete;
  screen& operator=(const screen&) = delete;

  // Takes what of `output` it has not seen yet; call it with all that was written so far.
  void show(const std::string& output);
  // Takes what was written next.
  void show_more(const std::string& bytes);
  void resize(int rows, int columns);

  // `length` columns of a row, without trailing blanks.
  std::string text(int row, int column = 0, int length = 1000) const;

  // How many columns from there on have the header bar's colours, black on green.
  int bar_width(int row, int column = 0) const;

  // A '#' for each column of a row that has them, a blank for each other one.
  std::string bars(int row) const;

  bool full_screen = false;  // the alternate screen is shown
  bool cursor_visible = true;

 private:
  struct free_terminal {
    void operator()(VTerm* one) const { vterm_free(one); }
  };
  int columns() const;
  static int set_property(VTermProp property, VTermValue* value, void* self);

  std::unique_ptr<VTerm, free_terminal> terminal;
  VTermScreen* cells;
  VTermScreenCallbacks callbacks{};
  size_t seen = 0;
};

#endif
