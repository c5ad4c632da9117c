// SPDX-License-Identifier: Apache-2.0
// The time as reports and records of the output file carry it.
#ifndef ZORVA_TIME_STAMP_H
#define ZORVA_TIME_STAMP_H

#include <sys/time.h>

#include <ostream>

// Writes the local time as strftime(3) makes it of `format`, then the microseconds as a plain
// number: 5000 of them read "5000".
void write_time_stamp(std::ostream& os, const char* format, const timeval& time);

#endif
