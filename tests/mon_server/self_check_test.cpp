// SPDX-License-Identifier: Apache-2.0
// mon_server --check on a board that has everything, and on the same board with one thing missing.
#include "self_check/self_check.h"

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <sstream>

#include "running_server.h"
#include "test_tools.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

struct complete_board : temporary_folder {
  complete_board() {
    std::filesystem::copy(ZORVA_FIXTURES "/cpu64", path, std::filesystem::copy_options::recursive);
    write("proc/stat", "cpu  2 0 2 80 0 0 0\ncpu0 1 0 1 40 0 0 0\ncpu63 1 0 1 40 0 0 0\n");
    write("proc/loadavg", "0.20 0.18 0.12 2/80 11206\n");
    for (const char* resource : {"cpu", "io", "memory"}) {
      write(std::string("proc/pressure/") + resource, "some avg10=0.00 total=5\n");
    }
    write("sys/kernel/debug/dma_buf/bufinfo", "Total 1 objects, 4096 bytes\n");
    write("proc/sys/kernel/osrelease", "5.10.66\n");
    configure("CONFIG_PSI=y\nCONFIG_DMA_SHARED_BUFFER=y\n");
  }
  void configure(const std::string& options) const {
    gzFile packed = gzopen(file("proc/config.gz").c_str(), "wb");
    gzputs(packed, options.c_str());
    gzclose(packed);
  }
  void remove(const std::string& name) const { std::filesystem::remove_all(file(name)); }
  // Without the counters, which are of the machine that the test runs on.
  std::vector<finding> check() const {
    std::vector<finding> all = check_all(reading(path));
    const auto is_counter = [](const finding& one) {
      return one.family.find("counters") != std::string::npos;
    };
    all.erase(std::remove_if(all.begin(), all.end(), is_counter), all.end());
    return all;
  }
};

struct fault {
  const char* family;
  verdict expected;
  const char* text;  // in the table
  std::function<void(const complete_board&)> make;
};

const fault faults[] = {
    {"CPU", verdict::lack, "there is no /proc/stat",
     [](auto& board) { board.remove("proc/stat"); }},
    {"memory", verdict::lack, "/proc is empty",
     [](auto& board) {
       board.remove("proc");
       std::filesystem::create_directory(board.file("proc"));
     }},
    {"CPU frequency", verdict::less, "(1 of 2 CPUs)",
     [](auto& board) { board.remove("sys/devices/system/cpu/cpu63/cpufreq"); }},
    {"CPU frequency", verdict::lack, "CONFIG_CPU_FREQ is off in this kernel",
     [](auto& board) { board.remove("sys/devices"); }},
    {"pressure", verdict::lack, "CONFIG_PSI is off in this kernel",
     [](auto& board) {
       board.remove("proc/pressure");
       board.configure("# CONFIG_PSI is not set\nCONFIG_PSI_DEFAULT_DISABLED=y\n");
     }},
    {"pressure", verdict::lack, "boot the kernel with psi=1",
     [](auto& board) { board.remove("proc/pressure"); }},
    {"pressure", verdict::none, "needs Linux 4.20 or later, this is 4.19.1-rt",
     [](auto& board) {
       board.remove("proc/pressure");
       board.write("proc/sys/kernel/osrelease", "4.19.1-rt\n");
     }},
    {"pressure", verdict::less,
     "there is no /proc/pressure/io do:", [](auto& board) { board.remove("proc/pressure/io"); }},
    {"temperatures", verdict::less, "no figure of ?[31mhot: no number in its file",
     [](auto& board) {
       board.write("sys/class/thermal/thermal_zone0/type", "\x1b[31mhot\n");
       board.write("sys/class/thermal/thermal_zone0/temp", "off\n");
     }},
    {"temperatures", verdict::lack, "CONFIG_THERMAL is off",
     [](auto& board) { board.remove("sys/class"); }},
    {"temperatures", verdict::lack, "CONFIG_THERMAL is a module",
     [](auto& board) {
       board.remove("sys/class");
       board.configure("CONFIG_THERMAL=m\n");
     }},
    {"temperatures", verdict::none, "no driver has a zone",
     [](auto& board) {
       board.remove("sys/class/thermal");
       std::filesystem::create_directory(board.file("sys/class/thermal"));
     }},
    {"ION", verdict::less, "mount -t debugfs",
     [](auto& board) { board.remove("sys/kernel/debug/dma_buf"); }},
    {"ION", verdict::ok, "/proc/meminfo (1 heap)",
     [](auto& board) {
       board.remove("sys/kernel/debug/dma_buf");
       board.configure("# CONFIG_DMA_SHARED_BUFFER is not set\n");
     }},
    {"command lines", verdict::lack, "not without processes",
     [](auto& board) {
       for (const char* process : {"proc/1", "proc/42", "proc/300"}) {
         board.remove(process);
       }
     }},
};

