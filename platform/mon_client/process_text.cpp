// The list of processes or threads: a header and a line each. With process ids of up to five digits
// a line fits a terminal of 80 columns.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>

#include "text_tools.h"
#include "texts.h"

namespace texts {
namespace {

using text_tools::figure;

enum sort_key { by_cpu = 1, by_bpu = 2, by_io = 3, by_net = 4, by_ram = 5 };

// Process ids take at most 7 columns, the largest being 2^22 (PID_MAX_LIMIT); what does not fit
// there is no process id.
constexpr size_t least_pid_width = 5;
constexpr size_t most_pid_width = 7;

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
    case by_bpu:
      return "BPU";
    case by_io:
      return "IO";
    case by_net:
      return "NET";
    case by_ram:
      return "RAM";
    default:
      return "CPU";
  }
}

std::string header(size_t pid_width, int total, int sort_key, bool threads) {
  const bool cpu = std::string_view(key_name(sort_key)) == "CPU";
  return fmt::format("{:>{}} {:>{}} S PRI CPU {:>5} {:>5} {:>8} {:>9} {:>6} {} {} by {}\n",
                     threads ? "TID" : "PID", pid_width, threads ? "PID" : "PPID", pid_width,
                     title("CPU%", cpu), title("BPU%", sort_key == by_bpu),
                     title("IO KB/s", sort_key == by_io), title("NET KB/s", sort_key == by_net),
                     title("RSS", sort_key == by_ram), threads ? "THREADS" : "PROCS",
                     std::max(total, 0), key_name(sort_key));
}

void append_line(std::string& text, size_t pid_width, const pid_msg& msg) {
  const auto column = [&text](const std::string& figure, size_t width) {
    text_tools::append_right(text, figure, width);
    text += ' ';
  };
  const bool known_processor = msg.processor >= 0 && msg.processor <= 999;
  column(pid_text(msg.pid), pid_width);
  column(pid_text(msg.ppid), pid_width);
  column(text_tools::clean_name(&msg.state, 1), 1);
  column(priority_text(msg.priority), 3);
  column(known_processor ? text_tools::whole_number(msg.processor) : "-", 3);
  column(figure(msg.process_usage, 5), 5);
  column(figure(msg.bpu_usage, 5), 5);
  column(figure(msg.io_per_second, 8), 8);
  column(figure(msg.net_band, 9), 9);
  column(rss_text(msg.rss), 6);
  text += text_tools::clean_name(msg.comm);
  text += '\n';
}

}  // namespace

std::string processes(const std::vector<pid_msg>& list, int total, int sort_key, bool threads) {
  size_t pid_width = least_pid_width;
  for (const pid_msg& msg : list) {
    pid_width = std::max({pid_width, pid_text(msg.pid).size(), pid_text(msg.ppid).size()});
  }
  std::string text = header(pid_width, total, sort_key, threads);
  for (const pid_msg& msg : list) {
    append_line(text, pid_width, msg);
  }
  return text;
}

}  // namespace texts
