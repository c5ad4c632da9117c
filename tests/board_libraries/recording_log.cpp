// SPDX-License-Identifier: Apache-2.0
// A log library that appends each message, its priority before it, to the file that BOARD_LOG
// names.
#include <android/log.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
  FILE* const file = fopen(getenv("BOARD_LOG"), "ae");
  if (file == nullptr) {
    return -1;
  }
  fprintf(file, "%d %s ", prio, tag);
  va_list args;
  va_start(args, fmt);
  vfprintf(file, fmt, args);
  va_end(args);
  fclose(file);
  return 1;
}
