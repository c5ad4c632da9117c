// The keyboard loop, driven through a pipe or a terminal in place of standard input.
#include <fcntl.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

#include "child_process.h"
#include "program_fixture.h"

namespace {

class keyboard : public program {
 protected:
  keyboard() { connect(); }

  // Runs the loop on these bytes and then `q`.
  static void press(const std::string& keys) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const std::string typed = keys + "qc";  // nothing is acted on after q
    ASSERT_EQ(write(ends[1], typed.data(), typed.size()), static_cast<ssize_t>(typed.size()));
    with_redirected(STDIN_FILENO, ends[0], zorva_manage::read_input);
    close(ends[0]);
    close(ends[1]);
    __fpurge(stdin);
  }

  static std::string settings() {
    return "sort " + std::to_string(manager.sort_mode) + (manager.thread_mode ? " threads" : "") +
           (manager.enable_perf ? " perf" : "") + (manager.flush_now ? " flush" : "") +
           (manager.to_exit ? " exit" : "");
  }
};

TEST_F(keyboard, settings_and_calls_and_messages_in_order) {
  const std::string by_cpu = "4 ZORVA Sort by CPU usage|\n";
  const std::string by_ram = "4 ZORVA Sort by ram rss|\n";
  const std::string to_threads = "4 ZORVA Switch to thread mode|\ncpu_mon_exit\n";
  const std::string to_processes = "4 ZORVA Switch to process mode|\ncpu_mon_exit\n";
  const std::string perf_on = "4 ZORVA Enable perf monitor|\nenable_perf_mon\n";
  const std::string held =
      "5 ZORVA Perf monitor only support one client, force show in this client|\n"
      "disable_perf_mon\n";
  struct {
    std::string keys;
    const char* script;
    const char* settings;
    std::string records;
  } const rows[] = {
      {std::string("hCQ \n\0\xff", 7), "", "sort 1 exit", ""},
      {"rcc", "", "sort 1 exit", by_ram + by_cpu + by_cpu},
      {"b", "", "sort 2 exit", "4 ZORVA Sort by BPU usage|\n"},
      {"i", "", "sort 3 exit", "4 ZORVA Sort by io|\n"},
      {"n", "", "sort 4 exit", "4 ZORVA Sort by net|\n"},
      {"r", "", "sort 5 exit", by_ram},
      {"P", "", "sort 1 exit", ""},
      {"HH", "", "sort 1 threads flush exit", to_threads},
      {"H", "cpu_mon_exit\tstatus=-5", "sort 1 threads flush exit",
       to_threads + "6 ZORVA get_process_all reset failed|\n"},
      // A function key whose last byte is a key of its own.
      {"H\x1bOP", "", "sort 1 flush exit", to_threads + to_processes},
      {"p", "", "sort 1 perf flush exit", perf_on},
      {"p", "enable_perf_mon\tstatus=-16,0", "sort 1 perf flush exit",
       perf_on + held + "enable_perf_mon\n"},
      {"p", "enable_perf_mon\tstatus=-16\ndisable_perf_mon\tstatus=-2", "sort 1 exit",
       perf_on + held + "6 ZORVA Force disable perf monitor failed:-2|\n"},
      {"p", "enable_perf_mon\tstatus=-1", "sort 1 exit",
       perf_on + "6 ZORVA Enable perf monitor failed:-1|\n"},
      {"pp", "disable_perf_mon\tstatus=-1", "sort 1 flush exit", perf_on + "disable_perf_mon\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.keys) + ' ' + row.script);
    start_afresh();
    fake_mon_client::script(row.script);
    press(row.keys);
    EXPECT_EQ(settings(), row.settings);
    EXPECT_EQ(fake_mon_client::records(), row.records);
  }
}

TEST_F(keyboard, perf_off_asks_for_no_early_refresh) {
  manager.enable_perf = true;
  press("p");
  EXPECT_EQ(settings(), "sort 1 exit");
  EXPECT_EQ(fake_mon_client::records(), "disable_perf_mon\n");
}

// A terminal may be shared with a program that made it non-blocking: no key yet is not the end.
TEST_F(keyboard, q_puts_back_the_attributes_that_were_found) {
  for (const int flags : {0, O_NONBLOCK}) {
    const pseudo_terminal terminal;
    terminal.set_local_modes(ICANON | ECHO | ECHOE);
    const termios found = terminal.attributes();
    fcntl(terminal.slave, F_SETFL, O_RDWR | flags);
    with_redirected(STDIN_FILENO, terminal.slave, [&] {
      std::thread loop(zorva_manage::read_input);
      EXPECT_TRUE(wait_until([&] { return terminal.attributes().c_lflag == ECHOE; }));
      EXPECT_EQ(terminal.attributes().c_cc[VMIN], found.c_cc[VMIN]);
      terminal.type("q");
      loop.join();
    });
    EXPECT_EQ(terminal.attributes().c_lflag, found.c_lflag) << "flags " << flags;
    EXPECT_EQ(fake_mon_client::records(), "");
  }
}

}  // namespace
