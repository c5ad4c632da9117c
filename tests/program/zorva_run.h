// A run of the program itself with the scripted client library.
#ifndef ZORVA_RUN_H
#define ZORVA_RUN_H

#include <string>
#include <vector>

#include "child_process.h"

using lines = std::vector<std::string>;

// The file whose making lets calls return that wait for it, for use in a script.
constexpr char until_go[] = "until={go}";

struct zorva_run {
  struct set_up {
    lines options;
    std::string script;
    bool input_from_terminal = true;
    bool output_to_terminal = true;
    tcflag_t local_modes = ISIG | ICANON | ECHO;  // of the terminal, at the start
  };

  explicit zorva_run(const set_up& how);
  // Fails the test when a sanitizer had something to report.
  ~zorva_run();

  // Each false at the deadline.
  bool wait_for_call(const std::string& record, size_t times = 1);
  bool wait_for_log(const std::string& message);
  bool wait_for_local_modes(tcflag_t modes);  // exactly these of ICANON and ECHO
  // Until the keyboard loop has the terminal, and a report is composed.
  bool wait_until_running();

  void go() const;

  // The signal that it died by, or "exit " and its status.
  std::string end();

  // The records of the clean-up's calls, a blank after each.
  std::string clean_up_calls() const;
  std::string calls() const { return read_file(folder.file("calls")); }
  std::string errors() const { return read_file(folder.file("errors")); }
  // How often the message was logged.
  size_t logged(const std::string& message) const;

  temporary_folder folder;
  pseudo_terminal terminal;
  child_process process;
};

#endif
