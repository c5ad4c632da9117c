#include "zorva_run.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

namespace {

size_t count(const std::string& text, const std::string& part) {
  size_t found = 0;
  for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) {
    ++found;
  }
  return found;
}

// Writes the script and prepares the terminal, before the program starts.
launch prepare(const zorva_run::set_up& how, const temporary_folder& folder,
               const pseudo_terminal& terminal) {
  std::string script = how.script;
  const size_t go = script.find(until_go);
  if (go != std::string::npos) {
    script.replace(go, strlen(until_go), "until=" + folder.file("go"));
  }
  std::ofstream(folder.file("script")) << script;
  terminal.set_local_modes(how.local_modes);
  // The fault signals are the program's own to handle.
  const char* const sanitizer =
      "handle_segv=0:handle_abort=0:handle_sigbus=0:handle_sigill=0:handle_sigfpe=0";
  launch start;
  start.command = {ZORVA_PROGRAM, "-l", folder.file("log")};
  start.command.insert(start.command.end(), how.options.begin(), how.options.end());
  start.environment = {"LD_LIBRARY_PATH",        FAKE_LIBRARY_DIR,
                       "FAKE_MON_CLIENT_SCRIPT", folder.file("script"),
                       "FAKE_MON_CLIENT_CALLS",  folder.file("calls"),
                       "ASAN_OPTIONS",           sanitizer,
                       "TSAN_OPTIONS",           sanitizer};
  start.error_file = folder.file("errors");
  start.input_from_terminal = how.input_from_terminal;
  start.output_to_terminal = how.output_to_terminal;
  return start;
}

}  // namespace

zorva_run::zorva_run(const set_up& how) : process(terminal, prepare(how, folder, terminal)) {}

zorva_run::~zorva_run() {
  EXPECT_EQ(errors().find("Sanitizer"), std::string::npos) << errors();
  EXPECT_EQ(errors().find("runtime error"), std::string::npos) << errors();
}

bool zorva_run::wait_for_call(const std::string& record, size_t times) {
  return process.wait_until([&] { return count('\n' + calls(), '\n' + record + '\n') >= times; });
}

bool zorva_run::wait_for_log(const std::string& message) {
  return process.wait_until([&] { return logged(message) > 0; });
}

bool zorva_run::wait_for_local_modes(tcflag_t modes) {
  return process.wait_until(
      [&] { return (terminal.attributes().c_lflag & (ICANON | ECHO)) == modes; });
}

bool zorva_run::wait_until_running() {
  return wait_for_local_modes(0) &&
         process.wait_until([&] { return calls().find("get_process_all") != std::string::npos; });
}

void zorva_run::go() const {
  std::ofstream(folder.file("go"));
}

std::string zorva_run::end() {
  const int status = process.wait_for_end([this] {
#ifdef __SANITIZE_THREAD__
    // ThreadSanitizer puts a signal off until the thread that took it calls a function that it
    // knows. The main thread, waiting for a key, calls one when this key is logged.
    terminal.type("c");
#endif
  });
  if (status == -1) {
    return "still running; its log:\n" + read_file(folder.file("log"));
  }
  return WIFSIGNALED(status) ? strsignal(WTERMSIG(status))
                             : "exit " + std::to_string(WEXITSTATUS(status));
}

std::string zorva_run::clean_up_calls() const {
  const std::set<std::string> steps = {"cpu_mon_exit", "exit_net_monitor", "disable_perf_mon",
                                       "back_client_id"};
  std::string found;
  std::istringstream records(calls());
  for (std::string record; std::getline(records, record);) {
    if (steps.count(record) > 0) {
      found += record + ' ';
    }
  }
  return found;
}

size_t zorva_run::logged(const std::string& message) const {
  return count(read_file(folder.file("log")), " ZORVA: " + message + '\n');
}
