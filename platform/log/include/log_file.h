// SPDX-License-Identifier: Apache-2.0
// The one call of our own log library that a board's log library need not have.
#ifndef LOG_FILE_H
#define LOG_FILE_H

#ifdef __cplusplus
extern "C" {
#endif

// Sends all further messages to the file at `path` in place of syslog. The file is appended to, and
// made with mode 0600 when it is missing. Returns 0, or a negative errno when it cannot be opened
// (-ENXIO: a FIFO that nobody reads): messages then go where they went before. To be called before
// a second thread exists.
//
// A FIFO or terminal that takes no more, or a full disk, costs lines and never hangs the program:
// the next line that is written says how many were lost.
//
// Weak, so that a program which was linked with this library still starts with another log library
// in its place; the address is then null.
int zorva_log_to_file(const char* path) __attribute__((weak));

#ifdef __cplusplus
}
#endif

#endif
