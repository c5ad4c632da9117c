// SPDX-License-Identifier: Apache-2.0
// The list of processes or threads: a header and a line each, of figures, the name and the command
// line. Figures take 59 columns with process ids of up to five digits, 63 with those of seven.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>

#include "text_tools.h"
#include "texts.h"

namespace texts {
namespace {

using text_tools::figure;

// Process ids take at most 7 columns, the largest being 2^22 (PID_MAX_LIMIT); what does not fit
// there is no process id.
constexpr size_t least_pid_width = 5;
constexpr size_t most_pid_width = 7;
constexpr size_t state_width = 1;
constexpr size_t priority_width = 3;
constexpr size_t processor_width = 3;
constexpr size_t share_width = 5;
constexpr size_t io_width = 8;
constexpr size_t net_width = 9;
constexpr size_t rss_width = 6;

std::string pid_text(int32_t pid) {
  const std::string text = text_tools::whole_number(pid);
  return pid < 0 || text.size() > most_pid_width ? text_tools::unknown_text : text;
}

std::string priority_text(int16_t priority) {
  // As top(1): real-time priorities, -2 and below, are all "rt" when they would not fit.
  return priority < -99 ? "rt" : text_tools::whole_number(std::min<int>(priority, 999));
}

std::string rss_text(int64_t kib) {
  if (kib < 0 || kib > INT64_MAX / 1024) {
    return text_tools::unknown_text;
  }
  // From 1000 of a unit on, rounded, the next one: the column is 6 wide.
  constexpr double least = 999.95 / 1024;
  return text_tools::size_text(static_cast<uint64_t>(kib) * 1024, least);
}

std::string title(const char* name, bool sorted) {
  return (sorted ? "*" : "") + std::string(name);
}

const char* key_name(int sort_key) {
  switch (sort_key) {
    case sort_by_bpu:
      return "BPU";
    case sort_by_io:
      return "IO";
    case sort_by_net:
      return "NET";
    case sort_by_ram:
      return "RAM";
    default:
      return "CPU";
  }
}

// Where lines are cut: at `width`, or, if that is too narrow for the figures, behind the last one
// that fits. Half a figure would be another one.
size_t line_end(size_t pid_width, size_t width) {
  size_t end = pid_width;
  for (const size_t column : {pid_width, state_width, priority_width, processor_width, share_width,
                              share_width, io_width, net_width, rss_width}) {
    if (end + 1 + column > width) {
      return end;
    }
    end += 1 + column;
  }
  return width;
}

// Cuts the line that begins at `start` of `text`; blanks at its end go too.
void end_line(std::string& text, size_t start, size_t most) {
  size_t end = std::min(text.size(), start + most);
  while (end > start && text[end - 1] == ' ') {
    --end;
  }
  text.resize(end);
  text += '\n';
}

std::string header(size_t pid_width, int total, int sort_key, bool threads, size_t most) {
  std::string line = fmt::format(
      "{:>{}} {:>{}} S PRI CPU {:>5} {:>5} {:>8} {:>9} {:>6}", threads ? "TID" : "PID", pid_width,
      threads ? "PID" : "PPID", pid_width, title("CPU%", sort_key == sort_by_cpu),
      title("BPU%", sort_key == sort_by_bpu), title("IO KB/s", sort_key == sort_by_io),
      title("NET KB/s", sort_key == sort_by_net), title("RSS", sort_key == sort_by_ram));
  // The star says the sort key too, so it is the first to go.
  const std::string count =
      fmt::format(" {} {}", threads ? "THREADS" : "PROCS", std::max(total, 0));
  const std::string key = fmt::format(" by {}", key_name(sort_key));
  for (const std::string& part : {count, key}) {
    if (line.size() + part.size() > most) {
      break;
    }
    line += part;
  }
  end_line(line, 0, most);
  return line;
}

// Where in `line` its first argument is the program called `name`: behind that name, npos if it is
// not. The kernel cuts the name to 15 bytes, so that the rest of a longer one comes first there.
size_t behind_name(std::string_view line, size_t base, size_t first_end, std::string_view name) {
  constexpr size_t cut_name = 15;
  // A login shell is called as "-bash".
  const size_t begin =
      base < first_end && line[base] == '-' && name.front() != '-' ? base + 1 : base;
  const std::string_view program = line.substr(begin, first_end - begin);
  const bool same =
      program == name || (name.size() >= cut_name && program.substr(0, name.size()) == name);
  return same ? begin + name.size() : std::string_view::npos;
}

// What tells processes of one name apart comes first: there are 20 columns on a terminal of 80.
void append_command(std::string& text, std::string_view name, std::string_view line, bool thread) {
  const size_t first_end = std::min(line.find(' '), line.size());
  const size_t slash = line.substr(0, first_end).rfind('/');
  const size_t base = slash == std::string_view::npos ? 0 : slash + 1;
  const size_t rest =
      name.empty() ? std::string_view::npos : behind_name(line, base, first_end, name);
  if (rest != std::string_view::npos) {
    text += line.substr(rest);
  } else if (thread) {
    text += "  ";
    text += line.substr(base);
  } else {
    text += ' ';
    text += line;
  }
}

void append_figures(std::string& text, size_t pid_width, const pid_msg& msg) {
  const auto column = [&text](const std::string& figure, size_t width) {
    text_tools::append_right(text, figure, width);
    text += ' ';
  };
  const bool known_processor = msg.processor >= 0 && msg.processor <= 999;
  column(pid_text(msg.pid), pid_width);
  column(pid_text(msg.ppid), pid_width);
  column(text_tools::clean_name(&msg.state, 1), state_width);
  column(priority_text(msg.priority), priority_width);
  column(known_processor ? text_tools::whole_number(msg.processor) : "-", processor_width);
  column(figure(msg.process_usage, share_width), share_width);
  column(figure(msg.bpu_usage, share_width), share_width);
  column(figure(msg.io_per_second, io_width), io_width);
  column(figure(msg.net_band, net_width), net_width);
  column(rss_text(msg.rss), rss_width);
}

}  // namespace

std::string processes(const std::vector<pid_msg>& list,
                      const std::unordered_map<int32_t, std::string>& command_lines, int total,
                      int sort_key, bool threads, size_t width) {
  size_t pid_width = least_pid_width;
  for (const pid_msg& msg : list) {
    pid_width = std::max({pid_width, pid_text(msg.pid).size(), pid_text(msg.ppid).size()});
  }
  const size_t most = line_end(pid_width, width);
  std::string text = header(pid_width, total, sort_key, threads, most);
  for (const pid_msg& msg : list) {
    const size_t start = text.size();
    append_figures(text, pid_width, msg);
    const std::string name = text_tools::clean_name(msg.comm);
    text += name;
    const auto command = command_lines.find(threads ? msg.ppid : msg.pid);
    if (command != command_lines.end()) {
      append_command(text, name, command->second, threads);
    }
    end_line(text, start, most);
  }
  return text;
}

}  // namespace texts
