// SPDX-License-Identifier: Apache-2.0
// What the tests of the program's parts share: fresh settings, one record of calls and log
// messages, and a clock that the test sets.
#ifndef PROGRAM_FIXTURE_H
#define PROGRAM_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/time.h>

#include <functional>
#include <string>

#include "fake_mon_client.h"
#include "zorva/monitor.h"
#include "zorva/settings.h"

// What gettimeofday gives, moved on by `clock_step_s` after each call.
extern timeval clock_now;
extern int64_t clock_step_s;

// Runs `act` while this process's descriptor `fd` stands for `target`.
void with_redirected(int fd, int target, const std::function<void()>& act);

class program : public testing::Test {
 protected:
  program() { start_afresh(); }
  ~program() override { top = nullptr; }

  // Settings as at the start but for batch mode, no records; the clock stands still.
  static void start_afresh();

  // Makes the client objects, and forgets the records that this took.
  void connect();

  zorva monitor;
};

#endif
