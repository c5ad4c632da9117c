// SPDX-License-Identifier: Apache-2.0
#include "text_tools.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <utility>

namespace text_tools {
namespace {

// Whether ten times `value`, which is not negative, is exact: it is for a float, and for a number
// of KiB in MiB or GiB.
bool ten_times_is_exact(double value) {
  constexpr double most = 1LL << 28;
  constexpr double fraction = 1 << 20;
  return value < most && (static_cast<double>(static_cast<float>(value)) == value ||
                          std::floor(value * fraction) == value * fraction);
}

// As "{:.1f}", which is most of the work that a process list is, where a multiplication will do.
std::string one_decimal(double value) {
  if (std::signbit(value) || !ten_times_is_exact(value)) {
    return fmt::format("{:.1f}", value);
  }
  const auto tenths = static_cast<int64_t>(std::nearbyint(value * 10));
  std::string text = whole_number(tenths / 10);
  text += '.';
  text += static_cast<char>('0' + tenths % 10);
  return text;
}

// "12.3G": `value` divided by `step` until it has at most three digits before the point, with the
// suffix of how often, and a decimal below `whole_from`.
std::string scaled(double value, double step, std::string_view suffixes, double whole_from) {
  size_t index = 0;
  while (std::fabs(value) >= 999.5 && index + 1 < suffixes.size()) {
    value /= step;
    ++index;
  }
  const std::string suffix = suffixes[index] == ' ' ? "" : std::string(1, suffixes[index]);
  const bool whole = index == 0 || std::fabs(value) >= whole_from;
  return (whole ? fmt::format("{:.0f}", value) : one_decimal(value)) + suffix;
}

constexpr std::string_view thousands = " kMGTPE";
constexpr std::string_view sizes = "BKMGTPE";

// Items laid out from the left to the right, line by line.
struct placement {
  std::string text;
  size_t left_out = 0;
};

// Keeps `reserved` columns free at the end of the last line. An item that is wider than a line is
// left out; of the others, all from the first on for which there is no room.
placement place(std::string_view lead, const std::vector<std::string>& items, const room& room,
                std::string_view gap, size_t reserved) {
  placement placed{std::string(lead)};
  size_t line = 1;
  size_t column = lead.size();
  const auto room_at = [&](size_t at, size_t of_line) {
    const size_t taken = at + (of_line >= room.lines ? reserved : 0);
    return room.width > taken ? room.width - taken : 0;
  };
  bool full = false;
  for (const std::string& item : items) {
    const bool begins_line = column == lead.size();
    const size_t at = column + (begins_line ? 0 : gap.size());
    const bool never_fits = item.size() > room_at(lead.size(), 1);
    if (!full && item.size() <= room_at(at, line)) {
      placed.text += begins_line ? std::string_view() : gap;
      column = at + item.size();
    } else if (!full && !begins_line && line < room.lines &&
               item.size() <= room_at(lead.size(), line + 1)) {
      placed.text += '\n' + std::string(lead.size(), ' ');
      column = lead.size() + item.size();
      ++line;
    } else {
      ++placed.left_out;
      full = full || !never_fits;
      continue;
    }
    placed.text += item;
  }
  return placed;
}

// The count of what was left out, behind the last item.
std::string with_count(placement placed, size_t indent, const room& room, std::string_view gap) {
  const size_t line_begin = placed.text.rfind('\n') + 1;  // npos + 1 is 0
  const size_t column = placed.text.size() - line_begin;
  const std::string count = fmt::format("+{}", placed.left_out);
  if (column == indent) {
    return placed.text + count;
  }
  if (column + gap.size() + count.size() <= room.width) {
    return placed.text + std::string(gap) + count;
  }
  return placed.text + '\n' + std::string(indent, ' ') + count;
}

}  // namespace

size_t terminal_columns() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) {
    return 0;
  }
  if (size.ws_col > 0) {
    return size.ws_col;
  }
  const char* const told = std::getenv("COLUMNS");
  const int columns = told == nullptr ? 0 : std::atoi(told);
  return columns > 0 ? static_cast<size_t>(columns) : serial_columns;
}

size_t line_width() {
  const size_t columns = terminal_columns();
  return columns == 0 ? most_columns : std::clamp(columns - 1, least_columns, most_columns);
}

