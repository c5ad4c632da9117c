// SPDX-License-Identifier: Apache-2.0
#include "zorva/record_file.h"

#include <sys/time.h>

#include <cerrno>
#include <cstring>

#include "zorva/log.h"
#include "zorva/settings.h"
#include "zorva/time_stamp.h"

namespace {

// The last record could not be written, and that was logged.
bool failing = false;

// The stream holds records back until it has some KB, so that a failure shows with a later one.
void note_failure() {
  if (manager.out_file || failing) {
    return;
  }
  LOG_E("Write target file %s failed: %s; records are lost\n", manager.file_name.c_str(),
        strerror(errno));
  failing = true;
}

// A full disk may have room again. The stream still holds what it could not write: only when that
// is gone has the file been written to.
void try_again() {
  manager.out_file.clear();
  if (failing && manager.out_file.flush()) {
    LOG_W("Target file %s is written again\n", manager.file_name.c_str());
    failing = false;
  }
  manager.out_file.clear();
}

}  // namespace

void append_record(const std::string& text) {
  if (!manager.out_file.is_open()) {
    return;
  }
  timeval msg_time{};
  gettimeofday(&msg_time, nullptr);
  try_again();
  write_time_stamp(manager.out_file, "\n[%Y-%m-%d %H:%M:%S.", msg_time);
  manager.out_file << "]\n" << text;
  note_failure();
}

void end_records() {
  if (manager.out_file.is_open()) {
    manager.out_file.flush();
    note_failure();
  }
}
