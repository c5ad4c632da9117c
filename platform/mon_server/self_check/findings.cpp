// SPDX-License-Identifier: Apache-2.0
#include "self_check/findings.h"

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>

#include "samplers/text.h"

namespace {

constexpr size_t columns = 80;
constexpr size_t family_column = 6;
constexpr size_t text_column = 27;

const char* word_of(verdict state) {
  switch (state) {
    case verdict::ok:
      return "ok";
    case verdict::less:
      return "less";
    case verdict::lack:
      return "lack";
    case verdict::none:
      return "none";
    default:
      return "off";
  }
}

void pad(std::string& line, size_t width) {
  line.resize(std::max(line.size() + 1, width), ' ');
}

// `label` is before the reason of a family that is read all the same.
void append_obstacle(const obstacle& one, const std::string& label, std::string lead,
                     std::string& all) {
  const std::string remedy_label = "do:  ";
  const std::string detail_label = "told: ";
  const std::string indent(text_column, ' ');
  append_wrapped(std::move(lead) + label, samplers::printable(one.why), text_column + label.size(),
                 all);
  append_wrapped(indent + remedy_label, samplers::printable(one.remedy),
                 text_column + remedy_label.size(), all);
  append_wrapped(indent + detail_label, samplers::printable(one.detail),
                 text_column + detail_label.size(), all);
}

void append_finding(const finding& one, std::string& all) {
  const std::string indent(text_column, ' ');
  std::string lead = word_of(verdict_of(one));
  pad(lead, family_column);
  lead += one.family;
  pad(lead, text_column);
  if (!one.source.empty()) {
    append_wrapped(std::exchange(lead, indent), samplers::printable(one.source), text_column, all);
  }
  for (const obstacle& each : one.obstacles) {
    append_obstacle(each, one.is_read ? "why: " : "", std::exchange(lead, indent), all);
  }
}

size_t count_of(const std::vector<finding>& findings, verdict state) {
  return static_cast<size_t>(
      std::count_if(findings.begin(), findings.end(),
                    [state](const finding& one) { return verdict_of(one) == state; }));
}

}  // namespace

void append_wrapped(std::string lead, std::string_view text, size_t indent, std::string& all) {
  std::string line = std::move(lead);
  while (!text.empty()) {
    const size_t room = columns - std::min(line.size(), columns - 1);
    size_t end = text.size() <= room ? text.size() : text.rfind(' ', room);
    if (end == std::string_view::npos || end == 0) {
      end = room;
    }
    all += line.append(text.substr(0, end)) + '\n';
    text.remove_prefix(end);
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    line.assign(indent, ' ');
  }
}

verdict verdict_of(const finding& one) {
  if (std::any_of(one.obstacles.begin(), one.obstacles.end(),
                  [](const obstacle& each) { return !each.remedy.empty(); })) {
    return one.is_read ? verdict::less : verdict::lack;
  }
  if (one.is_read) {
    return verdict::ok;
  }
  return one.left_out ? verdict::off : verdict::none;
}

int check_status(const std::vector<finding>& findings) {
  return count_of(findings, verdict::less) + count_of(findings, verdict::lack) == 0 ? 0 : 1;
}

std::string check_text(const std::vector<finding>& findings) {
  std::string all;
  for (const finding& one : findings) {
    append_finding(one, all);
  }
  return all + std::to_string(findings.size()) +
         " families: " + std::to_string(count_of(findings, verdict::less)) + " less, " +
         std::to_string(count_of(findings, verdict::lack)) + " lack (exit status " +
         std::to_string(check_status(findings)) + ")\n";
}
