// SPDX-License-Identifier: Apache-2.0
// The scripted client library as a shared library of its own, which needs no server.
#include "fake_mon_client.h"

namespace {

const bool scripted = [] {
  fake_mon_client::script(
      "get_cpu_usage\ttext=CPU of the board\\n\n"
      "get_process_all\ttext=processes of the board\\n\n"
      "get_meminfo\tstatus=-5\n");
  return true;
}();

}  // namespace
