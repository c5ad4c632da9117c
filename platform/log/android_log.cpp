// Messages of priority verbose to fatal go to syslog, or to a file once one was named. Each is one
// write(2), so that lines of several threads, and of several programs on one file, never mix.
#include <android/log.h>
#include <fcntl.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>

#include "log_file.h"

namespace {

// Longer messages are cut. No message of the program comes near.
constexpr size_t max_message = 1024;

// Set once, before a second thread exists; -1 means syslog.
std::atomic<int> log_fd{-1};

int syslog_priority(int prio) {
  switch (prio) {
    case ANDROID_LOG_FATAL:
      return LOG_CRIT;
    case ANDROID_LOG_ERROR:
      return LOG_ERR;
    case ANDROID_LOG_WARN:
      return LOG_WARNING;
    case ANDROID_LOG_INFO:
      return LOG_INFO;
    default:
      return LOG_DEBUG;
  }
}

char priority_letter(int prio) {
  static constexpr char letters[] = "??VDIWEF";
  return prio >= 0 && prio <= ANDROID_LOG_FATAL ? letters[prio] : '?';
}

// A line end within a message would let it pass for two: each becomes a blank, the last ones go.
void make_one_line(std::string& text) {
  while (!text.empty() && text.back() == '\n') {
    text.pop_back();
  }
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < ' ' || c == '\x7f') {
      c = ' ';
    }
  }
}

int write_to_file(int fd, int prio, const char* tag, const std::string& text) {
  timeval now{};
  gettimeofday(&now, nullptr);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char stamp[32];
  strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  char head[96];
  snprintf(head, sizeof head, "%s.%06ld %d %c %s: ", stamp, static_cast<long>(now.tv_usec),
           static_cast<int>(getpid()), priority_letter(prio), tag);
  const std::string line = head + text + '\n';
  return write(fd, line.data(), line.size()) < 0 ? -errno : 1;
}

}  // namespace

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
  char message[max_message];
  va_list args;
  va_start(args, fmt);
  const int length = vsnprintf(message, sizeof message, fmt, args);
  va_end(args);
  if (length < 0) {
    return -EINVAL;
  }
  std::string text(message);
  make_one_line(text);
  const int fd = log_fd.load();
  if (fd >= 0) {
    return write_to_file(fd, prio, tag, text);
  }
  syslog(LOG_USER | syslog_priority(prio), "%s: %s", tag, text.c_str());
  return 1;
}

int zorva_log_to_file(const char* path) {
  const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600);
  if (fd < 0) {
    return -errno;
  }
  log_fd.store(fd);
  return 0;
}