// The words of a table with one blank between two of them.
std::string unwrapped(const std::string& table) {
  std::istringstream words(table);
  std::string text;
  for (std::string word; words >> word;) {
    text += word + ' ';
  }
  return text;
}

TEST(self_check, tells_what_a_board_lacks_and_what_helps) {
  const complete_board complete;
  const std::vector<finding> all = complete.check();
  EXPECT_THAT(all, SizeIs(20));
  EXPECT_EQ(check_status(all), 0) << check_text(all);
  for (const fault& one : faults) {
    const complete_board board;
    one.make(board);
    const std::vector<finding> found = board.check();
    EXPECT_THAT(found, SizeIs(all.size())) << "no family goes unmentioned";
    const auto family = std::find_if(
        found.begin(), found.end(), [&](const finding& each) { return each.family == one.family; });
    ASSERT_NE(family, found.end());
    const std::string text = unwrapped(check_text({*family}));
    EXPECT_EQ(verdict_of(*family), one.expected) << text;
    EXPECT_THAT(text, HasSubstr(one.text));
    const bool is_bad = one.expected == verdict::less || one.expected == verdict::lack;
    EXPECT_EQ(check_status(found), is_bad ? 1 : 0) << check_text(found);
    EXPECT_EQ(text.find("do:") != std::string::npos, is_bad) << "a remedy for each fault";
  }
}

TEST(self_check, names_the_files_of_a_board_folder) {
  const complete_board board;
  board.write("folder/bpu/core0", "37\n");
  board.write("folder/vio/isp0", "driver is off\n");
  server_options options = reading(board.path);
  options.board = board.file("folder");
  const std::string text = unwrapped(check_text(check_all(options)));
  EXPECT_THAT(text, HasSubstr("ok BPU cores " + options.board + "/bpu (1 core)"));
  EXPECT_THAT(text, HasSubstr("no figure of isp0: no number in its file"));
}

// What the kernel answers for want of something that a test cannot take away.
TEST(self_check, reasons_follow_from_the_error_the_version_and_the_options) {
  const complete_board board;
  const samplers::file_reader machine(board.path);
  const auto why = [&machine](const auto& obstacle_of, int error) {
    kernel_facts kernel(machine);
    return obstacle_of(kernel, error).why;
  };
  board.configure("CONFIG_INET_DIAG=m\nCONFIG_INET_TCP_DIAG=y\n# CONFIG_PERF_EVENTS is not set\n");
  EXPECT_THAT(why(sockets_obstacle, -EOPNOTSUPP), HasSubstr("CONFIG_INET_DIAG is a module"));
  EXPECT_THAT(why(sockets_obstacle, -EAFNOSUPPORT), Not(HasSubstr("CONFIG")));
  EXPECT_THAT(why(counters_obstacle, -ENOSYS), HasSubstr("CONFIG_PERF_EVENTS is off"));
  board.write("proc/sys/kernel/perf_event_paranoid", "3\n");
  EXPECT_THAT(why(counters_obstacle, -EMFILE), HasSubstr("too few descriptors"));
  board.write("proc/sys/kernel/osrelease", "5.4.0\n");
  kernel_facts old(machine);
  EXPECT_EQ(bpf_obstacle(old, {-EINVAL, ""}).why, "needs Linux 5.8 or later, this is 5.4.0");
  EXPECT_EQ(counters_obstacle(old, -EACCES).remedy, "sysctl kernel.perf_event_paranoid=0");
  EXPECT_FALSE(old.is_before(5, 4));
  EXPECT_FALSE(old.is_before(4, 20));
  EXPECT_TRUE(old.is_before(5, 10));
}

// As a script sees it, beside a server on the port that this one would take.
TEST(self_check, program_prints_what_any_console_shows_and_ends_with_its_status) {
#ifdef CROSS_COMPILED
  GTEST_SKIP() << "an emulated process cannot start a program of the emulated machine";
#endif
  const complete_board board;
  board.write("sys/class/thermal/thermal_zone0/type", "\x1b[2J\xc3\xa4");
  board.write("sys/class/thermal/thermal_zone0/temp", "off");
  const running_server other;
  const std::string command = std::string(MON_SERVER) + " --check --port " +
                              std::to_string(other.port) + " --sysroot " + board.path;
  FILE* const output = popen(command.c_str(), "r");
  std::string text;
  char piece[4096];
  for (size_t size = 0; (size = fread(piece, 1, sizeof piece, output)) > 0;) {
    text.append(piece, size);
  }
  const int status = pclose(output);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_THAT(text, HasSubstr("less  temperatures"));
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    EXPECT_LE(line.size(), 80) << line;
    EXPECT_TRUE(std::all_of(line.begin(), line.end(), [](char c) { return c >= ' ' && c <= '~'; }))
        << line;
  }
}

}  // namespace
