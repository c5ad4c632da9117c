// SPDX-License-Identifier: Apache-2.0
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

// The most columns that a text takes, and the fewest that it is laid out for: in a narrower
// terminal the ends of lines are lost.
constexpr size_t most_columns = 117;
constexpr size_t least_columns = 20;

// What ncurses takes, too, for a terminal that does not say how wide it is, as one on a serial
// line.
constexpr size_t serial_columns = 80;

// Columns of the terminal on standard output, 0 where there is none. One that does not say has as
// many as the environment's COLUMNS, else serial_columns.
size_t terminal_columns();

// Columns that a text may take now: all of the terminal's but the last, which the panels' header
// bar leaves free, within the limits above; most_columns where there is no terminal.
size_t line_width();

// The same for the counters, whose panel begins at column 118 of a terminal of `columns`.
size_t counters_width(size_t columns);

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

// A share of time in percent as it may be shown: rounding may have put it a little outside of 0 to
// 100. NaN when it lies further outside, and is no share.
double share_of_time(double percent);

// Bytes in three significant digits, without zeros at the end of a fraction, in the unit (B, K, M,
// G, T, P, E, powers of 1024) that takes at most three digits before the point: "84M", "1.25G",
// "0.98G" for 1000 MiB. At most 5 columns. unknown_u64 is unknown.
std::string size_text(uint64_t bytes);
// The same of KiB.
std::string kib_text(uint64_t kib);

// For a column of sizes: one decimal, in the largest unit of which there is at least `least`:
// "64.0M", "1.2G".
std::string size_text(uint64_t bytes, double least);

// A count or a rate in thousands: "12.3M", "734"; at most 5 columns from 0 on.
std::string count_text(double value);
// The same in at most 4 columns: "12M".
std::string short_count_text(double value);

// `text` up to `width` columns.
std::string cut(std::string text, size_t width);

// The place of a text: lines of so many columns.
struct room {
  size_t width;
  size_t lines = 1;
};

// `lead`, then the items side by side, `gap` apart, in as many lines as they need and the room has;
// further lines are indented to below the first item. Items that do not fit are counted at the end:
// "+57". No item is broken. "none" without items. No line end at the end.
std::string side_by_side(std::string_view lead, const std::vector<std::string>& items,
                         const room& room, std::string_view gap = "  ");

// Whether side_by_side shows all of them.
bool all_fit(std::string_view lead, const std::vector<std::string>& items, const room& room,
             std::string_view gap = "  ");

// side_by_side of items that have several forms, from the longest to the shortest: the first form
// in which all fit, else the shortest.
std::string side_by_side(std::string_view lead, const std::vector<std::vector<std::string>>& forms,
                         const room& room);

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
