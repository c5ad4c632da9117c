#include "samplers/board.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cmath>

#include "sampler_test.h"
#include "samplers/ion.h"
#include "samplers/memory.h"
#include "samplers/partitions.h"
#include "samplers/thermal.h"

namespace samplers {
namespace {

TEST(board, figures_in_natural_order) {
  const file_reader machine(fixture("board-4core"));
  const file_reader board(fixture("board-4core/board"));
  std::vector<bpu_stat> cores;
  ASSERT_EQ(read_bpu(machine, &board, cores), 0);
  ASSERT_EQ(cores.size(), 3U);  // the hidden file is not one
  EXPECT_EQ(name_of(cores[0].name), "bpu0");
  EXPECT_FLOAT_EQ(cores[0].bpu_rat, 37.5);
  EXPECT_EQ(name_of(cores[1].name), "bpu2");
  EXPECT_TRUE(std::isnan(cores[1].bpu_rat));  // holds no number
  EXPECT_EQ(name_of(cores[2].name), "bpu10");

  std::vector<vio_stat> pipelines;
  ASSERT_EQ(read_vio(&board, pipelines), 0);
  ASSERT_EQ(pipelines.size(), 4U);
  EXPECT_TRUE(std::isnan(pipelines[0].fps));  // empty
  EXPECT_EQ(pipelines[1].fps, 0);             // idle
  EXPECT_FLOAT_EQ(pipelines[2].fps, 29.97F);
  EXPECT_EQ(name_of(pipelines[3].name), "vpu-encoder-with-a-rather-long-n");
}

TEST(board, without_a_folder) {
  const file_reader machine(fixture("board-4core"));
  std::vector<bpu_stat> cores;
  ASSERT_EQ(read_bpu(machine, nullptr, cores), 0);
  ASSERT_EQ(cores.size(), 1U);
  EXPECT_EQ(name_of(cores[0].name), "3d00000.npu");
  EXPECT_EQ(cores[0].bpu_rat, 37);
  const file_reader gone("/nonexistent");
  std::vector<vio_stat> pipelines;
  EXPECT_EQ(read_vio(nullptr, pipelines), -ENOENT);
  EXPECT_EQ(read_vio(&gone, pipelines), -ENOENT);
  EXPECT_EQ(read_bpu(gone, &gone, cores), -ENOENT);
}

// Opening or reading a FIFO that nobody writes to would hang the server.
TEST(board, fifo_folder_dangling_link_and_negative_figure_are_unknown) {
  const temporary_tree tree;
  tree.write("vio/a", "-3\n");
  tree.write("vio/b/figure", "1\n");
  ASSERT_EQ(mkfifo((tree.root + "/vio/c").c_str(), 0600), 0);
  std::filesystem::create_symlink("/nonexistent/fps", tree.root + "/vio/d");
  tree.write("vio/e", "1e300");
  for (int i = 0; i < 70; ++i) {
    tree.write("vio/f" + std::to_string(i), "5");
  }
  const file_reader board(tree.root);
  std::vector<vio_stat> pipelines;
  ASSERT_EQ(read_vio(&board, pipelines), 0);
  ASSERT_EQ(pipelines.size(), 64U);
  for (int i = 0; i < 5; ++i) {
    EXPECT_TRUE(std::isnan(pipelines[i].fps)) << i;
  }
  EXPECT_EQ(pipelines[5].fps, 5);
}

TEST(thermal, zones_then_cooling_devices_by_number) {
  std::vector<thermal_stat> stats;
  ASSERT_EQ(read_thermal(file_reader(fixture("board-4core")), stats), 0);
  ASSERT_EQ(stats.size(), 5U);
  EXPECT_EQ(name_of(stats[0].name), "cpu-thermal");
  EXPECT_EQ(stats[0].temp, 45200U);
  EXPECT_EQ(stats[0].stat, unknown_u64);
  EXPECT_EQ(name_of(stats[1].name), "cpu-thermal");  // zone 1 cannot be read and stays
  EXPECT_EQ(stats[1].temp, unknown_u64);
  EXPECT_EQ(static_cast<int64_t>(stats[2].temp), -15500);
  EXPECT_EQ(name_of(stats[3].name), "freezing");
  EXPECT_EQ(stats[3].temp, 0U);  // -1 would read as unknown
  EXPECT_EQ(stats[4].kind, thermal_cooling);
  EXPECT_EQ(name_of(stats[4].name), "thermal-cpufreq-with-a-l");
  EXPECT_EQ(stats[4].stat, 3U);
  EXPECT_EQ(stats[4].temp, unknown_u64);
}

TEST(memory, lines_that_are_missing_are_unknown) {
  meminfo info{};
  ASSERT_EQ(read_meminfo(file_reader(fixture("board-4core")), info), 0);
  EXPECT_EQ(info.memTotal, 4040000U);
  EXPECT_EQ(info.memAvailable, unknown_u64);
  EXPECT_EQ(info.cached, 900000U);  // not SwapCached
  EXPECT_EQ(info.file, unknown_u64);
  ASSERT_EQ(read_meminfo(file_reader(fixture("cpu64")), info), 0);
  EXPECT_EQ(info.memAvailable, 52000000U);
  EXPECT_EQ(info.file, 9500000U);
  EXPECT_EQ(info.anon, 2400000U);
  EXPECT_LT(read_meminfo(file_reader("/nonexistent"), info), 0);
  EXPECT_EQ(info.memTotal, unknown_u64);
}

TEST(ion, first_source_that_there_is) {
  const file_reader machine(fixture("board-4core"));
  const file_reader board(fixture("board-4core/board"));
  std::vector<ion_info> heaps;
  ASSERT_EQ(read_ion(machine, &board, heaps), 0);
  ASSERT_EQ(heaps.size(), 2U);
  EXPECT_EQ(heaps[0].used, unknown_u64);
  EXPECT_EQ(name_of(heaps[1].ion_name), "cma");
  EXPECT_EQ(heaps[1].used, 67108864U);
  ASSERT_EQ(read_ion(machine, nullptr, heaps), 0);
  ASSERT_EQ(heaps.size(), 2U);                 // not the shrinker
  EXPECT_EQ(heaps[0].used, 16777216U);         // the total, not the client of that name
  EXPECT_EQ(heaps[1].used, 3U * 1024 * 1024);  // no total: the clients
  ASSERT_EQ(read_ion(file_reader(fixture("cpu64")), nullptr, heaps), 0);
  ASSERT_EQ(heaps.size(), 1U);
  EXPECT_EQ(heaps[0].used, 65536U * 1024);  // CMA of 262144 KiB, 196608 free
  EXPECT_EQ(read_ion(file_reader("/nonexistent"), nullptr, heaps), -ENOENT);
}

TEST(ion, texts_of_debugfs) {
  EXPECT_EQ(parse_dma_buf_total("Dma-buf Objects:\nsize flags mode count exp_name\n"
                                "00008192 0002 0007 00000003 ion\n\tAttached Devices:\n"
                                "Total 0 devices attached\n\n\nTotal 1 objects, 00008192 bytes\n"),
            8192U);
  EXPECT_EQ(parse_dma_buf_total("Total 0 devices attached\n"), unknown_u64);
  EXPECT_EQ(parse_ion_heap("garbage\n"), unknown_u64);
  EXPECT_EQ(parse_ion_heap("client pid size\n"), 0U);
}

TEST(partitions, failure_and_pseudo_file_systems_are_unknown) {
  part_info part{};
  ASSERT_EQ(read_partition("/", part), 0);
  EXPECT_LE(part.blocks_used + part.f_bavail, part.f_blocks);
  EXPECT_EQ(read_partition("/nonexistent", part), -ENOENT);
  EXPECT_EQ(name_of(part.part_name), "/nonexistent");
  EXPECT_EQ(part.f_blocks, unknown_u64);
  EXPECT_LT(read_partition("/proc", part), 0);
  EXPECT_EQ(part.blocks_used, unknown_u64);
}

}  // namespace
}  // namespace samplers
