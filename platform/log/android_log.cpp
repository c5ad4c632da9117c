// SPDX-License-Identifier: Apache-2.0
// Messages of priority verbose to fatal go to syslog, or to a file once one was named.
#include <android/log.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>

#include "line_output.h"
#include "log_file.h"

namespace {

// Longer messages are cut. No message of the program comes near.
constexpr size_t max_message = 1024;

// Opened once, before a second thread exists; not at all means syslog. A serial line at 115200 baud
// sends 5 KB in half a second, which is a screen.
line_output log_file{std::chrono::milliseconds(500)};

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

std::string log_head(int prio, const char* tag) {
  timeval now{};
  gettimeofday(&now, nullptr);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char stamp[32];
  strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  char head[96];
  snprintf(head, sizeof head, "%s.%06ld %d %c %s: ", stamp, static_cast<long>(now.tv_usec),
           static_cast<int>(getpid()), priority_letter(prio), tag);
  return head;
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
  if (log_file.is_open()) {
    const int ret =
        log_file.write(log_head(prio, tag) + text + '\n', log_head(ANDROID_LOG_WARN, tag));
    return ret < 0 ? ret : 1;
  }
  syslog(LOG_USER | syslog_priority(prio), "%s: %s", tag, text.c_str());
  return 1;
}

int zorva_log_to_file(const char* path) {
  return log_file.open_file(path);
}
