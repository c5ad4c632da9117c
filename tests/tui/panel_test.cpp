// SPDX-License-Identifier: Apache-2.0
// Painting a panel, looked at in its curses window.
#include "zorva/panel.h"

#include <gtest/gtest.h>

namespace {

// Curses on a terminal that nobody looks at.
class panel_test : public testing::Test {
 protected:
  panel_test() : sink(fopen("/dev/null", "r+")), terminal(newterm("xterm", sink, sink)) {
    start_color();
    init_pair(1, COLOR_BLACK, COLOR_GREEN);
    resizeterm(rows, columns);
    panel.win = newwin(panel.pos.height, panel.pos.width, 0, 0);
  }
  ~panel_test() override {
    delwin(panel.win);
    panel.win = nullptr;
    endwin();
    delscreen(terminal);
    fclose(sink);
  }

  std::string row(int y) {
    char text[columns + 1];
    mvwinnstr(panel.win, y, 0, text, columns);
    std::string line(text);
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
  }
  int bar_width(int y) {
    int width = 0;
    while (width < columns && (mvwinch(panel.win, y, width) & A_COLOR) == COLOR_PAIR(1)) {
      ++width;
    }
    return width;
  }
  void paint(const std::string& text) { panel.update_window(text.c_str(), true); }

  static constexpr int rows = 24;
  static constexpr int columns = 80;
  FILE* sink;
  SCREEN* terminal;
  window_info panel{"cpu", 0, 0, 20, 5, 1000};
};

TEST_F(panel_test, first_line_is_a_bar_of_all_columns_but_the_last) {
  paint("head\nbody\n");
  EXPECT_EQ(bar_width(0), 19);
  EXPECT_EQ(row(0), "head");
  EXPECT_EQ(row(1), "body");
  EXPECT_EQ(bar_width(1), 0);
  paint("0123456789012345678\nbody\n");  // 19 characters: just whole
  EXPECT_EQ(row(0), "0123456789012345678");
  EXPECT_EQ(row(1), "body");
  paint("01234567890123456789\nbody\n");  // one more: it follows the bar
  EXPECT_EQ(bar_width(0), 19);
  EXPECT_EQ(row(0), "01234567890123456789");
  paint("no line end");
  EXPECT_EQ(bar_width(0), 0);
  EXPECT_EQ(row(0).substr(0, 11), "no line end");
}

TEST_F(panel_test, panels_without_room_have_no_bar) {
  panel.pos.width = 0;
  paint("head\nbody\n");
  EXPECT_EQ(bar_width(0), 0);
  EXPECT_EQ(row(0), "head");
  panel.pos.width = 1;
  paint("other\nbody\n");
  EXPECT_EQ(bar_width(0), 0);
  EXPECT_EQ(row(0), "other");
}

TEST_F(panel_test, shorter_text_leaves_no_ghosts) {
  paint("head\n1\n2\n3\n4\n");
  EXPECT_EQ(row(4), "4");
  paint("head\nlast\n");
  EXPECT_EQ(row(1), "last");
  for (int y = 2; y < 5; ++y) {
    EXPECT_EQ(row(y), "");
  }
  paint("");  // says nothing: all stays
  EXPECT_EQ(row(1), "last");
}

// Longer than the panel, and than the screen: the rest is dropped and the last row stays whole.
TEST_F(panel_test, long_text_is_cut_at_the_bottom) {
  std::string text = "head\n";
  for (int i = 1; i <= 1000; ++i) {
    text += "row " + std::to_string(i) + "\n";
  }
  paint(text);
  EXPECT_EQ(row(0), "head");
  EXPECT_EQ(row(4).substr(0, 5), "row 4");
}

TEST_F(panel_test, published_text_is_whole_and_raises_the_flag) {
  panel.publish("a long text\n");
  panel.publish("text\n");
  EXPECT_EQ(panel.ss.str(), "text\n");
  EXPECT_TRUE(panel.need_flush);
}

}  // namespace
