// SPDX-License-Identifier: Apache-2.0
// The command line of a process.
#ifndef SAMPLERS_COMMAND_LINE_H
#define SAMPLERS_COMMAND_LINE_H

#include <cstdint>
#include <string>

#include "samplers/file_reader.h"

namespace samplers {

// The beginning of a process's command line, as much as process_command holds: its arguments with a
// blank between two of them, their bytes as they are. Empty for a kernel thread and a zombie, and
// where it cannot be read.
//
// The kernel fetches it from the process's own memory, and may wait for that for as long as
// somebody else works on it: not for the event loop.
std::string read_command_line(const file_reader& machine, int32_t pid);

}  // namespace samplers

#endif
