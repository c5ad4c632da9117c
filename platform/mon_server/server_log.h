// SPDX-License-Identifier: Apache-2.0
// Log lines of the server, on standard error, each after its syslog priority in angle brackets so
// that the journal of systemd sorts them (sd-daemon(3)).
#ifndef SERVER_LOG_H
#define SERVER_LOG_H

#include <cstdint>
#include <string>

enum class log_priority { error = 3, warning = 4, info = 6 };

// Never waits: a line that finds no room is lost, and the next one that does says how many were. On
// the event loop's thread only.
void server_log(log_priority priority, const std::string& text);

// Lines that somebody outside can cause as often as he likes: so many a minute are written, the
// rest are counted, and the count is told with the next line. For one thread.
class limited_log {
 public:
  explicit limited_log(int lines_per_minute) : most(lines_per_minute) {}
  void write(log_priority priority, const std::string& text);

 private:
  const int most;
  int written = 0;        // in the minute that began at `minute_start_us`
  uint64_t left_out = 0;  // since the last written line
  int64_t minute_start_us = INT64_MIN;
};

#endif
