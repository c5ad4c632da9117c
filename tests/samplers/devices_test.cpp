#include <gmock/gmock.h>

#include <cmath>

#include "sampler_test.h"
#include "samplers/blocks.h"
#include "samplers/net_devices.h"

namespace samplers {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> device_names(const char* text, const std::vector<std::string>& known) {
  std::vector<block_entry> entries;
  parse_diskstats(text, known, entries);
  std::vector<std::string> names;
  for (const block_entry& entry : entries) {
    names.push_back(name_of(entry.name));
  }
  return names;
}

TEST(blocks, partitions_are_told_from_devices) {
  const char* text =
      "8 0 sda 1 0 8 0 1 0 8 0 0 0 0\n8 1 sda1 1 0 8 0 1 0 8 0 0 0 0\n"
      "179 0 mmcblk0 1 0 8 0 1 0 8 0 0 0 0\n179 1 mmcblk0p1 1 0 8 0 1 0 8 0 0 0 0\n"
      "179 8 mmcblk0boot0 1 0 8 0 1 0 8 0 0 0 0\n259 0 nvme0n1 1 0 8 0 1 0 8 0 0 0 0\n"
      "259 1 nvme0n1p1 1 0 8 0 1 0 8 0 0 0 0\n253 0 dm-0 1 0 8 0 1 0 8 0 0 0 0\n"
      "104 0 cciss/c0d0 1 0 8 0 1 0 8 0 0 0 0\n9 0 md127 1 0 8 0 1 0 8 0 0 0 0\n"
      "7 0 loop0 1 0 8 0 1 0 8 0 0 0 0\n1 0 ram15 1 0 8 0 1 0 8 0 0 0 0\n"
      "253 1 zram0 1 0 8 0 1 0 8 0 0 0 0\n8 16 sdb 1 0 8 0 1 0 8\n8 32 sdc 1 0 8\n";
  EXPECT_THAT(device_names(text, {}), ElementsAre("sda", "mmcblk0", "mmcblk0boot0", "nvme0n1",
                                                  "dm-0", "cciss/c0d0", "md127", "sdb"));
  // What /sys/block says counts, whatever a name looks like; loop0 has a folder there, too.
  EXPECT_THAT(device_names(text, {"cciss!c0d0", "loop0", "sda1"}),
              ElementsAre("sda1", "cciss/c0d0"));
}

TEST(blocks, differences_lose_no_odd_sector) {
  block_sample samples[3];
  samples[0].time_us = 1000000;
  samples[1].time_us = 2000000;
  samples[2].time_us = 3500000;
  parse_diskstats("8 0 sda 1 0 1 0 1 0 10 0\n", {}, samples[0].entries);
  parse_diskstats("8 0 sda 1 0 2 0 1 0 15 0\n", {}, samples[1].entries);
  parse_diskstats("8 0 sda 1 0 4 0 1 0 20 0\n", {}, samples[2].entries);
  const block_stat first = block_rates(&samples[0], samples[1])[0];
  const block_stat second = block_rates(&samples[1], samples[2])[0];
  // 1 to 4 sectors are from 0 to 2 KiB, 10 to 20 are 5 KiB.
  EXPECT_EQ(first.rd_kb, 1U);
  EXPECT_EQ(second.rd_kb, 1U);
  EXPECT_EQ(first.wr_kb, 2U);
  EXPECT_EQ(second.wr_kb, 3U);
  EXPECT_EQ(second.interval_ms, 1500U);
}

TEST(blocks, new_reset_and_first_seen_devices_are_unknown) {
  block_sample before;
  block_sample now;
  before.time_us = 1000000;
  now.time_us = 2000000;
  parse_diskstats("8 0 sda 9 0 900 0 9 0 900 0\n8 16 sdb 1 0 2 0 1 0 2 0\n", {}, before.entries);
  parse_diskstats("8 0 sda 1 0 10 0 9 0 901 0\n8 32 sdc 1 0 2 0 1 0 2 0\n", {}, now.entries);
  const std::vector<block_stat> stats = block_rates(&before, now);
  ASSERT_EQ(stats.size(), 2U);
  for (const block_stat& stat : stats) {
    EXPECT_EQ(stat.rd_kb, unknown_u64);
    EXPECT_EQ(stat.wr_kb, unknown_u64);
  }
  EXPECT_EQ(block_rates(nullptr, now)[0].rd_kb, unknown_u64);
  EXPECT_EQ(block_rates(nullptr, now)[0].interval_ms, 0U);
  EXPECT_EQ(block_rates(&now, now)[0].interval_ms, 0U);
}

TEST(blocks, read_of_a_machine) {
  block_sample sample;
  ASSERT_EQ(read_block_sample(file_reader(fixture("cpu64")), sample), 0);
  ASSERT_EQ(sample.entries.size(), 2U);
  EXPECT_EQ(name_of(sample.entries[0].name), "mmcblk0");
  EXPECT_EQ(sample.entries[0].wr_sectors, 128001U);
  EXPECT_EQ(name_of(sample.entries[1].name), "mmcblk0boot0");
}

TEST(net_devices, names_that_touch_the_first_number) {
  std::vector<net_entry> entries;
  parse_net_dev(
      "Inter-|   Receive   |  Transmit\n face |bytes  packets|bytes  packets\n"
      "  eth0:123 1 0 0 0 0 0 0 77 1 0 0 0 0 0 0\n"
      "eth0:1:  10 1 0 0 0 0 0 0 20 1 0 0 0 0 0 0\n"
      "  cut: 1 2 3\n  bad: x 1 0 0 0 0 0 0 20 1\n",
      entries);
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_EQ(name_of(entries[0].dev_name), "eth0");
  EXPECT_EQ(entries[0].bytes, 200U);
  EXPECT_EQ(name_of(entries[1].dev_name), "eth0:1");
  EXPECT_EQ(entries[1].bytes, 30U);
}

TEST(net_devices, rates) {
  net_sample before;
  net_sample now;
  before.time_us = 1000000;
  now.time_us = 3000000;
  parse_net_dev(
      "lo: 0 0 0 0 0 0 0 0 0\neth0: 1000 0 0 0 0 0 0 0 24\nwlan0: 4294967000 0 0 0 0 0 0 0 9\n",
      before.entries);
  parse_net_dev(
      "lo: 0 0 0 0 0 0 0 0 0\neth0: 4096 0 0 0 0 0 0 0 1024\nwlan0: 50 0 0 0 0 0 0 0 9\n"
      "usb0: 5 0 0 0 0 0 0 0 5\n",
      now.entries);
  const std::vector<net_stat> stats = net_rates(&before, now);
  ASSERT_EQ(stats.size(), 4U);
  EXPECT_EQ(stats[0].rate, 0);
  EXPECT_EQ(stats[1].rate, 2);  // 4096 bytes in 2 s
  EXPECT_EQ(stats[1].total, 5120U);
  EXPECT_TRUE(std::isnan(stats[2].rate));  // went down
  EXPECT_EQ(stats[2].total, 59U);
  EXPECT_TRUE(std::isnan(stats[3].rate));  // new
  EXPECT_TRUE(std::isnan(net_rates(nullptr, now)[1].rate));
  EXPECT_TRUE(std::isnan(net_rates(&now, now)[1].rate));
  EXPECT_LT(read_net_sample(file_reader(fixture("board-4core")), now), 0);
  EXPECT_THAT(now.entries, IsEmpty());
}

}  // namespace
}  // namespace samplers
