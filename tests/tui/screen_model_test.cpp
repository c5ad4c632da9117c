// SPDX-License-Identifier: Apache-2.0
// Random sequences of texts, sizes, keys and accidents, against a model of what must be seen: after
// every frame the terminal shows what a fresh start on it would, cell by cell.
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmp.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fake_mon_client.h"
#include "screen.h"
#include "zorva/monitor.h"
#include "zorva/perf_switch.h"
#include "zorva/refresher.h"
#include "zorva/settings.h"
#include "zorva/window_manager.h"

namespace {

// Rows of characters, and which of them are of a header bar.
struct picture {
  picture(int row_count, int column_count)
      : rows(static_cast<size_t>(row_count), std::string(static_cast<size_t>(column_count), ' ')),
        bars(rows) {}
  void put(const position& pos, int y, int x, char character, bool bar) {
    const auto row = static_cast<size_t>(pos.y) + static_cast<size_t>(y);
    const auto column = static_cast<size_t>(pos.x) + static_cast<size_t>(x);
    if (row < rows.size() && column < rows[row].size()) {
      rows[row][column] = character;
      bars[row][column] = bar ? '#' : ' ';
    }
  }
  // The text in a panel: a bar of all columns but one, then lines that are wrapped, until it is
  // full.
  void put_text(const position& pos, const std::string& text) {
    size_t at = 0;
    int x = 0;
    if (text.find('\n') != std::string::npos) {
      for (; x < pos.width - 1; ++x) {
        put(pos, 0, x, text[at] == '\n' ? ' ' : text[at], true);
        at += text[at] == '\n' ? 0 : 1;
      }
    }
    int y = 0;
    for (; at < text.size() && y < pos.height; ++at) {
      if (text[at] != '\n') {
        put(pos, y, x++, text[at], false);
      }
      if (text[at] == '\n' || x == pos.width) {
        x = 0;
        ++y;
      }
    }
  }
  std::vector<std::string> rows;
  std::vector<std::string> bars;
};

// What the program has written to its terminal, which another thread reads.
class terminal_reader {
 public:
  explicit terminal_reader(int fd) : reader([this, fd] { read_on(fd); }) { reader.detach(); }
  // What was written since the last call.
  std::string take() {
    EXPECT_EQ(write(STDOUT_FILENO, &mark, 1), 1);
    ++marks_written;
    std::unique_lock<std::mutex> guard(lock);
    mark_came.wait_for(guard, std::chrono::seconds(30),
                       [&] { return marks_read == marks_written; });
    return std::exchange(output, "");
  }

 private:
  void read_on(int fd) {
    char bytes[4096];
    ssize_t got = 0;
    while ((got = read(fd, bytes, sizeof bytes)) > 0) {
      const std::lock_guard<std::mutex> guard(lock);
      output.append(bytes, static_cast<size_t>(got));
      marks_read += std::count(bytes, bytes + got, mark);
      mark_came.notify_one();
    }
  }
  static constexpr char mark = '\x14';
  std::mutex lock;  // guards what follows
  std::string output;
  ptrdiff_t marks_read = 0;
  ptrdiff_t marks_written = 0;
  std::condition_variable mark_came;
  std::thread reader;
};

class walk {
 public:
  walk(int master_fd, const winsize& size, unsigned seed, bool with_colours)
      : master(master_fd),
        colours(with_colours),
        reader(master_fd),
        random(seed),
        rows(size.ws_row),
        columns(size.ws_col) {
    top = new zorva();
    fake_mon_client::reset();
    top->cpu = std::make_shared<cpu_stat_manager>("", 0);
    shown.resize(rows, columns);
    winds = new windows_manager();
    top->winds = winds;
    for (const char* name : {"common", "process", "cpu", "bpu", "vio"}) {
      const position pos = winds->place_of(name, false);
      winds->create_monitor_window(
          std::make_shared<window_info>(name, pos.x, pos.y, pos.width, pos.height, 1000), nullptr,
          nullptr);
    }
    window_info without_room("", 0, 0, 0, 0, 1000);  // has no bar, and may be painted
    without_room.win = newwin(1, 1, 0, 0);
    without_room.update_window("head\n", true);
    winds->terminal_changed = true;
  }

  // Empty, or what is wrong after a step.
  std::string take(int steps) {
    for (int step = 0; step < steps; ++step) {
      std::string done;
      for (int i = below(3); i >= 0; --i) {
        done += act() + ' ';
      }
      paint_frame(*winds);
      const std::string wrong = wrong_between + compare();
      if (!wrong.empty()) {
        return "step " + std::to_string(step) + ": " + done + '\n' + wrong;
      }
      for (const auto& [name, panel] : winds->windows) {
        if (panel->has_place) {
          panel->update_window("", true);  // says nothing: all stays
        }
      }
    }
    return "";
  }

 private:
  int below(int end) { return std::uniform_int_distribution<int>(0, end - 1)(random); }

  std::string act() {
    const int what = below(20);
    if (what < 9) {
      return publish();
    }
    if (what < 14) {
      return resize();
    }
    switch (what) {
      case 14:
        paint_frame(*winds);
        return "frame";
      case 15:
        switch_perf();
        return "p";
      case 16:
        lose_perf_counters(*winds, turn_of_counters());
        return "lost";
      case 17:
        return resize_while_switching();
      case 18:
        endwin();
        winds->terminal_changed = true;
        return "stopped";
      default:
        EXPECT_EQ(write(STDERR_FILENO, "kernel: message\r\n", 17), 17);
        winds->terminal_changed = true;
        return "foreign";
    }
  }

