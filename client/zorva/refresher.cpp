// SPDX-License-Identifier: Apache-2.0
#include "zorva/refresher.h"

#include <poll.h>
#include <unistd.h>

#include "zorva/record_file.h"
#include "zorva/settings.h"
#include "zorva/terminal_modes.h"
#include "zorva/window_manager.h"
#include "zorva/workers.h"

namespace {

// A text that was painted before and is lost, after a change of the terminal's size, say, is
// painted again; it is not new to the output file.
void paint(window_info& panel) {
  const std::lock_guard<std::mutex> guard(panel.text_lock);
  if (!panel.need_flush && !panel.lost_paint) {
    return;
  }
  const std::string text = panel.ss.str();
  if (panel.need_flush && panel.has_place) {
    append_record(text);
  }
  if (panel.has_place) {
    panel.update_window(text.c_str(), true);
  }
  panel.need_flush = false;
  panel.lost_paint = false;
}

// False while another job has the terminal, and while the terminal has not taken yet what it was
// sent: a frame then is put off, rather than stuck half way with the manager's lock held.
bool terminal_takes_a_frame() {
  pollfd screen{STDOUT_FILENO, POLLOUT, 0};
  return terminal_is_ours() && poll(&screen, 1, 0) == 1;
}

}  // namespace

void paint_frame(windows_manager& winds) {
  winds.take_terminal_size();
  winds.resize_windows();
  const std::lock_guard<std::mutex> win_lk(winds.lock);
  winds.mend_screen();
  for (const auto& [name, panel] : winds.windows) {
    paint(*panel);
  }
}

void reflesh_thread(windows_manager* wind_mgr) {
  constexpr int frame_time_ms = 200;
  wait_until_ready();
  do {
    if (terminal_takes_a_frame()) {
      paint_frame(*wind_mgr);
    }
  } while (zorva_manage::handle_input(frame_time_ms) == 0);
  end_records();
}
