// SPDX-License-Identifier: Apache-2.0
#include "self_check/families.h"

void check_context::add_file(const char* family, const std::string& path, int error,
                             const std::string& detail, const char* option) {
  if (error == 0) {
    findings.push_back({family, true, path + detail});
  } else {
    findings.push_back({family, false, "", {file_obstacle(kernel, path, error, option)}});
  }
}

void check_context::add_with(const char* family, const char* other) {
  findings.push_back({family, false, "", {{std::string("not without ") + other, "see there", {}}}});
}

std::string count_of(size_t number, const std::string& what) {
  const char* const ending = number == 1 ? "" : what.back() == 's' ? "es" : "s";
  return std::to_string(number) + ' ' + what + ending;
}

const samplers::read_note* find_note(const std::vector<samplers::read_note>& notes,
                                     const std::string& part) {
  const samplers::read_note* found = nullptr;
  for (const samplers::read_note& note : notes) {
    const bool fits = note.path.find(part) != std::string::npos;
    if (fits && (found == nullptr || (found->error == 0 && note.error != 0))) {
      found = &note;
    }
  }
  return found;
}

int error_of(const std::vector<samplers::read_note>& notes, const std::string& part) {
  const samplers::read_note* note = find_note(notes, part);
  return note == nullptr ? 0 : note->error;
}

void append_name(std::string& list, const std::string& name) {
  list += (list.empty() ? "" : ", ") + name;
}
