// SPDX-License-Identifier: Apache-2.0
#include "common_func.h"

uint64_t time_diff(timeval& t1, timeval& t2) {
  const int64_t us = (int64_t{t2.tv_sec} - t1.tv_sec) * 1000000 + (t2.tv_usec - t1.tv_usec);
  return us > 0 ? static_cast<uint64_t>(us) / 1000 : 0;
}
