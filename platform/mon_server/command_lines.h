// SPDX-License-Identifier: Apache-2.0
// The command lines of listed processes: read once, kept, and told to each session once.
#ifndef COMMAND_LINES_H
#define COMMAND_LINES_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "line_reader.h"
#include "mon_records.h"
#include "samplers/processes.h"

// Used on the event loop's thread only. A line belongs to a process id and start time, so that one
// that has ended leaves nothing to the id's next owner.
class command_lines {
  struct line;

 public:
  // What a session has been told; it empties with what it is assigned to.
  struct told_line {
    int32_t pid;
    uint64_t start_ticks;
    std::shared_ptr<line> kept;  // null: there was no room for it
    uint32_t version;            // of the text that was told, 0 if none was
  };
  using told_lines = std::vector<told_line>;

  explicit command_lines(line_reader::job read) : reader(std::move(read)) {}

  // The lines of `listed`, which is by process id, each once, that `told` lacks or has as they were
  // before; afterwards `told` holds these processes and no others. Never waits: a line that has yet
  // to be read is in a later answer. Until then a process id that had a line and now is another
  // process's has an empty one.
  std::vector<process_command> tell(const samplers::process_identities& listed, told_lines& told);

  // Forgets the lines that no session has in its list, when there are many lines.
  void forget_unlisted();

 private:
  struct line {
    std::string text;
    uint32_t version = 0;  // raised whenever the text is another one; 0: not read yet
    bool under_way = false;
    // Of when it was read last; name and activity are the process's then, or from before it.
    int64_t read_us = 0;
    char comm[sizeof(pid_msg::comm)] = {};
    uint64_t activity = 0;
  };
  using key = std::pair<int32_t, uint64_t>;  // process id, start time

  void take_results(int64_t now_us);
  told_line take_up(const samplers::process_identity& process);
  void read_if_due(const samplers::process_identity& process, line& kept, int64_t now_us);

  std::map<key, std::shared_ptr<line>> lines;
  line_reader reader;
  int read_again = 0;  // lines that the answer being made has had read another time
};

#endif
