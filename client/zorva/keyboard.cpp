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

// Reads a byte, or EOF. Another program on the same terminal may have made it non-blocking: then
// there is no input yet, which is not the end of it.
int read_byte() {
  while (true) {
    const int input = getc(stdin);
    if (input != EOF || !ferror(stdin) || errno != EAGAIN) {
      return input;
    }
    clearerr(stdin);
    pollfd waiting{STDIN_FILENO, POLLIN, 0};
    poll(&waiting, 1, -1);
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
  termios new_tio = old_tio;
  new_tio.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  tcsetattr(STDIN_FILENO, TCSANOW, &new_tio);

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
