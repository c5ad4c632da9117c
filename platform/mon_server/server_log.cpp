// SPDX-License-Identifier: Apache-2.0
#include "server_log.h"

#include <unistd.h>

#include <chrono>

#include "line_output.h"
#include "samplers/clock.h"
#include "samplers/text.h"

namespace {

constexpr int64_t minute_us = 60 * 1000000LL;

std::string head_of(log_priority priority) {
  return '<' + std::to_string(static_cast<int>(priority)) + '>';
}

}  // namespace

void server_log(log_priority priority, const std::string& text) {
  static line_output output(std::chrono::milliseconds(0), STDERR_FILENO);
  output.write(head_of(priority) + samplers::printable(text) + '\n',
               head_of(log_priority::warning));
}

void limited_log::write(log_priority priority, const std::string& text) {
  const int64_t now_us = samplers::monotonic_us();
  if (minute_start_us == INT64_MIN || now_us - minute_start_us >= minute_us) {
    minute_start_us = now_us;
    written = 0;
  }
  if (written >= most) {
    ++left_out;
    return;
  }
  ++written;
  server_log(priority, left_out == 0
                           ? text
                           : text + " (" + std::to_string(left_out) + " such lines left out)");
  left_out = 0;
}
