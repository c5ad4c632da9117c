// SPDX-License-Identifier: Apache-2.0
#include "kernel_facts.h"

#include <zlib.h>

#include <cstddef>
#include <cstdio>
#include <utility>

#include "samplers/text.h"

namespace {

// The text of some 300 KiB, or nothing when it is not gzip's.
std::string unpack(const std::string& packed) {
  constexpr size_t piece_size = 64 * 1024;
  constexpr size_t most = 4 * 1024 * 1024;
  constexpr int gzip = 16 + MAX_WBITS;
  z_stream stream{};
  std::string text;
  if (packed.empty() || inflateInit2(&stream, gzip) != Z_OK) {
    return text;
  }
  // zlib reads from it, and takes no pointer to const.
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
  stream.avail_in = static_cast<uInt>(packed.size());
  int result = Z_OK;
  while (result == Z_OK && text.size() < most) {
    const size_t length = text.size();
    text.resize(length + piece_size);
    stream.next_out = reinterpret_cast<Bytef*>(&text[length]);
    stream.avail_out = piece_size;
    result = inflate(&stream, Z_NO_FLUSH);
    text.resize(text.size() - stream.avail_out);
  }
  inflateEnd(&stream);
  return result == Z_STREAM_END ? text : std::string();
}

std::string read_config(const samplers::file_reader& machine, const std::string& release) {
  std::string content;
  if (machine.read("proc/config.gz", content) == 0) {
    return unpack(content);
  }
  machine.read(("boot/config-" + release).c_str(), content);
  return content;
}

}  // namespace

kernel_facts::kernel_facts(const samplers::file_reader& reader)
    : machine(reader), release(machine.read_line("proc/sys/kernel/osrelease")) {}

bool kernel_facts::is_before(int major, int minor) const {
  int own_major = 0;
  int own_minor = 0;
  const bool known = std::sscanf(release.c_str(), "%d.%d", &own_major, &own_minor) == 2;
  return known && std::pair(own_major, own_minor) < std::pair(major, minor);
}

// Options that are off have a line "# CONFIG_PSI is not set", or none when what they depend on is
// off as well.
kernel_option kernel_facts::find(std::string_view option) {
  if (!std::exchange(config_read, true)) {
    config = read_config(machine, release);
  }
  std::string_view rest = config;
  while (!rest.empty()) {
    std::string_view line = samplers::take_line(rest);
    if (samplers::starts_with(line, option) && line.substr(option.size(), 1) == "=") {
      return line.substr(option.size() + 1) == "m" ? kernel_option::module : kernel_option::on;
    }
  }
  return config.empty() ? kernel_option::unknown : kernel_option::off;
}
