// SPDX-License-Identifier: Apache-2.0
// The queries of one report or panel.
#ifndef ZORVA_QUERY_H
#define ZORVA_QUERY_H

#include "zorva/log.h"
#include "zorva/settings.h"

// Makes queries one after the other and logs those that fail. Nothing is asked any more after a
// query that failed once the program exits: a server that hangs then costs the time-out of one
// query and not of all.
class query_round {
 public:
  // Calls `ask`, which makes the query `name` and returns its status.
  template <class function>
  void operator()(const char* name, function ask) {
    if (gave_up) {
      return;
    }
    const int ret = ask();
    if (ret < 0) {
      LOG_E("%s failed:%d\n", name, ret);
      gave_up = manager.to_exit;
    }
  }

 private:
  bool gave_up = false;
};

#endif
