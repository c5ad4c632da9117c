// SPDX-License-Identifier: Apache-2.0
#include "zorva/layout.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// On every terminal that has room for all panels, each cell belongs to one of them.
TEST(layout, covers_the_screen_without_overlap) {
  for (const bool perf : {false, true}) {
    for (int width = 119; width <= 260; width += 47) {
      for (int height = 24; height <= 80; height += 28) {
        std::vector<int> owners(static_cast<size_t>(width) * static_cast<size_t>(height), 0);
        for (const auto& [name, pos] : default_layout(width, height, perf)) {
          for (int y = pos.y; y < pos.y + pos.height; ++y) {
            for (int x = pos.x; x < pos.x + pos.width; ++x) {
              const size_t cell =
                  static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x);
              ASSERT_LT(cell, owners.size()) << name;
              ++owners[cell];
            }
          }
        }
        EXPECT_EQ(owners, std::vector<int>(owners.size(), 1)) << width << 'x' << height;
      }
    }
  }
}

std::string place(const char* name, int width, int height, bool perf) {
  const position at = default_layout(width, height, perf)[name];
  return std::to_string(at.width) + 'x' + std::to_string(at.height) + " at " +
         std::to_string(at.x) + ',' + std::to_string(at.y);
}

TEST(layout, places) {
  EXPECT_EQ(place("common", 200, 60, false), "200x3 at 0,0");
  EXPECT_EQ(place("vio", 200, 60, false), "130x10 at 70,3");
  EXPECT_EQ(place("process", 200, 60, false), "200x37 at 0,23");
  EXPECT_EQ(place("process", 200, 60, true), "118x37 at 0,23");
  EXPECT_EQ(place("perf", 200, 60, true), "82x37 at 118,23");
  EXPECT_EQ(place("perf", 60, 20, true), "-58x-3 at 118,23") << "nothing is clamped";
}

}  // namespace
