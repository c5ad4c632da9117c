// SPDX-License-Identifier: Apache-2.0
// Figures of records as text, so that one comparison holds them all.
#ifndef SAMPLER_TEST_H
#define SAMPLER_TEST_H

#include <cmath>
#include <cstring>
#include <sstream>
#include <string>

#include "mon_records.h"
#include "samplers/file_reader.h"
#include "test_tools.h"

// A kept tree of a machine's files.
inline samplers::file_reader fixture(const std::string& name) {
  return samplers::file_reader(ZORVA_FIXTURES "/" + name);
}

// A name that may fill its array.
template <size_t size>
std::string text_of(const char (&name)[size]) {
  return std::string(name, strnlen(name, size));
}
inline std::string text_of(char letter) {
  return {letter};
}
inline std::string text_of(const std::string& text) {
  return text;
}
// "-" for one that is unknown.
template <class number>
std::string text_of(number value) {
  std::ostringstream text;
  text << value;
  const bool unknown =
      std::isnan(static_cast<double>(value)) || value == static_cast<number>(unknown_u64);
  return unknown ? "-" : text.str();
}

template <class... value>
std::string row(const value&... values) {
  std::string text = ((text_of(values) + ' ') + ...);
  text.back() = '\n';
  return text;
}

// The rows that `show` makes of all.
template <class list, class function>
std::string rows(const list& all, const function& show) {
  std::string text;
  for (const auto& one : all) {
    text += show(one);
  }
  return text;
}

#endif
