// SPDX-License-Identifier: Apache-2.0
// For builds without BPF.
#include <cerrno>

#include "samplers/task_iterator.h"

namespace samplers {

int task_iterator::open(std::string&) {
  return -EOPNOTSUPP;
}

int task_iterator::read(std::vector<task_record>&) {
  return -EOPNOTSUPP;
}

}  // namespace samplers
