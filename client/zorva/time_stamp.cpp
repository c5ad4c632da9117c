// SPDX-License-Identifier: Apache-2.0
#include "zorva/time_stamp.h"

#include <ctime>
#include <iomanip>

void write_time_stamp(std::ostream& os, const char* format, const timeval& time) {
  tm local{};
  localtime_r(&time.tv_sec, &local);
  os << std::put_time(&local, format) << time.tv_usec;
}