  // Lines of all lengths around the panel's width, of letters that tell texts apart.
  std::string publish() {
    const auto at =
        std::next(winds->windows.begin(), below(static_cast<int>(winds->windows.size())));
    window_info& panel = *at->second;
    std::string text;
    for (int line = below(panel.pos.height > 0 ? panel.pos.height + 3 : 3); line >= 0; --line) {
      const int width = std::max(panel.pos.width, 1);
      const int length = below(3) == 0 ? width - 2 + below(5) : below(width * 5 / 4 + 1);
      // No repeated letters: libvterm forgets to wrap after REP, which curses makes of them.
      const int first = below(26);
      for (int i = 0; i < length; ++i) {
        text += static_cast<char>('a' + (first + i) % 26);
      }
      text += line > 0 || below(4) > 0 ? "\n" : "";
    }
    if (!text.empty() && panel.name != "vio") {
      panel.publish(text);
      texts[at->second] = text;
    }
    return panel.name;
  }

  std::string resize() {
    constexpr int row_counts[] = {40, 24, 60, 43, 30, 23, 22, 18, 12, 5, 1};
    constexpr int column_counts[] = {132, 80, 118, 119, 160, 200, 70, 71, 60, 20, 1};
    const int old_rows = rows;
    const int old_columns = columns;
    set_size(row_counts[below(11)], column_counts[below(11)]);
    if (below(3) == 0) {  // there and back
      if (below(2) == 0) {
        paint_frame(*winds);
      }
      set_size(old_rows, old_columns);
    }
    return std::to_string(columns) + 'x' + std::to_string(rows);
  }
  void set_size(int row_count, int column_count) {
    shown.show_more(reader.take());
    rows = row_count;
    columns = column_count;
    shown.resize(rows, columns);
    const winsize size{static_cast<unsigned short>(rows), static_cast<unsigned short>(columns), 0,
                       0};
    ioctl(master, TIOCSWINSZ, &size);
    winds->terminal_changed = true;
  }

  // A frame that comes between the setting of the counters and the coming or going of their panel.
  std::string resize_while_switching() {
    const bool on = manager.enable_perf;
    if (!on) {
      switch_perf();
    }
    manager.enable_perf = false;
    const std::string size = resize();
    paint_frame(*winds);
    wrong_between = compare();
    if (on) {
      close_perf_panel(*winds);
    }
    manager.enable_perf = !on;
    return "p within " + size;
  }

  std::string compare() {
    shown.show_more(reader.take());
    picture expected(rows, columns);
    std::string wrong;
    const bool perf = manager.enable_perf || winds->windows.count("perf") > 0;
    for (const auto& [name, place] : default_layout(columns, rows, perf)) {
      const auto panel = winds->windows.find(name);
      if (place.width <= 0 || place.height <= 0) {
        continue;
      }
      if (panel == winds->windows.end()) {
        wrong += "no " + name + '\n';
      } else if (texts.count(panel->second) > 0) {
        expected.put_text(place, texts[panel->second]);
      }
    }
    for (int y = 0; y < rows; ++y) {
      const auto row = static_cast<size_t>(y);
      const std::string got = shown.text(y);
      const std::string bars = shown.bars(y);
      expected.rows[row].erase(expected.rows[row].find_last_not_of(' ') + 1);
      if (got != expected.rows[row] || (colours && bars != expected.bars[row])) {
        wrong += "row " + std::to_string(y) + "\n is     [" + got + "]\n        [" + bars +
                 "]\n should [" + expected.rows[row] + "]\n        [" + expected.bars[row] + "]\n";
      }
    }
    return wrong;
  }

  std::string wrong_between;  // what a frame within an action has shown wrong
  int master;
  bool colours;
  terminal_reader reader;
  std::mt19937 random;
  int rows;
  int columns;
  screen shown{rows, columns};
  windows_manager* winds;
  std::map<std::shared_ptr<window_info>, std::string> texts;  // published so far
};

// In a process of its own: curses begins once in each.
std::string walk_on(const char* terminal_type, const winsize& size, int steps, unsigned seed) {
  int master = -1;
  int slave = -1;
  int ends[2];
  EXPECT_EQ(openpty(&master, &slave, nullptr, nullptr, &size), 0);
  EXPECT_EQ(pipe(ends), 0);
  const pid_t child = fork();
  if (child == 0) {
    login_tty(slave);
    setenv("TERM", terminal_type, 1);
    const std::string type = terminal_type;
    const std::string wrong = walk(master, size, seed, type != "vt100").take(steps);
    _exit(write(ends[1], wrong.data(), wrong.size()) < 0 ? 1 : 0);
  }
  close(slave);
  close(ends[1]);
  std::string wrong;
  char bytes[4096];
  ssize_t got = 0;
  while ((got = read(ends[0], bytes, sizeof bytes)) > 0) {
    wrong.append(bytes, static_cast<size_t>(got));
  }
  int status = -1;
  waitpid(child, &status, 0);
  close(ends[0]);
  close(master);
  return status == 0 ? wrong : "ended with status " + std::to_string(status);
}

TEST(screen, shows_what_a_fresh_start_would_after_any_sequence) {
  const char* const wanted = getenv("ZORVA_SEED");
  const unsigned seed =
      wanted != nullptr ? static_cast<unsigned>(std::stoul(wanted)) : std::random_device()();
  std::cout << "seed " << seed << " (ZORVA_SEED takes it again)" << std::endl;
  EXPECT_EQ(walk_on("xterm-256color", {40, 132, 0, 0}, 8000, seed), "");
  EXPECT_EQ(walk_on("linux", {22, 60, 0, 0}, 1500, seed), "");
  EXPECT_EQ(walk_on("vt100", {24, 80, 0, 0}, 1500, seed), "");
}

}  // namespace
