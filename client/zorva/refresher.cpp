#include "zorva/refresher.h"

#include <sys/time.h>

#include "zorva/settings.h"
#include "zorva/time_stamp.h"
#include "zorva/window_manager.h"
#include "zorva/workers.h"

namespace {

void append_record(const std::string& text) {
  timeval msg_time{};
  gettimeofday(&msg_time, nullptr);
  // A full disk may have room again: each record is tried anew.
  manager.out_file.clear();
  write_time_stamp(manager.out_file, "\n[%Y-%m-%d %H:%M:%S.", msg_time);
  manager.out_file << "]\n" << text;
}

void paint(window_info& panel) {
  const std::lock_guard<std::mutex> guard(panel.text_lock);
  if (!panel.need_flush) {
    return;
  }
  const std::string text = panel.ss.str();
  if (manager.out_file.is_open()) {
    append_record(text);
  }
  panel.update_window(text.c_str(), true);
  panel.need_flush = false;
}

}  // namespace

void reflesh_thread(windows_manager* wind_mgr) {
  constexpr int frame_time_ms = 200;
  wait_until_ready();
  do {
    wind_mgr->resize_windows();
    const std::lock_guard<std::mutex> win_lk(wind_mgr->lock);
    for (const auto& [name, panel] : wind_mgr->windows) {
      paint(*panel);
    }
  } while (zorva_manage::handle_input(frame_time_ms) == 0);
}
