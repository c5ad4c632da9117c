// A client library for tests: it asks no server, does what a script says, and records its calls.
//
// An operation goes by its plain name ("get_meminfo"), a constructor by its class's name
// ("cpu_stat_manager"), a destructor by that with a tilde. One that has no script succeeds with
// status 0 and no text. A script is lines of an operation and what its calls do, tabs between:
//   status=-16,0     their results; the last one repeats
//   text=a line\n    what they append to the stream, \n standing for a line end
//   throw=TEXT       a constructor throws the text as `const char*`; an int for "throw=int"
//   sleep=MS         they take that long
//   until=PATH       they wait until that file exists
//   block            they never return
//   crash            they write to memory that they must not touch
//   raise=SIGNO      they send their own thread this signal
//
// A call's record is the operation's name and, after a blank each, what it was given:
//   cpu_stat_manager 127.0.0.1 1234
//   get_process_all 65281 cout            ("other" when the stream is not std::cout)
//   get_partition_info /log,/map cout
//
// For a process that knows nothing of this header, FAKE_MON_CLIENT_SCRIPT names a file with the
// script, and FAKE_MON_CLIENT_CALLS one to which each record is appended by one write(2).
#ifndef FAKE_MON_CLIENT_H
#define FAKE_MON_CLIENT_H

#include <functional>
#include <ostream>
#include <string>

namespace fake_mon_client {

// Forgets all scripts and records.
void reset();

// Replaces the scripts of the operations that `lines` names. Throws std::invalid_argument.
void script(const std::string& lines);

// Has each call of the operation run `step`, after it is recorded and before all that its script
// says.
void on_call(const std::string& operation, std::function<void()> step);

// Adds a line of the caller's own to the records.
void record(const std::string& line);

// The records since the last reset(), a line each.
std::string records();

// For the scripted classes: records a call and carries it out. `os` is null for an operation that
// writes no text. Returns the status.
int perform(const std::string& operation, std::ostream* os = nullptr,
            const std::string& argument = "");

}  // namespace fake_mon_client

#endif
