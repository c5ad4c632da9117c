// SPDX-License-Identifier: Apache-2.0
// Words, numbers and names of the kernel's text files.
#ifndef SAMPLERS_TEXT_H
#define SAMPLERS_TEXT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace samplers {

// Each takes the next line, or the next word that blanks separate, off the front of `text`. A word
// is empty when none is left.
std::string_view take_line(std::string_view& text);
std::string_view take_word(std::string_view& text);

bool starts_with(std::string_view text, std::string_view start);

// The whole of `word` as a decimal number, unknown_u64 when it is none or does not fit.
uint64_t to_u64(std::string_view word);

// The number that `text` begins with, NaN when there is none. What follows it is ignored if it is
// set off by a blank, '%' or '@' ("37@1000000000Hz").
double leading_number(std::string_view text);

// CPU numbers of a list as the kernel writes it ("0-3,6"), ascending; empty when it is none.
std::vector<int32_t> parse_cpu_list(std::string_view text);

// Orders runs of digits by their value: bpu2 before bpu10.
bool natural_less(std::string_view a, std::string_view b);

// The text with a '?' for each byte that is not printable ASCII: names come from whoever chose
// them.
std::string printable(std::string_view text);

// The nearest number that 16 bits hold.
inline int16_t saturate(int64_t value) {
  return static_cast<int16_t>(std::clamp<int64_t>(value, INT16_MIN, INT16_MAX));
}

// Cuts `name` to its field and pads it with NULs.
template <size_t size>
void copy_name(std::string_view name, char (&field)[size]) {
  std::memset(field, 0, size);
  std::memcpy(field, name.data(), std::min(name.size(), size));
}

template <size_t size>
bool same_name(const char (&a)[size], const char (&b)[size]) {
  return std::memcmp(a, b, size) == 0;
}

}  // namespace samplers

#endif
