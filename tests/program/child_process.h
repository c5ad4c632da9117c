// Running a program under test as a shell would run it, and waiting for what it does.
#ifndef CHILD_PROCESS_H
#define CHILD_PROCESS_H

#include <sys/types.h>
#include <termios.h>

#include <functional>
#include <string>
#include <vector>

// Calls `done` until it is true; false when it was not within 30 s, which is far more than anything
// waited for takes, sanitizers and a busy machine included.
bool wait_until(const std::function<bool()>& done);

// The file's contents; empty when there is none.
std::string read_file(const std::string& path);

// Removed with all that is in it.
struct temporary_folder {
  temporary_folder();
  ~temporary_folder();
  temporary_folder(const temporary_folder&) = delete;
  temporary_folder& operator=(const temporary_folder&) = delete;
  std::string file(const std::string& name) const { return path + '/' + name; }

  std::string path;
};

struct pseudo_terminal {
  explicit pseudo_terminal(unsigned short rows = 24, unsigned short columns = 80);
  ~pseudo_terminal();
  pseudo_terminal(const pseudo_terminal&) = delete;
  pseudo_terminal& operator=(const pseudo_terminal&) = delete;
  termios attributes() const;
  // Sets the local modes, such as ECHO, to exactly these.
  void set_local_modes(tcflag_t modes) const;
  void type(const std::string& keys) const;

  int master = -1;
  int slave = -1;
};

struct launch {
  std::vector<std::string> command;      // path of the program, then its arguments
  std::vector<std::string> environment;  // NAME, value, NAME, value, ...: set for it
  std::string error_file;                // takes its standard error
  bool input_from_terminal = true;       // else /dev/null
  bool output_to_terminal = true;        // else a pipe
};

// A program as the foreground job of `terminal`. The leader of its session outlives it, as a shell
// does: when a session's leader ends, the kernel resets the terminal's attributes, and what the
// program left them at could not be seen. The program is killed with the object.
class child_process {
 public:
  child_process(const pseudo_terminal& terminal, const launch& how);
  ~child_process();
  child_process(const child_process&) = delete;
  child_process& operator=(const child_process&) = delete;

  // Waits as ::wait_until does, and collects the program's output meanwhile.
  bool wait_until(const std::function<bool()>& done);

  // The wait status (see waitpid(2)), or -1 when it has not ended by the deadline. `meanwhile` is
  // called again and again as long as it has not.
  int wait_for_end(const std::function<void()>& meanwhile);

  // Goes away as the reader of its standard output.
  void close_output();

  pid_t pid = -1;
  std::string output;  // what was collected so far

 private:
  void collect_output();

  int output_fd = -1;  // non-blocking
  int status_fd = -1;  // gives the wait status
  pid_t leader = -1;   // the program dies with it
};

#endif
