// SPDX-License-Identifier: Apache-2.0
// The server's command line.
#ifndef SERVER_OPTIONS_H
#define SERVER_OPTIONS_H

#include <cstddef>
#include <cstdint>
#include <string>

struct server_options {
  std::string listen = "127.0.0.1";
  uint16_t port = 1234;      // 0: any that is free; the log line says which
  std::string sysroot;       // empty: the machine's own /proc and /sys
  std::string board;         // folder of the board's figures; empty: none
  size_t keep_files = 4096;  // descriptors of processes' files that stay open, at most
  bool use_bpf = true;       // where the kernel and the rights allow it
  bool check = false;        // tell where figures come from, and end
};

enum class command_line {
  run,   // options are filled
  done,  // the text is what was asked for: print it and end with 0
  wrong  // the text says what is wrong: print it and end with 2
};

command_line parse_server_options(int argc, char** argv, server_options& options,
                                  std::string& text);

#endif
