// SPDX-License-Identifier: Apache-2.0
// A client library for tests: it asks no server, does what a script says, and records its calls.
//
// An operation goes by its plain name ("get_meminfo"), a constructor by its class's name
// ("cpu_stat_manager"), a destructor by that with a tilde. One that has no script succeeds with
// status 0 and no text. A script is lines of an operation and what its calls do, tabs between:
//   status=-16,0     their results; the last one repeats
//   text=a line\n    what they append to the stream, \n standing for a line end
//   throw=TEXT       a constructor throws the text as `const char*`; an int for "throw=int"
//   until=RECORD     they wait until that line is among the records
//   block            they never return
//   crash            they write to memory that they must not touch
//   raise=SIGNO      they send their own thread this signal
//
// The records are lines, which forked processes share: of each call the operation's name and, after
// a blank each, what it was given; and of each log message its priority and its text:
//   cpu_stat_manager 127.0.0.1 1234
//   get_process_all 65281 cout            ("other" when the stream is not std::cout)
//   E get_process_all failed:-5
#ifndef FAKE_MON_CLIENT_H
#define FAKE_MON_CLIENT_H

#include <functional>
#include <ostream>
#include <string>

namespace fake_mon_client {

// Forgets all scripts and records.
void reset();

// Replaces the scripts of the operations that `lines` names.
void script(const std::string& lines);

// Has each call of the operation run `step` before it does what its script says.
void on_call(const std::string& operation, std::function<void()> step);

std::string records();
size_t times_recorded(const std::string& line);
void record(const std::string& line);

// The file behind the records, for the program's log.
extern const int record_file;
extern const std::string record_path;

// For the classes: records a call and carries it out. Returns the status.
int perform(const std::string& name, std::ostream* os = nullptr, const std::string& argument = "");

}  // namespace fake_mon_client

#endif
