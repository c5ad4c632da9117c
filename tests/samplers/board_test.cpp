// SPDX-License-Identifier: Apache-2.0
#include "samplers/board.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "sampler_test.h"
#include "samplers/ion.h"
#include "samplers/memory.h"
#include "samplers/mounts.h"
#include "samplers/partitions.h"
#include "samplers/thermal.h"

namespace samplers {
namespace {

const file_reader machine = fixture("board-4core");
const file_reader board = fixture("board-4core/board");
const file_reader nothing("/nonexistent");

std::string bpu(const file_reader& root, const file_reader* folder) {
  std::vector<bpu_stat> cores;
  EXPECT_EQ(read_bpu(root, folder, cores), 0);
  return rows(cores, [](const bpu_stat& one) { return row(one.name, one.bpu_rat); });
}

std::string vio(const file_reader& folder) {
  std::vector<vio_stat> pipelines;
  EXPECT_EQ(read_vio(&folder, pipelines), 0);
  return rows(pipelines, [](const vio_stat& one) { return row(one.name, one.fps); });
}

TEST(board, figures_in_natural_order) {
  EXPECT_EQ(bpu(machine, &board), "bpu0 37.5\nbpu2 -\nbpu10 99\n");
  EXPECT_EQ(vio(board), "empty -\nidle 0\nisp0 29.97\nvpu-encoder-with-a-rather-long-n 60\n");
  EXPECT_EQ(bpu(machine, nullptr), "3d00000.npu 37\n");
  std::vector<vio_stat> none;
  EXPECT_EQ(read_vio(&nothing, none), -ENOENT);
}

// Opening or reading a FIFO that nobody writes to would hang the server.
TEST(board, fifo_folder_dangling_link_and_negative_figure_are_unknown) {
  const temporary_folder tree;
  tree.write("vio/a", "-3\n");
  tree.write("vio/b/figure", "1\n");
  ASSERT_EQ(mkfifo(tree.file("vio/c").c_str(), 0600), 0);
  std::filesystem::create_symlink("/nonexistent/fps", tree.file("vio/d"));
  tree.write("vio/e", "1e300");
  std::string expected = "a -\nb -\nc -\nd -\ne -\n";
  for (int i = 0; i < 70; ++i) {
    tree.write("vio/f" + std::to_string(i), "5");
    expected += i < 59 ? "f" + std::to_string(i) + " 5\n" : "";  // 64 in all
  }
  EXPECT_EQ(vio(file_reader(tree.path)), expected);
}

TEST(thermal, zones_then_cooling_devices_by_number) {
  std::vector<thermal_stat> stats;
  ASSERT_EQ(read_thermal(machine, stats), 0);
  const auto show = [](const thermal_stat& one) {
    return row(one.name, static_cast<int64_t>(one.temp), one.stat, one.kind);
  };
  // Zone 1 cannot be read and stays; the freezing one's -1 would read as unknown.
  EXPECT_EQ(rows(stats, show),
            "cpu-thermal 45200 - 0\ncpu-thermal - - 0\noutdoor -15500 - 0\nfreezing 0 - 0\n"
            "thermal-cpufreq-with-a-l - 3 1\n");
}

TEST(memory, lines_that_are_missing_are_unknown) {
  memory_sample sample;
  const meminfo& info = sample.info;
  const auto show = [&] { return row(info.memTotal, info.memAvailable, info.cached, info.file); };
  ASSERT_EQ(read_memory_sample(machine, sample), 0);
  EXPECT_EQ(show(), "4040000 - 900000 -\n");  // not SwapCached
  ASSERT_EQ(read_memory_sample(fixture("cpu64"), sample), 0);
  EXPECT_EQ(show(), "65536000 52000000 9000000 9500000\n");
  EXPECT_EQ(info.anon, 2400000U);
  EXPECT_LT(read_memory_sample(nothing, sample), 0);
  EXPECT_EQ(show(), "- - - -\n");
}

TEST(ion, first_source_that_there_is) {
  const auto heaps_of = [](const file_reader& root, const file_reader* folder) {
    std::vector<ion_info> heaps;
    EXPECT_EQ(read_ion(root, folder, heaps), 0);
    return rows(heaps, [](const ion_info& one) { return row(one.ion_name, one.used); });
  };
  EXPECT_EQ(heaps_of(machine, &board), "broken -\ncma 67108864\n");
  // Not the shrinker; the total, not the client of that name; without a total the clients.
  EXPECT_EQ(heaps_of(machine, nullptr), "carveout 16777216\nsystem 3145728\n");
  EXPECT_EQ(heaps_of(fixture("cpu64"), nullptr), "cma 67108864\n");  // 262144 KiB, 196608 free
  std::vector<ion_info> none;
  EXPECT_EQ(read_ion(nothing, nullptr, none), -ENOENT);
  EXPECT_EQ(parse_ion_heap("garbage\n"), unknown_u64);
  EXPECT_EQ(parse_dma_buf_total("Dma-buf Objects:\n00008192 0002 0007 00000003 ion\n"
                                "Total 0 devices attached\n\n\nTotal 1 objects, 00008192 bytes\n"),
            8192U);
}

TEST(mounts, of_paths_are_told_without_touching_them) {
  const samplers::mount_table mounts(
      "22 1 8:1 / / rw shared:1 - ext4 /dev/sda1 rw\n"
      "23 22 0:5 / /proc rw - proc proc rw\n"
      "24 22 8:2 / /mnt/a\\040b rw - ext4 /dev/sda2 rw\n"
      "25 24 8:3 / /mnt/a\\040b/in rw - ext4 /dev/sda3 rw\n"
      "26 22 0:6 / /proc rw - tmpfs none rw\n"
      "27 22 8:2 /x /bound rw - ext4 /dev/sda2 rw\n");
  const struct {
    const char* path;
    const char* normal;
    const char* device;
  } rows[] = {
      {"/", "/", "8:1"},
      {"//./../", "/", "8:1"},
      {"/proc/stat", "/proc/stat", "0:6"},
      {"/process", "/process", "8:1"},
      {"/mnt//a b/.", "/mnt/a b", "8:2"},
      {"/mnt/a b/in/../in/x/", "/mnt/a b/in/x", "8:3"},
      {"/mnt/a b/in/..", "/mnt/a b", "8:2"},
      {"/bound/...", "/bound/...", "8:2"},
      {"log", "", "8:1"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(samplers::normal_path(row.path), row.normal);
    EXPECT_EQ(mounts.find(row.normal).device, row.device) << row.path;
  }
}

// In a process with mounts of its own, which nobody else sees.
TEST(mounts, a_change_is_seen_at_once) {
  const temporary_folder tree;
  const std::string path = std::filesystem::canonical(tree.path);
  constexpr int no_right = 77;
  const pid_t pid = fork();
  if (pid == 0) {
    if (unshare(CLONE_NEWNS) != 0 || mount("", "/", "", MS_REC | MS_PRIVATE, nullptr) != 0) {
      _exit(no_right);
    }
    current_mounts mounts;
    const auto device = [&] { return mounts.get()->find(path).device; };
    const auto at_first = mounts.get();
    const std::string before = device();
    bool good = mounts.get() == at_first;  // nothing has changed: not read again
    for (int i = 0; i < 3; ++i) {
      good = good && mount("", path.c_str(), "tmpfs", 0, nullptr) == 0 && device() != before &&
             umount(path.c_str()) == 0 && device() == before;
    }
    _exit(good ? 0 : 1);
  }
  int status = -1;
  waitpid(pid, &status, 0);
  if (WEXITSTATUS(status) == no_right) {
    GTEST_SKIP() << "only root may mount";
  }
  EXPECT_EQ(status, 0);
}

// Links are followed up to where another mount begins, and no further: it may be dead.
TEST(mounts, links_are_followed_on_their_own_mount) {
  const temporary_folder tree;
  const std::string root = std::filesystem::canonical(tree.path);
  tree.write("data/file", "");
  tree.link("near", "data/../data");
  tree.link("far", root + "/dead/x");
  tree.link("data/up", "../far/./y");
  tree.link("loop", "loop");
  const samplers::mount_table mounts("1 1 8:1 / / rw\n2 1 0:9 / " + root + "/dead rw\n");
  const struct {
    const char* path;
    int status;
    const char* leads_to;
  } rows[] = {
      {"/data/file", 0, "/data/file"},  {"/near/file", 0, "/data/file"}, {"/far", 0, "/dead/x"},
      {"/near/up/z", 0, "/dead/x/y/z"}, {"/none", -ENOENT, "/none"},     {"/loop", -ELOOP, "/loop"},
  };
  for (const auto& row : rows) {
    std::string path = root + row.path;
    EXPECT_EQ(samplers::follow_links(mounts, path), row.status) << row.path;
    EXPECT_EQ(path, root + row.leads_to);
  }
}

TEST(partitions, failure_and_pseudo_file_systems_are_unknown) {
  part_info part{};
  ASSERT_EQ(read_partition("/", part), 0);
  EXPECT_LE(part.blocks_used + part.f_bavail, part.f_blocks);
  EXPECT_EQ(read_partition("/nonexistent", part), -ENOENT);
  EXPECT_EQ(row(part.part_name, part.f_blocks), "/nonexistent -\n");
  EXPECT_LT(read_partition("/proc", part), 0);
}

}  // namespace
}  // namespace samplers
