// Small pieces of text that the blocks of figures are made of.
#ifndef TEXT_TOOLS_H
#define TEXT_TOOLS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "mon_records.h"

namespace text_tools {

// What an unknown figure is shown as.
constexpr char unknown_text[] = "-";

// The column that texts laid out side by side are wrapped at.
constexpr size_t wrap_column = 118;

// A name as it may be shown: up to its NUL or the end of the array, with every byte that is not
// printable ASCII replaced by '?'. A name comes from whoever chose it, and may hold anything.
template <size_t size>
std::string clean_name(const char (&name)[size]);
std::string clean_name(const char* bytes, size_t size);

// A figure with one decimal in at most `width` columns (4 or more): without the decimal, then in
// thousands (k, M, G, T, P, E) where it does not fit. NaN and the infinities are unknown.
std::string figure(double value, size_t width);

// A share in percent: "37.0%".
std::string percent(double value);

// Bytes in the largest of B, K, M, G, T, P, E (powers of 1024) of which there is at least `least`:
// "64.0M", "1.2G". unknown_u64 is unknown.
std::string size_text(uint64_t bytes, double least = 1.0);

// A count or a rate in thousands: "1.2M", "734".
std::string count_text(double value);

// `lead`, then the items side by side, two blanks apart, broken before an item that would pass
// wrap_column; further lines are indented to below the first item. "none" without items. No line
// end at the end.
std::string side_by_side(std::string_view lead, const std::vector<std::string>& items);

// In decimal.
std::string whole_number(int64_t number);

// Appends `text`, with blanks before it that make it `width` columns.
void append_right(std::string& line, std::string_view text, size_t width);

template <size_t size>
std::string clean_name(const char (&name)[size]) {
  return clean_name(name, size);
}

}  // namespace text_tools

#endif