size_t counters_width(size_t columns) {
  constexpr size_t begin = 118;
  constexpr size_t least = 13;
  constexpr size_t most = 80;
  return columns <= begin ? most : std::clamp(columns - begin - 1, least, most);
}

std::string whole_number(int64_t number) {
  char digits[24];
  const auto end = std::to_chars(std::begin(digits), std::end(digits), number).ptr;
  return {digits, end};
}

void append_right(std::string& line, std::string_view text, size_t width) {
  line.append(width - std::min(width, text.size()), ' ');
  line += text;
}

std::string clean_name(const char* bytes, size_t size) {
  std::string name(bytes, strnlen(bytes, size));
  for (char& c : name) {
    if (c < ' ' || c > '~') {
      c = '?';
    }
  }
  return name;
}

std::string figure(double value, size_t width) {
  if (!std::isfinite(value)) {
    return unknown_text;
  }
  std::string text = one_decimal(value);
  if (text.size() > width) {
    text = fmt::format("{:.0f}", value);
  }
  if (text.size() > width) {
    text = scaled(value, 1000, thousands, 99.95);
  }
  return text.size() > width ? unknown_text : text;
}

std::string percent(double value) {
  const std::string text = figure(value, 7);
  return text == unknown_text ? text : text + '%';
}

double share_of_time(double percent) {
  return percent > -1 && percent < 101 ? std::clamp(percent, 0.0, 100.0) : NAN;
}

std::string size_text(uint64_t bytes) {
  if (bytes == unknown_u64) {
    return unknown_text;
  }
  auto value = static_cast<double>(bytes);
  size_t index = 0;
  while (index + 1 < sizes.size() && value >= 999.5) {
    value /= 1024;
    ++index;
  }
  const int decimals = index == 0 || value >= 99.95 ? 0 : (value >= 9.995 ? 1 : 2);
  std::string text = fmt::format("{:.{}f}", value, decimals);
  if (decimals > 0) {
    text.erase(text.find_last_not_of('0') + 1);
    text.erase(text.find_last_not_of('.') + 1);
  }
  return text + sizes[index];
}

std::string kib_text(uint64_t kib) {
  return size_text(kib <= UINT64_MAX / 1024 ? kib * 1024 : unknown_u64);
}

std::string size_text(uint64_t bytes, double least) {
  if (bytes == unknown_u64) {
    return unknown_text;
  }
  auto value = static_cast<double>(bytes);
  size_t index = 0;
  while (index + 1 < sizes.size() && value / 1024 >= least) {
    value /= 1024;
    ++index;
  }
  return (index == 0 ? fmt::format("{}", bytes) : one_decimal(value)) + sizes[index];
}

std::string count_text(double value) {
  return std::isfinite(value) ? scaled(value, 1000, thousands, 99.95) : unknown_text;
}

std::string short_count_text(double value) {
  const std::string text =
      std::isfinite(value) ? scaled(value, 1000, thousands, 9.95) : unknown_text;
  return text.size() <= 4 ? text : unknown_text;
}

std::string cut(std::string text, size_t width) {
  text.resize(std::min(text.size(), width));
  return text;
}

bool all_fit(std::string_view lead, const std::vector<std::string>& items, const room& room,
             std::string_view gap) {
  return place(lead, items, room, gap, 0).left_out == 0;
}

std::string side_by_side(std::string_view lead, const std::vector<std::string>& items,
                         const room& room, std::string_view gap) {
  if (items.empty()) {
    return std::string(lead) + "none";
  }
  placement placed = place(lead, items, room, gap, 0);
  if (placed.left_out == 0) {
    return placed.text;
  }
  const size_t reserved = gap.size() + 1 + whole_number(static_cast<int64_t>(items.size())).size();
  placed = place(lead, items, room, gap, reserved);
  return with_count(std::move(placed), lead.size(), room, gap);
}

std::string side_by_side(std::string_view lead, const std::vector<std::vector<std::string>>& forms,
                         const room& room) {
  const auto fitting = std::find_if(forms.begin(), forms.end(),
                                    [&](const auto& items) { return all_fit(lead, items, room); });
  return side_by_side(lead, fitting == forms.end() ? forms.back() : *fitting, room);
}

}  // namespace text_tools
