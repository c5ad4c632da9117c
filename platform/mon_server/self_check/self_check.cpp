// SPDX-License-Identifier: Apache-2.0
#include "self_check/self_check.h"

#include <linux/capability.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "samplers/rights.h"
#include "samplers/text.h"
#include "self_check/families.h"

std::vector<finding> check_all(const server_options& options) {
  check_context context(options);
  check_system(context);
  check_processes(context);
  check_counters(context);
  check_drivers(context);
  return std::move(context.findings);
}

std::string check_head(const server_options& options) {
  constexpr size_t lead_size = 10;
  utsname system{};
  uname(&system);
  std::string all = std::string("mon_server " ZORVA_VERSION " on Linux ") + system.release + ' ' +
                    system.machine + ", user id " + std::to_string(geteuid()) + '\n';
  if (!options.sysroot.empty()) {
    append_wrapped("sysroot   ", samplers::printable(options.sysroot) + " (paths below are in it)",
                   lead_size, all);
  }
  if (!options.board.empty()) {
    append_wrapped("board     ", samplers::printable(options.board), lead_size, all);
  }
  std::string has;
  std::string lacks;
  for (const int one :
       {samplers::cap_bpf, samplers::cap_perfmon, CAP_SYS_PTRACE, CAP_DAC_READ_SEARCH}) {
    (samplers::has_capability(one) ? has : lacks) += ' ' + capability_name(one);
  }
  append_wrapped("rights   ", has.empty() ? " none" : has, lead_size, all);
  if (!lacks.empty()) {
    append_wrapped("without  ", lacks, lead_size, all);
  }
  if (!samplers::in_initial_user_namespace()) {
    all += "          (of a user namespace: they count only in it)\n";
  }
  return all + '\n';
}
