// SPDX-License-Identifier: Apache-2.0
// What the tests of all parts use: waiting with a deadline, and a folder of a test's own.
#ifndef TEST_TOOLS_H
#define TEST_TOOLS_H

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

// Calls `done` until it is true; false when it was not within 30 s, which is far more than anything
// waited for takes, sanitizers and a busy machine included.
template <class condition>
bool wait_until(const condition& done) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// The file's contents; empty when there is none.
inline std::string read_file(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Removed with all that is in it.
struct temporary_folder {
  temporary_folder() { path = mkdtemp(path.data()); }
  ~temporary_folder() { std::filesystem::remove_all(path); }
  std::string file(const std::string& name) const { return path + '/' + name; }
  // Makes or replaces the file in one step, so that no reader sees half of it.
  void write(const std::string& name, const std::string& content) const {
    const std::filesystem::path target = file(name);
    std::filesystem::create_directories(target.parent_path());
    std::ofstream(file("being-written")) << content;
    std::filesystem::rename(file("being-written"), target);
  }
  void link(const std::string& name, const std::string& target) const {
    std::filesystem::create_directories(std::filesystem::path(file(name)).parent_path());
    std::filesystem::create_symlink(target, file(name));
  }

  std::string path = std::filesystem::temp_directory_path() / "zorva-test-XXXXXX";
};

#endif
