#include "samplers/text.h"

#include <gmock/gmock.h>

#include <cmath>

#include "mon_records.h"
#include "sampler_test.h"
#include "samplers/file_reader.h"

namespace samplers {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(text, numbers_are_whole_or_unknown) {
  EXPECT_EQ(to_u64("18446744073709551614"), 18446744073709551614U);
  for (const char* word : {"", "-5", "12x", "18446744073709551616", "+1", "0x10"}) {
    EXPECT_EQ(to_u64(word), unknown_u64) << word;
  }
  EXPECT_EQ(leading_number(" 37@1000000000Hz"), 37);
  EXPECT_EQ(leading_number("12.5% busy"), 12.5);
  for (const char* text : {"", "\n", "nan", "inf", "12abc", "1e999", "off"}) {
    EXPECT_TRUE(std::isnan(leading_number(text))) << text;
  }
}

TEST(text, natural_order_compares_numbers_by_value) {
  EXPECT_TRUE(natural_less("bpu2", "bpu10"));
  EXPECT_FALSE(natural_less("bpu10", "bpu2"));
  EXPECT_TRUE(natural_less("a1b2", "a1b10"));
  EXPECT_TRUE(natural_less("bpu", "bpu0"));
  EXPECT_FALSE(natural_less("bpu7", "bpu7"));
  EXPECT_NE(natural_less("bpu07", "bpu7"), natural_less("bpu7", "bpu07"));
}

TEST(text, cpu_lists) {
  EXPECT_THAT(parse_cpu_list("0-2,6\n"), ElementsAre(0, 1, 2, 6));
  EXPECT_THAT(parse_cpu_list("5"), ElementsAre(5));
  EXPECT_THAT(parse_cpu_list("\n"), IsEmpty());
  EXPECT_THAT(parse_cpu_list("x,3-1,0-x,"), IsEmpty());
  EXPECT_EQ(parse_cpu_list("0-99999").size(), size_t{max_cpus});
}

TEST(file_reader, reads_whole_files_up_to_its_bound) {
  const temporary_tree tree;
  const std::string long_text(10000, 'x');
  tree.write("proc/long", long_text);
  tree.write("proc/huge", std::string(max_file_size + 5, 'y'));
  tree.write("proc/empty", "");
  const file_reader reader(tree.root);
  std::string content = "left from before";
  EXPECT_EQ(reader.read("proc/long", content), 0);
  EXPECT_EQ(content, long_text);
  EXPECT_EQ(reader.read("proc/huge", content), 0);
  EXPECT_EQ(content.size(), max_file_size);
  EXPECT_EQ(reader.read("proc/empty", content), 0);
  EXPECT_THAT(content, IsEmpty());
  EXPECT_EQ(reader.read("proc/missing", content), -ENOENT);
  EXPECT_EQ(reader.read("proc", content), -EINVAL);
}

}  // namespace
}  // namespace samplers
