// SPDX-License-Identifier: Apache-2.0
#include "samplers/text.h"

#include <charconv>
#include <cmath>
#include <limits>

#include "mon_records.h"

namespace samplers {
namespace {

bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

// Takes the run of digits at the front of `text`, without its leading zeros.
std::string_view take_digits(std::string_view& text) {
  size_t end = 0;
  while (end < text.size() && is_digit(text[end])) {
    ++end;
  }
  std::string_view digits = text.substr(0, end);
  text.remove_prefix(end);
  digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
  return digits;
}

}  // namespace

std::string_view take_line(std::string_view& text) {
  const size_t end = std::min(text.find('\n'), text.size());
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return line;
}

std::string_view take_word(std::string_view& text) {
  size_t begin = 0;
  while (begin < text.size() && is_blank(text[begin])) {
    ++begin;
  }
  size_t end = begin;
  while (end < text.size() && !is_blank(text[end])) {
    ++end;
  }
  const std::string_view word = text.substr(begin, end - begin);
  text.remove_prefix(end);
  return word;
}

bool starts_with(std::string_view text, std::string_view start) {
  return text.substr(0, start.size()) == start;
}

uint64_t to_u64(std::string_view word) {
  uint64_t value = 0;
  const char* end = word.data() + word.size();
  const auto [stop, error] = std::from_chars(word.data(), end, value);
  return error == std::errc() && stop == end ? value : unknown_u64;
}

double leading_number(std::string_view text) {
  const std::string_view word = take_word(text);
  double value = 0;
  const char* end = word.data() + word.size();
  const auto [stop, error] = std::from_chars(word.data(), end, value);
  const bool ends_well = stop == end || *stop == '%' || *stop == '@';
  if (error != std::errc() || !ends_well || !std::isfinite(value)) {
    return std::numeric_limits<double>::quiet_NaN();
  }
  return value;
}

std::vector<int32_t> parse_cpu_list(std::string_view text) {
  std::vector<int32_t> cpus;
  std::string_view rest = take_word(text);
  while (!rest.empty()) {
    const std::string_view range = rest.substr(0, rest.find(','));
    rest.remove_prefix(std::min(range.size() + 1, rest.size()));
    const size_t dash = range.find('-');
    const uint64_t first = to_u64(range.substr(0, dash));
    const uint64_t last = dash == std::string_view::npos ? first : to_u64(range.substr(dash + 1));
    for (uint64_t cpu = first; cpu <= last && last != unknown_u64 && cpu < max_cpus; ++cpu) {
      cpus.push_back(static_cast<int32_t>(cpu));
    }
  }
  std::sort(cpus.begin(), cpus.end());
  cpus.erase(std::unique(cpus.begin(), cpus.end()), cpus.end());
  return cpus;
}

std::string printable(std::string_view text) {
  std::string clean(text);
  std::replace_if(
      clean.begin(), clean.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  return clean;
}

bool natural_less(std::string_view a, std::string_view b) {
  const std::string_view whole_a = a;
  const std::string_view whole_b = b;
  while (!a.empty() && !b.empty()) {
    if (is_digit(a.front()) && is_digit(b.front())) {
      const std::string_view digits_a = take_digits(a);
      const std::string_view digits_b = take_digits(b);
      if (digits_a.size() != digits_b.size()) {
        return digits_a.size() < digits_b.size();
      }
      if (digits_a != digits_b) {
        return digits_a < digits_b;
      }
    } else if (a.front() != b.front()) {
      return a.front() < b.front();
    } else {
      a.remove_prefix(1);
      b.remove_prefix(1);
    }
  }
  // Names that differ in leading zeros only still need an order.
  return a.empty() == b.empty() ? whole_a < whole_b : a.empty();
}

}  // namespace samplers
