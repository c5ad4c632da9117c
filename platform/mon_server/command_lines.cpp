// SPDX-License-Identifier: Apache-2.0
#include "command_lines.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "samplers/clock.h"
#include "samplers/text.h"

namespace {

// All views and sort keys together list some 1,460 processes at most, mostly the same ones. What is
// beyond this has no line.
constexpr size_t most_lines = 1024;

// Lines that no session lists are kept up to here: lists change, and change back.
constexpr size_t enough_lines = 256;

// A process changes its line by executing another program or by writing into its memory. Either
// takes it some CPU time, of which the smallest amounts do not show everywhere.
constexpr int64_t again_us = 10 * 1000000LL;
constexpr int64_t again_without_activity_us = 60 * 1000000LL;

// Of the lines that are kept so many are read again an answer; with new ones it is all at once.
constexpr int most_again = 32;

process_command record(int32_t pid, const std::string& text) {
  process_command command{};
  command.pid = pid;
  samplers::copy_name(text, command.text);
  return command;
}

}  // namespace

std::vector<process_command> command_lines::tell(const samplers::process_identities& listed,
                                                 told_lines& told) {
  const int64_t now_us = samplers::monotonic_us();
  take_results(now_us);
  read_again = 0;
  std::vector<process_command> answer;
  told_lines now_told;
  now_told.reserve(listed.size());
  auto before = told.begin();
  size_t stayed = 0;
  for (const samplers::process_identity& process : listed) {
    while (before != told.end() && before->pid < process.pid) {
      ++before;
    }
    const bool known = before != told.end() && before->pid == process.pid;
    const bool stays = known && before->start_ticks == process.start_ticks;
    const bool has_other_line = known && !stays && before->version != 0;
    told_line one = stays && before->kept ? std::move(*before) : take_up(process);
    stayed += stays ? 1 : 0;
    if (one.kept) {
      read_if_due(process, *one.kept, now_us);
    }
    const uint32_t version = one.kept ? one.kept->version : 0;
    if (version != one.version || has_other_line) {
      answer.push_back(record(process.pid, version != 0 ? one.kept->text : ""));
      one.version = version;
    }
    now_told.push_back(std::move(one));
  }
  const bool some_left = stayed < told.size();
  told = std::move(now_told);
  if (some_left) {
    forget_unlisted();
  }
  return answer;
}

void command_lines::take_results(int64_t now_us) {
  for (line_reader::result& result : reader.take()) {
    const auto found = lines.find({result.of.pid, result.of.start_ticks});
    if (found == lines.end()) {
      continue;
    }
    line& kept = *found->second;
    kept.under_way = false;
    kept.read_us = now_us;
    if (kept.version == 0 || kept.text != result.line) {
      kept.text = std::move(result.line);
      ++kept.version;
    }
  }
}

// What a session is given that sees the process for the first time.
command_lines::told_line command_lines::take_up(const samplers::process_identity& process) {
  told_line one{process.pid, process.start_ticks, nullptr, 0};
  const auto found = lines.find({process.pid, process.start_ticks});
  if (found != lines.end()) {
    one.kept = found->second;
  } else if (lines.size() < most_lines) {
    one.kept = std::make_shared<line>();
    lines[{process.pid, process.start_ticks}] = one.kept;
  }
  return one;
}

void command_lines::read_if_due(const samplers::process_identity& process, line& kept,
                                int64_t now_us) {
  if (kept.under_way) {
    return;
  }
  if (kept.version != 0) {
    const bool same_name = samplers::same_name(kept.comm, process.comm);
    const bool has_run = kept.activity != process.activity;
    const int64_t max_age_us = has_run ? again_us : again_without_activity_us;
    if (same_name && (now_us - kept.read_us < max_age_us || read_again >= most_again)) {
      return;
    }
    ++read_again;
  }
  if (reader.ask({process.pid, process.start_ticks})) {
    kept.under_way = true;
    std::copy(std::begin(process.comm), std::end(process.comm), kept.comm);
    kept.activity = process.activity;
  }
}

void command_lines::forget_unlisted() {
  if (lines.size() <= enough_lines) {
    return;
  }
  for (auto one = lines.begin(); one != lines.end();) {
    one = one->second.use_count() == 1 ? lines.erase(one) : std::next(one);
  }
}
