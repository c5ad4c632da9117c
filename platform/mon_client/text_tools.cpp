#include "text_tools.h"

#include <fmt/format.h>

#include <cmath>
#include <cstring>

namespace text_tools {
namespace {

// "12.3G": `value` divided by `step` until it is below it, with the suffix of how often.
std::string scaled(double value, double step, std::string_view suffixes) {
  size_t index = 0;
  while (std::fabs(value) >= step && index + 1 < suffixes.size()) {
    value /= step;
    ++index;
  }
  const std::string suffix = suffixes[index] == ' ' ? "" : std::string(1, suffixes[index]);
  const bool whole = index == 0 || std::fabs(value) >= 99.95;
  return whole ? fmt::format("{:.0f}{}", value, suffix) : fmt::format("{:.1f}{}", value, suffix);
}

}  // namespace

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
  std::string text = fmt::format("{:.1f}", value);
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
  return index == 0 ? fmt::format("{}B", bytes) : fmt::format("{:.1f}{}", value, suffixes[index]);
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
