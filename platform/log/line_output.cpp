// SPDX-License-Identifier: Apache-2.0
#include "line_output.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <ctime>

namespace {

using steady_clock = std::chrono::steady_clock;

// As in `zorva -l /dev/stderr 2>FILE`: the shell's descriptor has an offset of its own, and what
// the program prints would land on top of the log.
void make_append(int stream, const struct stat& file) {
  struct stat other {};
  if (fstat(stream, &other) == 0 && other.st_dev == file.st_dev && other.st_ino == file.st_ino) {
    fcntl(stream, F_SETFL, fcntl(stream, F_GETFL) | O_APPEND);
  }
}

// write(2) that waits for nobody, whatever the modes of the descriptor. A reader that went away
// costs lines and raises no SIGPIPE, which would end the program.
ssize_t write_now(int fd, const char* bytes, size_t size) {
  const ssize_t sent = send(fd, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL);
  if (sent >= 0 || errno != ENOTSOCK) {
    return sent;
  }
  // A pipe that could not be opened anew. One with room takes PIPE_BUF bytes at once.
  pollfd file{fd, POLLOUT, 0};
  if (poll(&file, 1, 0) == 0) {
    errno = EAGAIN;
    return -1;
  }
  sigset_t broken_pipe;
  sigset_t before;
  sigemptyset(&broken_pipe);
  sigaddset(&broken_pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &broken_pipe, &before);
  const ssize_t written = ::write(fd, bytes, size);
  const int error = errno;
  if (written < 0 && error == EPIPE) {
    const timespec at_once{};
    sigtimedwait(&broken_pipe, nullptr, &at_once);
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  errno = error;
  return written;
}

}  // namespace

line_output::line_output(std::chrono::milliseconds most_patience, int descriptor)
    : patience(most_patience) {
  struct stat file {};
  if (fstat(descriptor, &file) != 0) {
    return;  // closed: the next file that is opened may have its number
  }
  fd = descriptor;
  if (S_ISFIFO(file.st_mode) || S_ISCHR(file.st_mode)) {
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
    const int own = open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    fd = own >= 0 ? own : descriptor;
  }
}

int line_output::open_file(const char* path) {
  const int opened =
      open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0600);
  if (opened < 0) {
    return -errno;
  }
  struct stat file {};
  if (fstat(opened, &file) == 0 && S_ISREG(file.st_mode)) {
    make_append(STDOUT_FILENO, file);
    make_append(STDERR_FILENO, file);
  }
  fd = opened;
  return 0;
}

int line_output::write(const std::string& line, const std::string& lost_head) {
  const unsigned before = lost.exchange(0);
  std::string lines;
  if (before > 0) {
    lines = lost_head + "log lines lost here: " + std::to_string(before) + '\n';
  }
  const int ret = write_all(lines + line);
  if (ret < 0) {
    lost += before + 1;
  }
  return ret;
}

int line_output::write_all(const std::string& lines) {
  const std::string bytes = line_cut.exchange(false) ? '\n' + lines : lines;
  const auto end = steady_clock::now() + patience;
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t written = write_now(fd, &bytes[done], bytes.size() - done);
    if (written >= 0) {
      done += static_cast<size_t>(written);
      continue;
    }
    const int error = errno;
    if (error == EINTR || (error == EAGAIN && wait_for_room(end))) {
      continue;
    }
    no_room = true;
    line_cut = done > 0;
    return -error;
  }
  no_room = false;
  return 0;
}

bool line_output::wait_for_room(steady_clock::time_point end) const {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(end - steady_clock::now());
  pollfd file{fd, POLLOUT, 0};
  return !no_room && left.count() > 0 && poll(&file, 1, static_cast<int>(left.count())) > 0;
}
