// SPDX-License-Identifier: Apache-2.0
#include "fake_mon_client.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <iostream>
#include <map>
#include <mutex>
#include <sstream>

#include "test_tools.h"

namespace fake_mon_client {
namespace {

struct operation {
  std::map<std::string, std::string> what;  // values by key
  std::function<void()> step;
  size_t calls = 0;
};

std::mutex lock;  // guards what follows
// Never destroyed: threads in a blocked call may outlive main.
auto& operations = *new std::map<std::string, operation>;

// What a call does before it returns or appends its text.
void carry_out(const std::map<std::string, std::string>& what) {
  const auto asked = [&what](const char* key) { return what.count(key) > 0; };
  if (asked("until")) {
    wait_until([&] { return times_recorded(what.at("until")) > 0; });
  }
  while (asked("block")) {
    pause();
  }
  if (asked("crash")) {
    // A real fault, and none that a sanitizer would report in its place.
    void* const page = mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    *static_cast<volatile char*>(page) = 1;
  }
  if (asked("raise")) {
    raise(std::stoi(what.at("raise")));
  }
  if (asked("throw") && what.at("throw") == "int") {
    throw 1;
  }
  if (asked("throw")) {
    static thread_local std::string thrown;  // outlives the script
    thrown = what.at("throw");
    throw thrown.c_str();
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

}  // namespace

const int record_file = [] {
  const int fd = memfd_create("records", 0);
  fcntl(fd, F_SETFL, O_APPEND);
  return fd;
}();
const std::string record_path = "/proc/self/fd/" + std::to_string(record_file);

void reset() {
  operations.clear();
  [[maybe_unused]] const int result = ftruncate(record_file, 0);
}

void script(const std::string& lines) {
  std::istringstream all(lines);
  for (std::string line; std::getline(all, line);) {
    std::istringstream fields(line);
    std::string name;
    std::getline(fields, name, '\t');
    operations[name] = {};
    for (std::string field; std::getline(fields, field, '\t');) {
      const std::string key = field.substr(0, field.find('='));
      operations[name].what[key] = field.substr(std::min(key.size() + 1, field.size()));
    }
  }
}

void on_call(const std::string& operation, std::function<void()> step) {
  operations[operation].step = std::move(step);
}

std::string records() {
  std::string all;
  std::istringstream lines(read_file(record_path));
  for (std::string line; std::getline(lines, line);) {
    const size_t tag = line.find(" ZORVA: ");
    all += tag == std::string::npos ? line : line[tag - 1] + line.substr(tag + 7);
    all += '\n';
  }
  return all;
}

size_t times_recorded(const std::string& line) {
  size_t times = 0;
  std::istringstream lines(records());
  for (std::string one; std::getline(lines, one);) {
    times += one == line ? 1 : 0;
  }
  return times;
}

void record(const std::string& line) {
  [[maybe_unused]] const ssize_t written =
      write(record_file, (line + '\n').data(), line.size() + 1);
}

int perform(const std::string& name, std::ostream* os, const std::string& argument) {
  const char* const stream = os == nullptr ? "" : os == &std::cout ? " cout" : " other";
  record(name + (argument.empty() ? "" : ' ' + argument) + stream);
  std::unique_lock<std::mutex> guard(lock);
  operation now = operations[name];
  ++operations[name].calls;
  guard.unlock();
  if (now.step) {
    now.step();
  }
  carry_out(now.what);
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
