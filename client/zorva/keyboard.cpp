// The keyboard loop.
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "zorva/log.h"
#include "zorva/monitor.h"
#include "zorva/perf_switch.h"
#include "zorva/settings.h"
#include "zorva/terminal_modes.h"

namespace {

enum sort_key { by_cpu = 1, by_bpu = 2, by_io = 3, by_net = 4, by_ram = 5 };

void sort_by(sort_key key, const char* message) {
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
      sort_by(by_cpu, "Sort by CPU usage\n");
      break;
    case 'b':
      sort_by(by_bpu, "Sort by BPU usage\n");
      break;
    case 'i':
      sort_by(by_io, "Sort by io\n");
      break;
    case 'n':
      sort_by(by_net, "Sort by net\n");
      break;
    case 'r':
      sort_by(by_ram, "Sort by ram rss\n");
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

// Waits for a byte and returns it, or EOF. While another job has the terminal, nothing is read,
// which would stop this process; when it comes back (fg), the shell has set its own modes again. A
// read that a signal has cut short (curses handles SIGWINCH), or that found nothing because another
// program made the terminal non-blocking, is not the end of the input.
int read_byte() {
  constexpr int look_ms = 1000;
  while (!manager.to_exit) {
    if (!terminal_is_ours()) {
      usleep(look_ms * 1000);
      continue;
    }
    set_key_mode();
    pollfd waiting{STDIN_FILENO, POLLIN, 0};
    if (poll(&waiting, 1, look_ms) <= 0) {
      continue;
    }
    const int input = getc(stdin);
    if (input != EOF || !ferror(stdin) || (errno != EAGAIN && errno != EINTR)) {
      return input;
    }
    clearerr(stdin);
  }
  // A signal is ending the program; the terminal is no longer this loop's.
  while (true) {
    pause();
  }
}

// A terminal that has gone away gives an error rather than the end of file; both are final.
bool input_closed() {
  return feof(stdin) || ferror(stdin);
}

}  // namespace

void zorva_manage::read_input() {
  termios old_tio{};
  tcgetattr(STDIN_FILENO, &old_tio);
  // Bytes must not wait in a buffer that poll(2) does not know of.
  setvbuf(stdin, nullptr, _IONBF, 0);

  while (true) {
    if (input_closed()) {
      LOG_W("STDIN has been closed!!\n");
      while (true) {
        sleep(10);
      }
    }
    const int input = read_byte();
    if (input == 'q') {
      manager.to_exit = true;
      tcsetattr(STDIN_FILENO, TCSANOW, &old_tio);
      return;
    }
    act_on(input);
  }
}
