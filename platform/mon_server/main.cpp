#include <malloc.h>
#include <sys/resource.h>

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <csignal>
#include <iostream>
#include <string>

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
// The threads of slow reads need little, and share the one arena.
void keep_memory_small() {
  constexpr int limit = 128 * 1024;
  mallopt(M_MMAP_THRESHOLD, limit);
  mallopt(M_TRIM_THRESHOLD, limit);
  mallopt(M_ARENA_MAX, 1);
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
  raise_descriptor_limit();
  keep_memory_small();
  // Log lines to a reader that went away must not end the server.
  std::signal(SIGPIPE, SIG_IGN);
  asio::io_context loop(1);
  server monitor(loop, options);
  const std::string problem = monitor.listen();
  if (!problem.empty()) {
    server_log(log_priority::error, problem);
    return 1;
  }
  asio::signal_set stop(loop, SIGTERM, SIGINT);
  stop.async_wait([&loop](const asio::error_code&, int) { loop.stop(); });
  loop.run();
  return 0;
}
