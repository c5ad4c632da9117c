// SPDX-License-Identifier: Apache-2.0
// The keyboard loop.
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <string>

#include "mon_records.h"
#include "zorva/log.h"
#include "zorva/monitor.h"
#include "zorva/perf_switch.h"
#include "zorva/settings.h"
#include "zorva/terminal_modes.h"

namespace {

void sort_by(process_sort_key key, const char* message) {
  manager.sort_mode = key;
  LOG_I("%s", message);
}

void switch_view(bool threads, const char* message) {
  if (manager.thread_mode == threads) {
    return;
  }
  manager.thread_mode = threads;
  LOG_I("%s", message);
  if (top->cpu->cpu_mon_exit() < 0) {
    LOG_E("get_process_all reset failed\n");
  }
  manager.flush_now = true;
}

void act_on(int input) {
  switch (input) {
    case 'c':
      sort_by(sort_by_cpu, "Sort by CPU usage\n");
      break;
    case 'b':
      sort_by(sort_by_bpu, "Sort by BPU usage\n");
      break;
    case 'i':
      sort_by(sort_by_io, "Sort by io\n");
      break;
    case 'n':
      sort_by(sort_by_net, "Sort by net\n");
      break;
    case 'r':
      sort_by(sort_by_ram, "Sort by ram rss\n");
      break;
    case 'H':
      switch_view(true, "Switch to thread mode\n");
      break;
    case 'P':
      switch_view(false, "Switch to process mode\n");
      break;
    case 'p':
      switch_perf();
      break;
    default:
      break;
  }
}

bool byte_is_waiting(int timeout_ms) {
  pollfd waiting{STDIN_FILENO, POLLIN, 0};
  return poll(&waiting, 1, timeout_ms) > 0;
}

// A read that a signal has cut short, that found nothing because another program made the terminal
// non-blocking, or that came while another job had the terminal (it may be ours again by now), is
// not the end of the input. A terminal that has gone away has no foreground job either.
bool may_read_again(int error) {
  return error == EAGAIN || error == EINTR || (error == EIO && tcgetpgrp(STDIN_FILENO) >= 0);
}

// Waits for a byte and returns it, or EOF. While another job has the terminal, nothing is read;
// when it comes back (fg), the shell has set its own modes again.
int read_byte() {
  constexpr int look_ms = 1000;
  constexpr useconds_t background_look_us = 200000;
  while (!manager.to_exit) {
    if (!terminal_is_ours()) {
      usleep(background_look_us);
      continue;
    }
    set_key_mode();
    if (!byte_is_waiting(look_ms)) {
      continue;
    }
    const int input = getc(stdin);
    if (input != EOF || !ferror(stdin) || !may_read_again(errno)) {
      return input;
    }
    clearerr(stdin);
  }
  // A signal is ending the program; the terminal is no longer this loop's.
  while (true) {
    pause();
  }
}

// Keys that were typed while one was being acted on.
class key_queue {
 public:
  bool empty() const { return keys.empty(); }
  int take() {
    const int first = static_cast<unsigned char>(keys.front());
    keys.erase(0, 1);
    return first;
  }

  // Reads all keys that wait. A `q` among them comes before the others, which may each ask a server
  // that does not answer.
  void read_waiting() {
    constexpr size_t most = 4096;
    while (keys.size() < most && terminal_is_ours() && byte_is_waiting(0)) {
      const int input = getc(stdin);
      if (input == EOF) {
        break;
      }
      keys += static_cast<char>(input);
    }
    if (!feof(stdin)) {
      clearerr(stdin);  // whether it is an error for good, the next read tells
    }
    if (keys.find('q') != std::string::npos) {
      keys = "q";
    }
  }

 private:
  std::string keys;
};

// Acts on a key. True when that took so long that its user may have given up on it.
bool takes_long(int input) {
  constexpr std::chrono::milliseconds long_time{300};
  const auto began = std::chrono::steady_clock::now();
  act_on(input);
  return std::chrono::steady_clock::now() - began > long_time;
}

// A terminal that has gone away gives an error rather than the end of file; both are final.
bool input_closed() {
  return feof(stdin) || ferror(stdin);
}

}  // namespace

void zorva_manage::read_input() {
  termios old_tio{};
  tcgetattr(STDIN_FILENO, &old_tio);
  // Bytes must not wait in a buffer that poll(2) does not know of. Without any buffer, glibc would
  // flush standard output before each read, and wait for a report that is being written.
  static char single[1];
  setvbuf(stdin, single, _IOFBF, sizeof single);

  key_queue queue;
  while (true) {
    if (queue.empty() && input_closed()) {
      LOG_W("STDIN has been closed!!\n");
      while (true) {
        sleep(10);
      }
    }
    const int input = queue.empty() ? read_byte() : queue.take();
    if (input == 'q') {
      manager.to_exit = true;
      leave_key_mode(old_tio);
      return;
    }
    if (takes_long(input)) {
      queue.read_waiting();
    }
  }
}
