// SPDX-License-Identifier: Apache-2.0
#include "loads.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <new>
#include <thread>

#include "proc_files.h"
#include "test_tools.h"

namespace {

constexpr size_t mega = 1024 * 1024;
constexpr size_t block = 64 * 1024;

// Sleeps until the next multiple of so many milliseconds since the first call, which has passed
// already when the CPU had other work: so the rate stays the same in the mean.
void wait_for_turn(int every_ms) {
  static auto next = std::chrono::steady_clock::now();
  next += std::chrono::milliseconds(every_ms);
  std::this_thread::sleep_until(next);
}

void must(bool done) {
  if (!done) {
    perror("board: a load cannot be set up");
    _exit(1);
  }
}

[[noreturn]] void wait_for_ever() {
  for (;;) {
    pause();
  }
}

void stay_on_cpu(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  must(sched_setaffinity(0, sizeof set, &set) == 0);
}

void run_a_third() {
  constexpr clock_t turn = CLOCKS_PER_SEC / 100;
  const clock_t end = clock() + turn;  // of the process, whose other threads do nothing
  while (clock() < end) {
  }
  wait_for_turn(30);
}

void touch(size_t size, int sharing) {
  must(mmap(nullptr, size, PROT_READ | PROT_WRITE, sharing | MAP_ANONYMOUS | MAP_POPULATE, -1, 0) !=
       MAP_FAILED);
}

void write_block() {
  static const int disk = open("/dev/ram0", O_WRONLY | O_DIRECT);
  static void* const data = std::aligned_alloc(4096, block);
  must(pwrite(disk, data, block, 0) == static_cast<ssize_t>(block));
  wait_for_turn(20);
}

void nothing() {}

}  // namespace

pid_t loads::start(const std::function<void()>& set_up, const std::function<void()>& live) {
  int ready[2];
  must(pipe(ready) == 0);
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    set_up();
    must(write(ready[1], "", 1) == 1);
    for (;;) {
      live();
    }
  }
  close(ready[1]);
  char byte;
  must(read(ready[0], &byte, 1) == 1);
  close(ready[0]);
  all.push_back(pid);
  return pid;
}

pid_t loads::start(const std::function<void()>& set_up) {
  return start(set_up, pause);
}

loads::loads() {
  stay_on_cpu(1);
  counts =
      new (mmap(nullptr, sizeof *counts, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
          shared_counts();
  busy = start([] { stay_on_cpu(0); }, nothing);
  threads = start([] {
    std::thread(wait_for_ever).detach();
    std::thread([] {
      for (;;) {
        run_a_third();
      }
    }).detach();
  });
  zombie = start(nothing, [] { _exit(0); });
  stopped = start(nothing);
  kill(stopped, SIGSTOP);
  waitpid(stopped, nullptr, WUNTRACED);
  // Whoever calls vfork() waits in state D for its child to end or to run another program.
  // NOLINTBEGIN(clang-analyzer-unix.Vfork,clang-analyzer-security.insecureAPI.vfork): the child
  // changes nothing of the parent's.
  blocked = start(nothing, [] {
    if (vfork() == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      wait_for_ever();
    }
  });
  // NOLINTEND(clang-analyzer-unix.Vfork,clang-analyzer-security.insecureAPI.vfork)
  niced = start([] { must(setpriority(PRIO_PROCESS, 0, 7) == 0); });
  real_time = start([] {
    const sched_param ten{10};
    must(sched_setscheduler(0, SCHED_FIFO, &ten) == 0);
  });
  other_net = start([] { must(unshare(CLONE_NEWNET) == 0); });
  memory = start([] {
    touch(32 * mega, MAP_PRIVATE);
    touch(16 * mega, MAP_SHARED);
  });
  strange = start([] { prctl(PR_SET_NAME, strange_name); });
  of_user = start([] {
    must(setgid(ordinary_user) == 0 && setuid(ordinary_user) == 0);
    prctl(PR_SET_DUMPABLE, 1);  // else it counts as somebody else's
  });
  writer = start(nothing, write_block);
  start_connection();
  must(wait_until([this] {
    const auto tasks = read_tasks(false);
    return tasks.at(blocked).state == 'D' && tasks.at(zombie).state == 'Z';
  }));
}

loads::~loads() {
  for (const pid_t pid : all) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  munmap(counts, sizeof *counts);
}

void loads::start_connection() {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  socklen_t length = sizeof address;
  must(listen(listener, 1) == 0);
  must(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) == 0);
  int connection = -1;
  static char data[block];
  sender = start(
      [&] {
        close(listener);
        connection = socket(AF_INET, SOCK_STREAM, 0);
        must(connect(connection, reinterpret_cast<sockaddr*>(&address), length) == 0);
      },
      [&] {
        send(connection, data, block, MSG_NOSIGNAL);
        wait_for_turn(20);
      });
  receiver = start([&] { must((connection = accept(listener, nullptr, nullptr)) >= 0); },
                   [&] {
                     const ssize_t got = recv(connection, data, block, 0);
                     if (got <= 0) {  // the sender has ended first
                       wait_for_ever();
                     }
                     counts->received += static_cast<uint64_t>(got);
                   });
  close(listener);
}
