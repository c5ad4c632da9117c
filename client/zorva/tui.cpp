// SPDX-License-Identifier: Apache-2.0
#include "zorva/tui.h"

#include <curses.h>
#include <signal.h>

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "zorva/monitor.h"
#include "zorva/refresher.h"
#include "zorva/screen_keeper.h"
#include "zorva/settings.h"
#include "zorva/signals.h"
#include "zorva/terminal_check.h"
#include "zorva/window_manager.h"
#include "zorva/workers.h"

namespace {

using panel_handle = std::shared_ptr<window_info>;
using worker = std::function<void(panel_handle)>;

constexpr int common_cycle_ms = 3000;
constexpr int panel_cycle_ms = 1000;
constexpr int no_cycle = 0;  // filled by the worker of the CPU panel

panel_handle make_panel(const char* name, int cycle_ms) {
  const position pos = top->winds->place_of(name, manager.enable_perf);
  return std::make_shared<window_info>(name, pos.x, pos.y, pos.width, pos.height, cycle_ms);
}

panel_handle add_panel(const char* name, int cycle_ms, const worker& function, void* priv) {
  auto panel = make_panel(name, cycle_ms);
  top->winds->create_monitor_window(panel, function, priv);
  return panel;
}

// "process" is registered before "cpu", whose worker looks it up as soon as it starts. The handles
// are in the order of the screen, and dropped from its end.
std::vector<panel_handle> build_panels() {
  std::vector<panel_handle> panels;
  panels.push_back(add_panel("common", common_cycle_ms, common_info_thread, top));
  if (manager.enable_perf) {
    add_panel("perf", no_cycle, nullptr, top);
  }
  const auto process = add_panel("process", no_cycle, nullptr, top);
  panels.push_back(add_panel("cpu", manager.cycle_ms, sys_core_thread, top));
  panels.push_back(process);
  panels.push_back(add_panel("bpu", panel_cycle_ms, bpu_thread, top));
  panels.push_back(add_panel("vio", panel_cycle_ms, vio_thread, top->vio.get()));
  return panels;
}

// The worker of "cpu" may still take "perf" off the map, and wants the manager's lock for it: the
// handles are copied under the lock, and joined without it. They are returned for as long as the
// refresher runs: the last one of a panel ends its curses window.
std::vector<panel_handle> join_workers(windows_manager& winds) {
  std::vector<panel_handle> panels;
  {
    const std::lock_guard<std::mutex> win_lk(winds.lock);
    for (const auto& [name, panel] : winds.windows) {
      panels.push_back(panel);
    }
  }
  for (const panel_handle& panel : panels) {
    if (panel->thread.joinable()) {
      panel->thread.join();
    }
  }
  return panels;
}

// Whether the environment asks for UTF-8, by whatever locale.
bool wants_utf8() {
  for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const char* value = getenv(name);
    if (value != nullptr && *value != '\0') {
      return strcasestr(value, "utf-8") != nullptr || strcasestr(value, "utf8") != nullptr;
    }
  }
  return false;
}

// Curses then prints what a UTF-8 terminal can show. The locale that ssh hands on from a
// workstation seldom exists on a board.
void set_characters() {
  if (setlocale(LC_CTYPE, "") == nullptr && wants_utf8()) {
    setlocale(LC_CTYPE, "C.UTF-8");
  }
}

// Curses is kept from a handler of its own for SIGTSTP, which would read and set the terminal's
// modes while others do, and from ignoring that signal during each paint: it does neither where it
// finds a handler when it begins.
windows_manager* begin_screen() {
  struct sigaction found {};
  sigaction(SIGTSTP, nullptr, &found);
  struct sigaction none {};
  none.sa_handler = [](int) {};
  sigaction(SIGTSTP, &none, nullptr);
  auto* const winds = new windows_manager();
  sigaction(SIGTSTP, &found, nullptr);
  return winds;
}

}  // namespace

void run_tui(signal_guard& signals) {
  set_characters();
  screen_will_begin();
  {
    const auto hold = signals.hold_off();
    advise_on_terminal();
    top->winds = begin_screen();
    screen_has_begun();
    clean_up_objects.winds = top->winds;
  }
  top->winds->late_workers["process"] = process_thread;
  std::vector<panel_handle> panels = build_panels();
  top->flusher = std::thread(reflesh_thread, top->winds);
  manager.wind_ready = true;

  zorva_manage::read_input();

  {
    const output_dropper dropper;  // the refresher may wait for the terminal, and workers for it
    const std::vector<panel_handle> registered = join_workers(*top->winds);
    top->flusher.join();
  }
  const auto hold = signals.hold_off();
  clean_up_objects.winds = nullptr;
  delete top->winds;
  top->winds = nullptr;
  free_terminal();
  endwin();
  while (!panels.empty()) {
    panels.pop_back();
  }
}
