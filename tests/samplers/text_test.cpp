// SPDX-License-Identifier: Apache-2.0
#include "samplers/text.h"

#include <gtest/gtest.h>

#include "sampler_test.h"

namespace samplers {
namespace {

TEST(text, numbers_lists_and_order) {
  EXPECT_EQ(to_u64("18446744073709551614"), 18446744073709551614U);
  for (const char* word : {"", "-5", "12x", "18446744073709551616", "+1"}) {
    EXPECT_EQ(to_u64(word), unknown_u64) << word;
  }
  EXPECT_EQ(leading_number(" 37@1000000000Hz"), 37);
  for (const char* text : {"\n", "nan", "inf", "12abc", "1e999"}) {
    EXPECT_TRUE(std::isnan(leading_number(text))) << text;
  }
  EXPECT_EQ(parse_cpu_list("0-2,6\n"), (std::vector<int32_t>{0, 1, 2, 6}));
  EXPECT_NE(natural_less("bpu07", "bpu7"), natural_less("bpu7", "bpu07"));
  EXPECT_EQ(parse_cpu_list("x,3-1,0-x,0-99999").size(), size_t{max_cpus});
}

TEST(file_reader, reads_whole_files_up_to_its_bound) {
  const temporary_folder tree;
  tree.write("long", std::string(10000, 'x'));
  tree.write("huge", std::string(max_file_size + 5, 'y'));
  const file_reader reader(tree.path);
  std::string content = "left from before";
  EXPECT_EQ(reader.read("long", content), 0);
  EXPECT_EQ(content, std::string(10000, 'x'));
  EXPECT_EQ(reader.read("huge", content), 0);
  EXPECT_EQ(content.size(), max_file_size);
  EXPECT_EQ(reader.read("missing", content), -ENOENT);
}

}  // namespace
}  // namespace samplers
