// Connecting to the server, and the size of the terminal.
#include <fcntl.h>
#include <unistd.h>

#include <fstream>

#include "child_process.h"
#include "program_fixture.h"

namespace {

using init = program;

const std::string cpu = "cpu_stat_manager ::1 77\n";
const std::string peri = cpu + "peri_stat_manager ::1 77\n";
const std::string bpu = peri + "bpu_ratio_manager ::1 77\n";
const std::string vio = bpu + "vio_info_manager ::1 77\n";
const std::string net = vio + "net_stat_manager ::1 77\n";
const std::string started = net + "start_net_monitor\n";
const std::string enable = "enable_perf_mon\n";
const std::string held =
    "5 ZORVA Perf monitor only support one client, force show in this client|\ndisable_perf_mon\n";

std::string thrown(const std::string& text) {
  return "6 ZORVA Exception caught: \"" + text + "\" when constructor parse manager|\n";
}

TEST_F(init, result_and_calls_and_messages_in_order) {
  struct {
    const char* settings;
    const char* script;
    int result;
    std::string records;
  } const rows[] = {
      {"", "", 0, vio},
      {"net", "", 0, started},
      {"net perf", "", 0, started + enable},
      {"net perf", "cpu_stat_manager\tthrow=no", -2, cpu + thrown("no")},
      {"net perf", "peri_stat_manager\tthrow=%s%n", -2, peri + thrown("%s%n")},
      {"net perf", "bpu_ratio_manager\tthrow=x", -2, bpu + thrown("x")},
      {"net perf", "vio_info_manager\tthrow=x", -2, vio + thrown("x")},
      {"net perf", "net_stat_manager\tthrow=x", -2, net + thrown("x")},
      {"net perf", "start_net_monitor\tstatus=-7", -7,
       started + "6 ZORVA start_net_monitor failed|\n"},
      {"net", "start_net_monitor\tstatus=3", 0, started},
      {"perf", "enable_perf_mon\tstatus=-5", -5,
       vio + enable + "6 ZORVA Enable perf monitor failed:-5|\n"},
      {"perf", "enable_perf_mon\tstatus=-16,2\ndisable_perf_mon\tstatus=1", 0,
       vio + enable + held + enable},
      {"perf", "enable_perf_mon\tstatus=-16,0\ndisable_perf_mon\tstatus=-9", -9,
       vio + enable + held + "6 ZORVA Force disable perf monitor failed:-9|\n"},
      {"perf", "enable_perf_mon\tstatus=-16", -16,
       vio + enable + held + enable + "6 ZORVA Enable perf monitor failed:-16|\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.script);
    const std::string on = row.settings;
    zorva other;
    start_afresh();
    manager.enable_net = on.find("net") != std::string::npos;
    manager.enable_perf = on.find("perf") != std::string::npos;
    fake_mon_client::script(row.script);
    EXPECT_EQ(other.zorva_top_init("::1", 77), row.result);
    EXPECT_EQ(fake_mon_client::records(), row.records);
  }
}

TEST_F(init, output_file) {
  const temporary_folder folder;
  manager.file_name = folder.file("missing/out");
  EXPECT_EQ(monitor.zorva_top_init("127.0.0.1", 1234), -1);
  EXPECT_EQ(fake_mon_client::records(), "6 ZORVA Open target file failed|\n");

  manager.file_name = folder.file("out");
  std::ofstream(manager.file_name) << "old ";
  EXPECT_EQ(monitor.zorva_top_init("127.0.0.1", 1234), 0);
  manager.out_file << "new" << std::flush;
  EXPECT_EQ(read_file(manager.file_name), "old new");
}

TEST_F(init, terminal_size) {
  const pseudo_terminal terminal(37, 121);
  int result = 0;
  const auto ask = [&] { result = monitor.get_terminal_size(); };
  with_redirected(STDOUT_FILENO, terminal.slave, ask);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(monitor.tsize.ws_row, 37);
  EXPECT_EQ(monitor.tsize.ws_col, 121);

  const int nothing = open("/dev/null", O_WRONLY | O_CLOEXEC);
  testing::internal::CaptureStderr();
  with_redirected(STDOUT_FILENO, nothing, ask);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed to get terminal size\n");
  close(nothing);
  EXPECT_EQ(result, 1);
  EXPECT_EQ(monitor.tsize.ws_row, 37);
}

}  // namespace
