// SPDX-License-Identifier: Apache-2.0
// Where the panels are: a pure function of the terminal's size.
#ifndef ZORVA_LAYOUT_H
#define ZORVA_LAYOUT_H

#include <string>
#include <unordered_map>

// A panel's placement in character cells.
struct position {
  int x;       // column of the left edge, 0 is the leftmost
  int y;       // row of the top edge, 0 is the topmost
  int width;   // columns
  int height;  // rows
};

// The place of every panel, by name, on a terminal of `width` by `height`; "perf" only when the
// counters are on. Nothing is clamped: on a small terminal a panel may be left no row or column.
std::unordered_map<std::string, position> default_layout(int width, int height, bool perf);

#endif
