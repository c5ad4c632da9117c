// SPDX-License-Identifier: Apache-2.0
#include "samplers/task_iterator.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string_view>

#include "samplers/rights.h"
#include "samplers/text.h"

// The object that tasks.bpf.c is compiled to.
asm(".section .rodata\n"
    ".balign 8\n"
    ".globl tasks_object_begin, tasks_object_end\n"
    ".hidden tasks_object_begin, tasks_object_end\n"
    "tasks_object_begin:\n"
    ".incbin \"" TASKS_OBJECT
    "\"\n"
    "tasks_object_end:\n"
    ".previous\n");
extern "C" const char tasks_object_begin[] __attribute__((visibility("hidden")));
extern "C" const char tasks_object_end[] __attribute__((visibility("hidden")));

namespace samplers {
namespace {

struct object_deleter {
  void operator()(bpf_object* object) const { bpf_object__close(object); }
};

// The verifier's log tells of each instruction up to the one that it refuses, and why, in its last
// lines. Without a log libbpf's first lines tell most, since what follows are their consequences;
// but where a right is missing, it guesses at limits.
std::string last_words_of(std::string_view text, int error) {
  constexpr std::string_view begin = "-- BEGIN PROG LOAD LOG --\n";
  constexpr std::string_view prefix = "libbpf: ";
  constexpr size_t lines_told = 2;
  const size_t log = text.find(begin);
  const bool has_log = log != std::string_view::npos;
  if (has_log) {
    text = text.substr(log + begin.size());
    text = text.substr(0, text.find("-- END PROG LOAD LOG --"));
  } else if (error == -EPERM) {
    return "";
  }
  std::vector<std::string_view> lines;
  while (!text.empty() && (has_log || lines.size() < lines_told)) {
    std::string_view line = take_line(text);
    line.remove_prefix(starts_with(line, prefix) ? prefix.size() : 0);
    if (!line.empty() && !starts_with(line, "processed ")) {
      lines.push_back(line);
    }
  }
  std::string words;
  for (size_t i = lines.size() - std::min(lines.size(), lines_told); i < lines.size(); ++i) {
    words += (words.empty() ? "" : "; ") + std::string(lines[i]);
  }
  return words;
}

// What libbpf warns of while an object of this lives; the verifier's log is part of it.
class library_warnings {
 public:
  library_warnings() {
    text.clear();
    libbpf_set_print(keep);
  }
  ~library_warnings() {
    libbpf_set_print(nullptr);
    text.clear();
  }
  library_warnings(const library_warnings&) = delete;
  library_warnings& operator=(const library_warnings&) = delete;

  std::string last_words(int error) const { return last_words_of(text, error); }

 private:
  [[gnu::format(printf, 2, 0)]] static int keep(libbpf_print_level level, const char* format,
                                                va_list arguments) {
    if (level != LIBBPF_WARN) {
      return 0;
    }
    va_list again;
    va_copy(again, arguments);
    const int size = vsnprintf(nullptr, 0, format, again);
    va_end(again);
    const size_t before = text.size();
    text.resize(before + static_cast<size_t>(std::max(size, 0)) + 1);
    vsnprintf(text.data() + before, text.size() - before, format, arguments);
    text.pop_back();
    return 0;
  }

  static thread_local std::string text;
};
thread_local std::string library_warnings::text;

}  // namespace

int task_iterator::open(std::string& said) {
  if (!in_initial_pid_namespace()) {
    return -EOPNOTSUPP;
  }
  if (access("/sys/kernel/btf/vmlinux", F_OK) != 0) {
    return -ENOENT;
  }
  const library_warnings warnings;
  const int error = load();
  said = error == 0 ? "" : warnings.last_words(error);
  return error;
}

int task_iterator::load() {
  LIBBPF_OPTS(bpf_object_open_opts, options, .object_name = "mon_tasks");
  const std::unique_ptr<bpf_object, object_deleter> object(bpf_object__open_mem(
      tasks_object_begin, static_cast<size_t>(tasks_object_end - tasks_object_begin), &options));
  if (!object || bpf_object__load(object.get()) != 0) {
    return -errno;
  }
  const bpf_program* program = bpf_object__find_program_by_name(object.get(), "mon_tasks");
  link = file_descriptor(bpf_link_create(bpf_program__fd(program), 0, BPF_TRACE_ITER, nullptr));
  return link ? 0 : -errno;
}

int task_iterator::read(std::vector<task_record>& tasks) {
  const file_descriptor pass(bpf_iter_create(link.get()));
  if (!pass) {
    return -errno;
  }
  constexpr size_t records_a_read = 512;
  tasks.reserve(records_before + 2 * records_a_read);  // growing takes twice the room for a while
  size_t bytes = 0;
  for (;;) {
    tasks.resize(bytes / sizeof(task_record) + records_a_read);
    auto* const space = reinterpret_cast<char*>(tasks.data());
    const ssize_t size =
        ::read(pass.get(), space + bytes, tasks.size() * sizeof(task_record) - bytes);
    if (size < 0 && (errno == EINTR || errno == EAGAIN)) {
      continue;
    }
    if (size <= 0) {
      tasks.resize(bytes / sizeof(task_record));
      records_before = tasks.size();
      return size == 0 ? 0 : -errno;
    }
    bytes += static_cast<size_t>(size);
  }
}

}  // namespace samplers
