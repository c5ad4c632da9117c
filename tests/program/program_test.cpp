// The command line, and connecting to the server.
#include <getopt.h>

#include <sstream>

#include "program_fixture.h"
#include "test_tools.h"

namespace {

using fake_mon_client::records;
using settings = program;
using init = program;

// The settings that the words lead to, those left out which are as at the start.
std::string parse(const std::string& command_line) {
  manager.~zorva_manage();
  new (&manager) zorva_manage;
  std::vector<std::string> words = {"zorva"};
  std::istringstream text(command_line);
  for (std::string word; std::getline(text, word, '|');) {
    words.push_back(word);
  }
  std::vector<char*> argv;
  for (std::string& word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  optind = 0;  // makes the C library start afresh
  opterr = 0;
  std::string ip = "-";
  int port = 1;
  std::ostringstream found;
  found << (parse_options(static_cast<int>(words.size()), argv.data(), ip, port) ? "" : "usage ")
        << (manager.tui_mode ? "tui " : "") << (manager.batch_mode ? "batch " : "")
        << (manager.thread_mode ? "threads " : "") << (manager.enable_perf ? "perf " : "")
        << (manager.enable_net ? "" : "no_net ") << ip << ' ' << port << " sort "
        << manager.sort_mode << " cycle " << manager.cycle_ms << ' ' << manager.file_name << ' '
        << manager.log_file;
  return found.str();
}

TEST_F(settings, command_lines) {
  const std::string rest = "- 1 sort 1 cycle 2000  ";
  const std::pair<const char*, std::string> rows[] = {
      {"some|words", "tui " + rest},
      {"-P|-H|-i|::1|-p|1|-p|99|-o|out|-l|log|-m|9|-d| +12ab",
       "tui threads perf ::1 99 sort 9 cycle 12 out log"},
      {"-t", rest},
      {"-b|-g", "tui batch " + rest},
      {"-g|-t|-b", "batch " + rest},
      {"-b|-t", rest},
      {"-n|x", "tui no_net " + rest},
      {"-n|0|-n|4294967296", "tui " + rest},  // 2^32 is 0 only once it is cut to an int
      {"-d|-5", "tui - 1 sort 1 cycle -5  "},
      {"-d|99999999999", "tui - 1 sort 1 cycle 1215752191  "},  // 23 * 2^32 + 1215752191
      {"-h", "usage tui " + rest},
      {"-H|-x|-P", "usage tui threads " + rest},
      {"-f|-P|-H", "usage tui " + rest},
      {"-b|-d", "usage batch " + rest},
  };
  for (const auto& [command_line, expected] : rows) {
    EXPECT_EQ(parse(command_line), expected) << command_line;
  }
}

TEST_F(init, result_and_calls_and_messages_in_order) {
  const std::string cpu = "cpu_stat_manager ::1 77\n";
  const std::string peri = cpu + "peri_stat_manager ::1 77\n";
  const std::string vio = peri + "bpu_ratio_manager ::1 77\nvio_info_manager ::1 77\n";
  const std::string net = vio + "net_stat_manager ::1 77\n";
  const std::string started = net + "start_net_monitor\n";
  const std::string enable = "enable_perf_mon\n";
  const std::string failed = "E Enable perf monitor failed";
  const std::string on = vio + enable;
  const std::string held =
      on + "W Perf monitor only support one client, force show in this client\ndisable_perf_mon\n";
  const std::string thrown = "E Exception caught: \"%s%n\" when constructor parse manager\n";
  struct {
    const char* settings;
    const char* script;
    int result;
    std::string records;
  } const rows[] = {
      {"", "", 0, vio},
      {"net perf", "", 0, started + enable},
      {"net perf", "cpu_stat_manager\tthrow=%s%n", -2, cpu + thrown},
      {"net perf", "peri_stat_manager\tthrow=%s%n", -2, peri + thrown},
      {"net perf", "net_stat_manager\tthrow=%s%n", -2, net + thrown},
      {"net perf", "start_net_monitor\tstatus=-7", -7, started + "E start_net_monitor failed\n"},
      {"net", "start_net_monitor\tstatus=3", 0, started},
      {"perf", "enable_perf_mon\tstatus=-5", -5, on + failed + ":-5\n"},
      {"perf", "enable_perf_mon\tstatus=-16,2\ndisable_perf_mon\tstatus=1", 0, held + enable},
      {"perf", "enable_perf_mon\tstatus=-16,0\ndisable_perf_mon\tstatus=-9", -9,
       held + "E Force disable perf monitor failed:-9\n"},
      {"perf", "enable_perf_mon\tstatus=-16", -16, held + enable + failed + ":-16\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.script);
    const std::string wanted = row.settings;
    zorva other;
    start_afresh();
    manager.enable_net = wanted.find("net") != std::string::npos;
    manager.enable_perf = wanted.find("perf") != std::string::npos;
    fake_mon_client::script(row.script);
    EXPECT_EQ(other.zorva_top_init("::1", 77), row.result);
    EXPECT_EQ(records(), row.records);
  }
}

TEST_F(init, output_file) {
  const temporary_folder folder;
  manager.file_name = folder.file("missing/out");
  EXPECT_EQ(monitor.zorva_top_init("127.0.0.1", 1234), -1);
  EXPECT_EQ(records(), "E Open target file failed\n");
  manager.file_name = folder.file("out");
  folder.write("out", "old ");
  EXPECT_EQ(monitor.zorva_top_init("127.0.0.1", 1234), 0);
  manager.out_file << "new" << std::flush;
  EXPECT_EQ(read_file(manager.file_name), "old new");
}

}  // namespace
