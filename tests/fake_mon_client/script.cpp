#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>

#include "fake_mon_client.h"

namespace fake_mon_client {
namespace {

using behaviour = std::map<std::string, std::string>;  // values by key

struct operation_state {
  behaviour what;
  std::function<void()> step;
  size_t calls = 0;
};

std::mutex lock;  // guards what follows
// Never destroyed: threads in a blocked call may outlive main.
auto& operations = *new std::map<std::string, operation_state>;
auto& recorded = *new std::string;
int record_fd = -1;  // -1: no file

void parse(std::istream& lines) {
  const std::set<std::string> keys = {"status", "text",  "throw", "sleep",
                                      "until",  "block", "crash", "raise"};
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string operation;
    std::getline(fields, operation, '\t');
    operation_state& state = operations[operation];
    state.what.clear();
    state.calls = 0;
    for (std::string field; std::getline(fields, field, '\t');) {
      const std::string key = field.substr(0, field.find('='));
      if (keys.count(key) == 0) {
        throw std::invalid_argument("fake_mon_client: no such key: " + key);
      }
      state.what[key] = field.substr(std::min(key.size() + 1, field.size()));
    }
  }
}

// Runs when the library is loaded.
[[maybe_unused]] const bool environment_read = [] {
  if (const char* path = getenv("FAKE_MON_CLIENT_CALLS")) {
    record_fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  }
  if (const char* path = getenv("FAKE_MON_CLIENT_SCRIPT")) {
    std::ifstream file(path);
    parse(file);
  }
  return true;
}();

// A real fault, and none that a sanitizer would report in its place.
void touch_forbidden_memory() {
  void* const page = mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  *static_cast<volatile char*>(page) = 1;
}

// What a call does before it returns, throws or appends its text.
void carry_out(const behaviour& what) {
  constexpr useconds_t poll_us = 1000;
  if (const auto sleep = what.find("sleep"); sleep != what.end()) {
    usleep(static_cast<useconds_t>(std::stoi(sleep->second)) * 1000);
  }
  if (const auto until = what.find("until"); until != what.end()) {
    while (access(until->second.c_str(), F_OK) != 0) {
      usleep(poll_us);
    }
  }
  while (what.count("block") > 0) {
    pause();
  }
  if (what.count("crash") > 0) {
    touch_forbidden_memory();
  }
  if (const auto raised = what.find("raise"); raised != what.end()) {
    raise(std::stoi(raised->second));
  }
}

int status_of_call(const std::string& statuses, size_t number) {
  int status = 0;
  std::istringstream items(statuses);
  for (std::string item; std::getline(items, item, ',');) {
    status = std::stoi(item);
    if (number-- == 0) {
      break;
    }
  }
  return status;
}

void throw_it(const std::string& text) {
  if (text == "int") {
    throw 1;
  }
  static thread_local std::string thrown;  // outlives the script
  thrown = text;
  throw thrown.c_str();
}

}  // namespace

void reset() {
  const std::lock_guard<std::mutex> guard(lock);
  operations.clear();
  recorded.clear();
}

void script(const std::string& lines) {
  const std::lock_guard<std::mutex> guard(lock);
  std::istringstream stream(lines);
  parse(stream);
}

void on_call(const std::string& operation, std::function<void()> step) {
  const std::lock_guard<std::mutex> guard(lock);
  operations[operation].step = std::move(step);
}

void record(const std::string& line) {
  const std::lock_guard<std::mutex> guard(lock);
  recorded += line + '\n';
  if (record_fd >= 0) {
    [[maybe_unused]] const ssize_t written =
        write(record_fd, (line + '\n').data(), line.size() + 1);
  }
}

std::string records() {
  const std::lock_guard<std::mutex> guard(lock);
  return recorded;
}

int perform(const std::string& operation, std::ostream* os, const std::string& argument) {
  const char* const stream = os == nullptr ? "" : os == &std::cout ? " cout" : " other";
  record(operation + (argument.empty() ? "" : ' ' + argument) + stream);
  operation_state now;
  {
    const std::lock_guard<std::mutex> guard(lock);
    now = operations[operation];
    ++operations[operation].calls;
  }
  if (now.step) {
    now.step();
  }
  carry_out(now.what);
  if (now.what.count("throw") > 0) {
    throw_it(now.what["throw"]);
  }
  if (os != nullptr) {
    std::string text = now.what["text"];
    for (size_t at; (at = text.find("\\n")) != std::string::npos;) {
      text.replace(at, 2, "\n");
    }
    *os << text;
  }
  return status_of_call(now.what["status"], now.calls);
}

}  // namespace fake_mon_client
