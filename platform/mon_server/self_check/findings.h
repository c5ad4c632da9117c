// SPDX-License-Identifier: Apache-2.0
// What --check finds out, as a table and as a status.
#ifndef FINDINGS_H
#define FINDINGS_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "obstacles.h"

enum class verdict {
  ok,    // read, as well as this machine allows
  less,  // read, but slower or less than it could be
  lack,  // not read, though it could be
  none,  // this machine, or this version of its kernel, does not have it
  off    // left out as the options want it
};

// Of one family of figures.
struct finding {
  std::string family;
  bool is_read = false;
  std::string source;  // where it is read from; what there is not; empty: the obstacles say it
  std::vector<obstacle> obstacles = {};  // one without a remedy is only told
  bool left_out = false;                 // by the options
};

verdict verdict_of(const finding& one);

// 0 when nothing is less or lacking, else 1.
int check_status(const std::vector<finding>& findings);

// A table of at most 80 columns of ASCII, and a line of the sum.
std::string check_text(const std::vector<finding>& findings);

// Appends `lead` and `text`, broken at blanks into lines of 80 columns; further lines begin at
// `indent`. A word that no line holds is broken anywhere. Nothing without a text.
void append_wrapped(std::string lead, std::string_view text, size_t indent, std::string& all);

#endif
