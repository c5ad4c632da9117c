// What the sampler tests share: the kept trees, and trees that a test makes for itself.
#ifndef SAMPLER_TEST_H
#define SAMPLER_TEST_H

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

inline std::string fixture(const std::string& name) {
  return std::string(ZORVA_FIXTURES) + "/" + name;
}

// The text of a name that may fill its array.
template <size_t size>
std::string name_of(const char (&field)[size]) {
  return std::string(field, strnlen(field, size));
}

// A folder of its own for one test.
class temporary_tree {
 public:
  temporary_tree() { root = mkdtemp(root.data()); }
  ~temporary_tree() { std::filesystem::remove_all(root); }

  void write(const std::string& path, const std::string& content) const {
    std::filesystem::create_directories(std::filesystem::path(root + "/" + path).parent_path());
    std::ofstream(root + "/" + path) << content;
  }

  std::string root = std::filesystem::temp_directory_path() / "samplers-XXXXXX";
};

#endif
