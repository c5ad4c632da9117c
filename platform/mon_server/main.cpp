// SPDX-License-Identifier: Apache-2.0
#include <malloc.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "confinement.h"
#include "self_check/self_check.h"
#include "server.h"
#include "server_log.h"
#include "server_options.h"

namespace {

// Clients, counters (one a CPU and event) and processes' files that are kept open need more than
// the usual 1,024.
void raise_descriptor_limit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

// Large blocks that were needed once (the kernel's types, answers that nobody reads) go back to the
// kernel: by itself the allocator would raise these limits to the largest block that it has seen.
// The threads of slow reads need little, and share the one arena; their stacks count against
// RLIMIT_AS.
void keep_memory_small() {
  constexpr int limit = 128 * 1024;
  mallopt(M_MMAP_THRESHOLD, limit);
  mallopt(M_TRIM_THRESHOLD, limit);
  mallopt(M_ARENA_MAX, 1);
#ifndef __SANITIZE_THREAD__  // which keeps more than that on each stack
  pthread_attr_t small;
  pthread_attr_init(&small);
  pthread_attr_setstacksize(&small, 4 * limit);
  pthread_setattr_default_np(&small);
  pthread_attr_destroy(&small);
#endif
}

bool one_thread_left() {
  const auto threads = std::filesystem::directory_iterator("/proc/self/task");
  return std::distance(begin(threads), end(threads)) <= 1;
}

// Threads of reads that hang in the kernel are left behind. What runs at exit must not take apart
// what they use, nor wait for them: the leak check of the sanitizer stops all threads with ptrace,
// and one that waits for a dead mount does not stop.
void leave_hanging_threads(int status) {
  constexpr int turns = 10;  // the others end at once
  for (int turn = 0; turn < turns && !one_thread_left(); ++turn) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (!one_thread_left()) {
    std::_Exit(status);
  }
}

void give_up_rights(const server_options& options) {
  const int refused = confine(options.use_bpf && options.sysroot.empty());
  if (refused < 0) {
    server_log(log_priority::warning,
               "cannot give up rights that it does not need: " + std::string(strerror(-refused)));
  }
}

// With the rights that the server keeps, no others: what it finds is what the server will.
int check(const server_options& options) {
  std::cout << check_head(options) << std::flush;
  give_up_rights(options);
  const std::vector<finding> findings = check_all(options);
  std::cout << check_text(findings) << std::flush;
  return std::cout ? check_status(findings) : 1;
}

int serve(const server_options& options) {
  asio::io_context loop(1);
  server monitor(loop, options);
  const std::string problem = monitor.listen();
  if (!problem.empty()) {
    server_log(log_priority::error, problem);
    return 1;
  }
  give_up_rights(options);
  asio::signal_set stop(loop, SIGTERM, SIGINT);
  stop.async_wait([&loop](const asio::error_code&, int) { loop.stop(); });
  monitor.run();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  server_options options;
  std::string text;
  switch (parse_server_options(argc, argv, options, text)) {
    case command_line::done:
      std::cout << text;
      return 0;
    case command_line::wrong:
      std::cerr << text;
      return 2;
    case command_line::run:
      break;
  }
  // Where a loader was called to start it, it is called ld-linux-...
  prctl(PR_SET_NAME, "mon_server");
  raise_descriptor_limit();
  keep_memory_small();
  // Log lines to a reader that went away must not end the server.
  std::signal(SIGPIPE, SIG_IGN);
  try {
    const int status = options.check ? check(options) : serve(options);
    leave_hanging_threads(status);
    return status;
  } catch (const std::exception& error) {  // no descriptor or memory for what every server needs
    server_log(log_priority::error, std::string("cannot start: ") + error.what());
    return 1;
  }
}
