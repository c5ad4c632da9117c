#include "text_tools.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <iterator>

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

// "12.3G": `value` divided by `step` until it is below it, with the suffix of how often.
std::string scaled(double value, double step, std::string_view suffixes) {
  size_t index = 0;
  while (std::fabs(value) >= step && index + 1 < suffixes.size()) {
    value /= step;
    ++index;
  }
  const std::string suffix = suffixes[index] == ' ' ? "" : std::string(1, suffixes[index]);
  const bool whole = index == 0 || std::fabs(value) >= 99.95;
  return (whole ? fmt::format("{:.0f}", value) : one_decimal(value)) + suffix;
}

}  // namespace

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
    text = scaled(value, 1000, " kMGTPE");
  }
  return text.size() > width ? unknown_text : text;
}

std::string percent(double value) {
  const std::string text = figure(value, 7);
  return text == unknown_text ? text : text + '%';
}

std::string size_text(uint64_t bytes, double least) {
  if (bytes == unknown_u64) {
    return unknown_text;
  }
  constexpr std::string_view suffixes = "BKMGTPE";
  auto value = static_cast<double>(bytes);
  size_t index = 0;
  while (index + 1 < suffixes.size() && value / 1024 >= least) {
    value /= 1024;
    ++index;
  }
  return (index == 0 ? fmt::format("{}", bytes) : one_decimal(value)) + suffixes[index];
}

std::string count_text(double value) {
  return std::isfinite(value) ? scaled(value, 1000, " kMGTPE") : unknown_text;
}

std::string side_by_side(std::string_view lead, const std::vector<std::string>& items) {
  if (items.empty()) {
    return std::string(lead) + "none";
  }
  std::string text(lead);
  size_t column = lead.size();
  bool first_in_line = true;
  for (const std::string& item : items) {
    if (!first_in_line && column + 2 + item.size() > wrap_column) {
      text += '\n';
      text.append(lead.size(), ' ');
      column = lead.size();
      first_in_line = true;
    }
    if (!first_in_line) {
      text += "  ";
      column += 2;
    }
    text += item;
    column += item.size();
    first_in_line = false;
  }
  return text;
}

}  // namespace text_tools
