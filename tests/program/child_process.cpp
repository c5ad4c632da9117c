#include "child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <thread>

namespace {

int checked(ssize_t result, const char* what) {
  if (result < 0) {
    throw std::system_error(errno, std::generic_category(), what);
  }
  return static_cast<int>(result);
}

[[noreturn]] void run_program(const launch& how, int terminal, const int (&fds)[3]) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const rlimit no_core{0, 0};
  setrlimit(RLIMIT_CORE, &no_core);
  setpgid(0, 0);
  // Taking the foreground from the background stops a process that does not block this.
  sigset_t output_stop;
  sigemptyset(&output_stop);
  sigaddset(&output_stop, SIGTTOU);
  sigprocmask(SIG_BLOCK, &output_stop, nullptr);
  tcsetpgrp(terminal, getpid());
  sigprocmask(SIG_UNBLOCK, &output_stop, nullptr);
  for (int fd = 0; fd < 3; ++fd) {
    dup2(fds[fd], fd);
  }
  for (size_t i = 0; i + 1 < how.environment.size(); i += 2) {
    setenv(how.environment[i].c_str(), how.environment[i + 1].c_str(), 1);
  }
  std::vector<char*> argv;
  for (const std::string& word : how.command) {
    argv.push_back(const_cast<char*>(word.c_str()));
  }
  argv.push_back(nullptr);
  execv(argv[0], argv.data());
  _exit(127);
}

}  // namespace

bool wait_until(const std::function<bool()>& done) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

std::string read_file(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

temporary_folder::temporary_folder()
    : path((std::filesystem::temp_directory_path() / "zorva-test-XXXXXX").string()) {
  checked(mkdtemp(path.data()) == nullptr ? -1 : 0, "mkdtemp");
}

temporary_folder::~temporary_folder() {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

pseudo_terminal::pseudo_terminal(unsigned short rows, unsigned short columns) {
  const winsize size{rows, columns, 0, 0};
  checked(openpty(&master, &slave, nullptr, nullptr, &size), "openpty");
  fcntl(master, F_SETFD, FD_CLOEXEC);
  fcntl(slave, F_SETFD, FD_CLOEXEC);
}

pseudo_terminal::~pseudo_terminal() {
  close(slave);
  close(master);
}

termios pseudo_terminal::attributes() const {
  termios now{};
  checked(tcgetattr(master, &now), "tcgetattr");
  return now;
}

void pseudo_terminal::set_local_modes(tcflag_t modes) const {
  termios changed = attributes();
  changed.c_lflag = modes;
  checked(tcsetattr(master, TCSANOW, &changed), "tcsetattr");
}

void pseudo_terminal::type(const std::string& keys) const {
  checked(write(master, keys.data(), keys.size()), "write to the terminal");
}

child_process::child_process(const pseudo_terminal& terminal, const launch& how) {
  int status_ends[2];
  int output_ends[2];
  checked(pipe2(status_ends, O_CLOEXEC), "pipe");
  checked(pipe2(output_ends, O_CLOEXEC), "pipe");
  leader = checked(fork(), "fork");
  if (leader == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setsid();
    ioctl(terminal.slave, TIOCSCTTY, 0);
    pid_t program = fork();
    if (program == 0) {
      run_program(how, terminal.slave,
                  {how.input_from_terminal ? terminal.slave : open("/dev/null", O_RDONLY),
                   how.output_to_terminal ? terminal.slave : output_ends[1],
                   open(how.error_file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600)});
    }
    // Else it would keep the program's output from losing its reader.
    close(output_ends[0]);
    int status = -1;
    checked(write(status_ends[1], &program, sizeof program), "pid");
    waitpid(program, &status, 0);
    checked(write(status_ends[1], &status, sizeof status), "status");
    while (true) {
      pause();
    }
  }
  close(status_ends[1]);
  close(output_ends[1]);
  status_fd = status_ends[0];
  checked(read(status_fd, &pid, sizeof pid), "start of the program");
  output_fd = output_ends[0];
  if (how.output_to_terminal) {
    dup3(terminal.master, output_fd, O_CLOEXEC);
  }
  fcntl(output_fd, F_SETFL, O_RDWR | O_NONBLOCK);
}

child_process::~child_process() {
  kill(leader, SIGKILL);
  waitpid(leader, nullptr, 0);
  close(status_fd);
  close_output();
}

bool child_process::wait_until(const std::function<bool()>& done) {
  return ::wait_until([&] {
    collect_output();
    return done();
  });
}

int child_process::wait_for_end(const std::function<void()>& meanwhile) {
  int status = -1;
  wait_until([&] {
    meanwhile();
    pollfd waiting{status_fd, POLLIN, 0};
    return poll(&waiting, 1, 0) > 0 && read(status_fd, &status, sizeof status) == sizeof status;
  });
  collect_output();
  return status;
}

void child_process::close_output() {
  if (output_fd >= 0) {
    close(output_fd);
    output_fd = -1;
  }
}

void child_process::collect_output() {
  char bytes[4096];
  ssize_t got = 0;
  while (output_fd >= 0 && (got = read(output_fd, bytes, sizeof bytes)) > 0) {
    output.append(bytes, static_cast<size_t>(got));
  }
}
