// SPDX-License-Identifier: Apache-2.0
#include "server_options.h"

#include <getopt.h>
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>

namespace {

constexpr char usage[] =
    "Usage: mon_server [options]\n"
    "Samples this machine for zorva and answers on a TCP port.\n"
    "  --listen ADDR   address to listen on, default 127.0.0.1; there is no password, so reach\n"
    "                  another machine's server through an SSH tunnel rather than by this\n"
    "  --port N        port to listen on, default 1234; 0 takes a free one and logs its number\n"
    "  --board DIR     folder with the board's BPU, VIO and ION figures, one number a file\n"
    "  --sysroot DIR   read DIR/proc and DIR/sys in place of the machine's own\n"
    "  --keep-files N  files of processes that stay open between samples, default 4096; each "
    "takes\n"
    "                  some 6 KiB of the kernel's memory\n"
    "  --no-bpf        read processes from /proc even where a BPF program could\n"
    "  --check         tell for each family of figures where it is read from on this machine, or "
    "why\n"
    "                  it is not and what to do, and end: with 0 when all is well, 1 when "
    "something\n"
    "                  is missing or could be read better; serves nobody\n"
    "  --help          this text\n"
    "  --version       the version\n";

template <class integer>
bool parse_number(std::string_view text, integer& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

// Empty when `path` is a folder, else what is wrong with it.
std::string folder_problem(const std::string& option, const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    return option + ' ' + path + ": " + strerror(errno) + '\n';
  }
  return S_ISDIR(status.st_mode) ? "" : option + ' ' + path + ": not a folder\n";
}

// Takes one option. Anything but `run` ends the command line.
command_line take_option(int opt, server_options& options, std::string& text) {
  switch (opt) {
    case 'l':
      options.listen = optarg;
      break;
    case 'p':
      if (!parse_number(optarg, options.port)) {
        text = std::string("--port ") + optarg + ": not a port number, 0 to 65535\n";
        return command_line::wrong;
      }
      break;
    case 'b':
      options.board = optarg;
      break;
    case 's':
      options.sysroot = optarg;
      break;
    case 'k':
      if (!parse_number(optarg, options.keep_files)) {
        text = std::string("--keep-files ") + optarg + ": not a number\n";
        return command_line::wrong;
      }
      break;
    case 'n':
      options.use_bpf = false;
      break;
    case 'c':
      options.check = true;
      break;
    case 'h':
      text = usage;
      return command_line::done;
    case 'v':
      text = "mon_server " ZORVA_VERSION "\n";
      return command_line::done;
    default:  // getopt has said what is wrong
      text = usage;
      return command_line::wrong;
  }
  return command_line::run;
}

}  // namespace

command_line parse_server_options(int argc, char** argv, server_options& options,
                                  std::string& text) {
  static constexpr option long_options[] = {
      {"listen", required_argument, nullptr, 'l'},
      {"port", required_argument, nullptr, 'p'},
      {"board", required_argument, nullptr, 'b'},
      {"sysroot", required_argument, nullptr, 's'},
      {"keep-files", required_argument, nullptr, 'k'},
      {"no-bpf", no_argument, nullptr, 'n'},
      {"check", no_argument, nullptr, 'c'},
      {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'v'},
      {nullptr, 0, nullptr, 0},
  };
  int opt;
  while ((opt = getopt_long(argc, argv, "", long_options, nullptr)) != -1) {
    const command_line taken = take_option(opt, options, text);
    if (taken != command_line::run) {
      return taken;
    }
  }
  if (optind < argc) {
    text = std::string("unknown word ") + argv[optind] + '\n' + usage;
    return command_line::wrong;
  }
  if (!options.board.empty()) {
    text = folder_problem("--board", options.board);
  }
  if (text.empty() && !options.sysroot.empty()) {
    text = folder_problem("--sysroot", options.sysroot);
  }
  return text.empty() ? command_line::run : command_line::wrong;
}
