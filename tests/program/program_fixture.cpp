#include "program_fixture.h"

#include <android/log.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <new>

timeval clock_now{};
int64_t clock_step_s = 0;

// These two win over the shared libraries' own.
int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
  char message[1024];
  va_list args;
  va_start(args, fmt);
  vsnprintf(message, sizeof message, fmt, args);
  va_end(args);
  std::string text = std::to_string(prio) + ' ' + tag + ' ' + message;
  std::replace(text.begin(), text.end(), '\n', '|');
  fake_mon_client::record(text);
  return 1;
}

int gettimeofday(timeval* tv, void* /*tz*/) noexcept {
  *tv = clock_now;
  clock_now.tv_sec += clock_step_s;
  return 0;
}

void with_redirected(int fd, int target, const std::function<void()>& act) {
  const int kept = dup(fd);
  dup2(target, fd);
  act();
  dup2(kept, fd);
  close(kept);
}

void program::start_afresh() {
  manager.~zorva_manage();
  new (&manager) zorva_manage;
  manager.tui_mode = false;
  manager.batch_mode = true;
  fake_mon_client::reset();
  clock_step_s = 0;
}

void program::connect() {
  top = &monitor;
  EXPECT_EQ(monitor.zorva_top_init("127.0.0.1", 1234), 0);
  fake_mon_client::reset();
}
