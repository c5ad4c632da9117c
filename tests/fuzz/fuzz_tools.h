// SPDX-License-Identifier: Apache-2.0
// What the fuzz targets share.
#ifndef FUZZ_TOOLS_H
#define FUZZ_TOOLS_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

// Called by libFuzzer with each input.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// A finding unless `holds`. Other than assert(3) it stays in an optimised build.
inline void expect(bool holds, const char* what) {
  if (!holds) {
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
  }
}

// Takes the first byte off the input, 0 when it is empty.
inline uint8_t take_byte(const uint8_t*& data, size_t& size) {
  if (size == 0) {
    return 0;
  }
  --size;
  return *data++;
}

#endif
