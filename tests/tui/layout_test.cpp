// SPDX-License-Identifier: Apache-2.0
#include "zorva/layout.h"

#include <gtest/gtest.h>

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

void expect_place(const position& got, const position& expected) {
  EXPECT_EQ(got.x, expected.x);
  EXPECT_EQ(got.y, expected.y);
  EXPECT_EQ(got.width, expected.width);
  EXPECT_EQ(got.height, expected.height);
}

TEST(layout, places) {
  auto plain = default_layout(200, 60, false);
  EXPECT_EQ(plain.size(), 5u);
  expect_place(plain["common"], {0, 0, 200, 3});
  expect_place(plain["vio"], {70, 3, 130, 10});
  expect_place(plain["process"], {0, 23, 200, 37});
  auto counters = default_layout(200, 60, true);
  expect_place(counters["perf"], {118, 23, 82, 37});
  expect_place(counters["process"], {0, 23, 118, 37});
  // Nothing is clamped where there is no room.
  expect_place(default_layout(60, 20, true)["perf"], {118, 23, -58, -3});
}

}  // namespace
