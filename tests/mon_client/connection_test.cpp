// SPDX-License-Identifier: Apache-2.0
// The client library against servers that are away, silent, broken or hostile.
#include <gtest/gtest.h>
#include <netdb.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <sstream>

#include "bpu_ratio_manager.h"
#include "cpu_stat_manager.h"
#include "mon_records.h"
#include "net_stat_manager.h"
#include "peri_stat_manager.h"
#include "scripted_server.h"
#include "vio_info_manager.h"
#include "wrong_headers.h"

namespace {

constexpr char loopback[] = "127.0.0.1";

bytes answer_to(message_header header, int32_t status = 0, const bytes& payload = {}) {
  header.type = mon_protocol::type_answer;
  header.status = status;
  header.client_id = 1;
  return message_of(header, payload);
}

// Answers each "hello" and leaves the rest to `answer`, which gives no bytes to hang up.
auto after_hello(const std::function<bytes(const message_header&)>& answer) {
  return [answer](tcp::socket& client) {
    message_header request{};
    while (read_message(client, request)) {
      const bool hello = request.command == mon_protocol::cmd_connection;
      const bytes message = hello ? answer_to(request) : answer(request);
      if (message.empty() || !send_bytes(client, message)) {
        return;
      }
    }
  };
}

std::string thrown_by(const std::string& host, int port) {
  try {
    client_comm comm(host, port);
  } catch (const char* text) {
    return text;
  }
  return "nothing";
}

TEST(connect, failures_say_where_and_why) {
  const scripted_server silent(read_to_end);
  const scripted_server web([](tcp::socket& client) {
    const std::string text = "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n";
    send_bytes(client, bytes(text.begin(), text.end()));
    read_to_end(client);
  });
  const scripted_server closing([](tcp::socket& client) {
    message_header hello{};
    read_message(client, hello);
  });
  const scripted_server full([](tcp::socket& client) {
    message_header hello{};
    read_message(client, hello);
    send_bytes(client, answer_to(hello, -EUSERS));
  });
  const int unused = scripted_server(read_to_end).port;
  const struct {
    const char* host;
    int port;
    const char* why;
  } rows[] = {
      {loopback, unused, "Connection refused"},
      {loopback, 70000, "not a TCP port (1 to 65535)"},
      {"::1", -1, "not a TCP port (1 to 65535)"},
      {"no-such-host.invalid", 1234, ""},
      {loopback, silent.port, "no monitor server answers there: Connection timed out"},
      {loopback, web.port, "no monitor server answers there: Bad message"},
      {loopback, closing.port, "closed the connection without an answer (is it a monitor server?)"},
      {loopback, full.port, "the monitor server is full (64 connections)"},
  };
  for (const auto& row : rows) {
    const std::string start =
        "connect to " + std::string(row.host) + " port " + std::to_string(row.port) + ": ";
    EXPECT_EQ(thrown_by(row.host, row.port).rfind(start + row.why, 0), 0U) << start;
  }
  // A bare root folder may have no /etc/hosts.
  if (gethostbyname("localhost") != nullptr) {
    EXPECT_EQ(thrown_by("localhost", scripted_server(after_hello({})).port), "nothing");
  }
}

// A query of a server that answers so: the status says what was wrong, and so does the text.
TEST(answers, bad_ones_are_refused_and_say_so) {
  const bytes core(sizeof(bpu_stat));
  const auto changed = [&](const message_header& to, size_t offset, uint8_t value) {
    bytes message = answer_to(to, 0, core);
    message.at(offset) = value;
    return message;
  };
  const struct {
    const char* name;
    std::function<bytes(message_header)> make;
    int status;
    const char* text = "bad answer from ";
  } rows[] = {
      {"negative status", [](auto r) { return answer_to(r, -38); }, -ENOSYS,
       "the server has no figures: Function not implemented"},
      {"huge length", [&](auto r) { return changed(r, 15, 0xff); }, -EBADMSG},
      {"other command", [&](auto r) { return ++r.command, answer_to(r, 0, core); }, -EBADMSG},
      {"other sub-command", [&](auto r) { return ++r.sub_command, answer_to(r, 0, core); },
       -EBADMSG},
      {"old answer", [&](auto r) { return --r.timestamp_us, answer_to(r, 0, core); }, -EBADMSG},
      {"fraction of a record", [](auto r) { return answer_to(r, 0, bytes(21)); }, -EBADMSG},
      {"too many records", [](auto r) { return answer_to(r, 0, bytes(20 * 65)); }, -EBADMSG},
      {"hang-up", [](auto) { return bytes(); }, -ECONNRESET, "no answer from "},
  };
  for (const auto& row : rows) {
    const scripted_server server(after_hello(row.make));
    bpu_ratio_manager bpu(loopback, server.port);
    std::ostringstream text;
    EXPECT_EQ(bpu.get_bpu_ratio_all(&text), row.status) << row.name;
    EXPECT_EQ(text.str().rfind("BPU  " + std::string(row.text), 0), 0U) << row.name << text.str();
    EXPECT_EQ(text.str().back(), '\n') << row.name;
  }
}

// As the first answer of a connection, and as a later one.
TEST(answers, wrong_headers_are_refused) {
  for (const wrong_header& wrong : wrong_headers) {
    std::atomic<bool> hello{false};
    const scripted_server server([&](tcp::socket& client) {
      message_header request{};
      while (read_message(client, request)) {
        const bool good = hello && request.command == mon_protocol::cmd_connection;
        const bytes message = answer_to(request, 0, bytes(good ? 0 : sizeof(bpu_stat)));
        send_bytes(client, good ? message : wrong.of(message));
      }
    });
    EXPECT_NE(thrown_by(loopback, server.port).find(": Bad message"), std::string::npos)
        << wrong.why;
    hello = true;
    bpu_ratio_manager bpu(loopback, server.port);
    std::ostringstream text;
    EXPECT_EQ(bpu.get_bpu_ratio_all(&text), -EBADMSG) << wrong.why;
    EXPECT_EQ(text.str().rfind("BPU  bad answer", 0), 0U) << wrong.why;
  }
}

// A bad answer of many: cut to `way` bytes, or, from its size on, with one bit flipped.
void spoil(bytes& message, size_t way) {
  if (way < message.size()) {
    message.resize(way);
  } else {
    const size_t bit = way - message.size();
    message[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
  }
}

// Answers queries with `payload`, first as it is and then spoilt in each way; hangs up behind
// those.
struct spoiling_server {
  void check(const char* name, const std::function<int(std::ostream*)>& ask, const bytes& answer) {
    const size_t ways = 9 * (mon_protocol::header_size + answer.size());
    for (size_t turn = 0; turn <= ways; ++turn) {
      {
        const std::lock_guard<std::mutex> guard(lock);
        payload = answer;
        spoilt = turn;
      }
      std::ostringstream text;
      const int status = ask(&text);
      ASSERT_EQ(status<0, turn> 0) << name << " turn " << turn;
      ASSERT_EQ(text.str().find(" answer") != std::string::npos, turn > 0)
          << name << " turn " << turn << ": " << text.str();
    }
  }

  std::mutex lock;  // guards what follows
  bytes payload;
  size_t spoilt = 0;

  const scripted_server server{[this](tcp::socket& client) {
    message_header request{};
    bool good = true;
    while (good && read_message(client, request)) {
      bytes message = answer_to(request);
      if (request.command != mon_protocol::cmd_connection) {
        const std::lock_guard<std::mutex> guard(lock);
        message = answer_to(request, 0, payload);
        good = spoilt == 0;
        if (!good) {
          spoil(message, spoilt - 1);
        }
      }
      send_bytes(client, message);
    }
  }};
};

TEST(answers, every_cut_and_every_flipped_bit_is_found) {
  spoiling_server spoiler;
  const int port = spoiler.server.port;
  {
    cpu_stat_manager cpu(loopback, port);
    bytes list(8 + sizeof(pid_msg));
    list[0] = list[4] = 1;
    spoiler.check(
        "cpu", [&](auto* os) { return cpu.get_cpu_usage(os); }, bytes(sizeof(cpu_usage)));
    spoiler.check(
        "processes", [&](auto* os) { return cpu.get_process_all(1, os); }, list);
    spoiler.check(
        "perf", [&](auto* os) { return cpu.get_perf_data(os); }, bytes(sizeof(perf_sample)));
  }
  {
    peri_stat_manager peri(loopback, port);
    std::vector<const char*> parts = {"/log"};
    bytes part = {'/', 'l', 'o', 'g'};
    part.resize(sizeof(part_info));
    spoiler.check(
        "thermal", [&](auto* os) { return peri.get_all_thermal(os); }, bytes(sizeof(thermal_stat)));
    spoiler.check(
        "memory", [&](auto* os) { return peri.get_meminfo(os); }, bytes(sizeof(meminfo)));
    spoiler.check(
        "ion", [&](auto* os) { return peri.get_ion_info(os); }, bytes(sizeof(ion_info)));
    spoiler.check(
        "parts", [&](auto* os) { return peri.get_partition_info(parts, os); }, part);
    spoiler.check(
        "blocks", [&](auto* os) { return peri.get_block_usage(os); }, bytes(sizeof(block_stat)));
  }
  {
    bpu_ratio_manager bpu(loopback, port);
    spoiler.check(
        "bpu", [&](auto* os) { return bpu.get_bpu_ratio_all(os); }, bytes(sizeof(bpu_stat)));
  }
  {
    vio_info_manager vio(loopback, port);
    spoiler.check(
        "vio", [&](auto* os) { return vio.sort_all_vio_fps(os); }, bytes(sizeof(vio_stat)));
  }
  net_stat_manager net(loopback, port);
  spoiler.check(
      "net", [&](auto* os) { return net.get_bandwidth_stat(os); }, bytes(sizeof(net_traffic)));
}

TEST(answers, process_list_counts_must_agree) {
  const scripted_server server(after_hello([](const message_header& request) {
    bytes list(8 + 2 * sizeof(pid_msg));
    list[0] = 146;  // claimed, and two come
    return answer_to(request, 0, list);
  }));
  cpu_stat_manager cpu(loopback, server.port);
  std::ostringstream text;
  EXPECT_EQ(cpu.get_process_all(1, &text), -EBADMSG);
  EXPECT_EQ(text.str().rfind("Processes  bad answer", 0), 0U) << text.str();
}

// A list of process 7, "camera", whose line is asked for next: the list is shown whatever comes.
TEST(answers, command_lines_that_fail_lose_no_list) {
  const auto line_of = [](uint8_t pid, const std::string& line) {
    bytes record(sizeof(process_command));
    record[0] = pid;
    std::copy(line.begin(), line.end(), record.begin() + 4);
    return record;
  };
  const bytes good = line_of(7, "camera --left\x1b[2J");
  bytes too_many;
  for (int i = 0; i <= max_pid_msgs; ++i) {
    too_many.insert(too_many.end(), good.begin(), good.end());
  }
  const struct {
    const char* name;
    std::function<bytes(message_header)> make;
    const char* shown;
    int asked;  // in seven calls: with the first two and then every fifth list
  } rows[] = {
      {"good", [&](auto r) { return answer_to(r, 0, good); }, "camera --left?[2J\n", 3},
      {"empty", [&](auto r) { return answer_to(r, 0, line_of(7, "")); }, "camera\n", 3},
      {"not listed", [&](auto r) { return answer_to(r, 0, line_of(8, "camera x")); }, "camera\n",
       3},
      {"an older server", [](auto r) { return answer_to(r, -ENOSYS); }, "camera\n", 1},
      {"too many", [&](auto r) { return answer_to(r, 0, too_many); }, "camera\n", 7},
      {"fraction", [](auto r) { return answer_to(r, 0, bytes(127)); }, "camera\n", 7},
      {"hang-up", [](auto) { return bytes(); }, "camera\n", 7},
  };
  for (const auto& row : rows) {
    std::atomic<int> asked{0};
    const scripted_server server(after_hello([&](const message_header& request) {
      if (request.sub_command == mon_protocol::cpu_command_lines) {
        ++asked;
        return row.make(request);
      }
      bytes list(8 + sizeof(pid_msg));
      list[0] = list[4] = 1;
      list[8] = 7;
      std::memcpy(&list[16], "camera", 6);
      return answer_to(request, 0, list);
    }));
    cpu_stat_manager cpu(loopback, server.port);
    for (int i = 0; i < 7; ++i) {
      std::ostringstream text;
      EXPECT_EQ(cpu.get_process_all(1, &text), 0) << row.name;
      const std::string shown = " " + std::string(row.shown);
      EXPECT_EQ(text.str().rfind(shown), text.str().size() - shown.size()) << text.str();
    }
    EXPECT_EQ(asked, row.asked) << row.name;
  }
}

// The server tells each line once a connection: a new one begins without any, and an old line must
// not stand behind the name of the id's next owner.
TEST(reconnection, forgets_the_command_lines) {
  std::atomic<int> lists{0};
  const scripted_server server(after_hello([&](const message_header& request) {
    if (request.sub_command == mon_protocol::cpu_command_lines) {
      bytes line(lists == 1 ? sizeof(process_command) : 0);
      std::fill(line.begin(), line.end(), uint8_t{'7'});
      return answer_to(request, 0, line);
    }
    bytes list(8 + sizeof(pid_msg), uint8_t{'7'});
    std::memset(list.data(), 0, 8);
    list[0] = 1;
    return ++lists == 3 ? bytes() : answer_to(request, 0, list);
  }));
  cpu_stat_manager cpu(loopback, server.port);
  const auto has_line = [&] {
    std::ostringstream text;
    cpu.get_process_all(1, &text);
    return text.str().find(std::string(sizeof pid_msg::comm + 1, '7')) != std::string::npos;
  };
  EXPECT_TRUE(has_line());
  EXPECT_TRUE(has_line()) << "told once and kept";
  has_line();  // hangs up
  EXPECT_FALSE(has_line());
}

// One byte now and then keeps every single read happy; the deadline is over the whole answer.
TEST(answers, dripping_bytes_run_into_the_deadline) {
  const scripted_server server([](tcp::socket& client) {
    message_header request{};
    read_message(client, request);
    send_bytes(client, answer_to(request));
    read_message(client, request);
    for (const uint8_t byte : answer_to(request, 0, bytes(4000))) {
      if (!send_bytes(client, {byte})) {
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });
  bpu_ratio_manager bpu(loopback, server.port);
  std::ostringstream text;
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(bpu.get_bpu_ratio_all(&text), -ETIMEDOUT);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
}

// The server goes away after an answer and is back for the next but one request: monitoring that
// was on is on again before the query, and what was switched off stays off.
TEST(reconnection, restores_what_was_switched_on) {
  std::mutex lock;
  std::vector<int> seen;
  std::atomic<bool> hang_up{false};
  const scripted_server server(after_hello([&](const message_header& request) {
    const std::lock_guard<std::mutex> guard(lock);
    seen.push_back(request.command * 10 + request.sub_command);
    return hang_up.exchange(false) ? bytes() : answer_to(request);
  }));
  net_stat_manager net(loopback, server.port);
  std::ostringstream text;
  const auto hang_up_and_come_back = [&] {
    hang_up = true;
    EXPECT_EQ(net.get_bandwidth_stat(&text), -ECONNRESET);
    EXPECT_EQ(net.get_bandwidth_stat(&text), 0);
  };
  EXPECT_EQ(net.start_net_monitor(), 0);
  hang_up_and_come_back();
  EXPECT_EQ(net.exit_net_monitor(), 0);
  hang_up_and_come_back();
  const std::lock_guard<std::mutex> guard(lock);
  EXPECT_EQ(seen, (std::vector<int>{61, 64, 61, 64, 63, 64, 64}));
}

// What an older server lacks it is asked once a connection; what it has is shown without the rest.
TEST(reconnection, an_older_server_is_asked_for_what_it_has) {
  std::vector<int> seen;
  std::atomic<bool> hang_up{false};
  const scripted_server server(after_hello([&](const message_header& request) {
    const int what = request.command * 10 + request.sub_command;
    seen.push_back(what);
    if (what == 64 || what == 27) {
      return answer_to(request, -ENOSYS);
    }
    const size_t size = what == 62 ? sizeof(net_stat) : 2 * sizeof(cpu_usage);
    return hang_up.exchange(false) ? bytes() : answer_to(request, 0, bytes(size));
  }));
  std::ostringstream text;
  const auto ask_twice_on_two_connections = [&](auto ask) {
    EXPECT_EQ(ask(), 0);
    EXPECT_EQ(ask(), 0);
    hang_up = true;
    EXPECT_EQ(ask(), -ECONNRESET);
    EXPECT_EQ(ask(), 0);
  };
  {
    net_stat_manager net(loopback, server.port);
    ask_twice_on_two_connections([&] { return net.get_bandwidth_stat(&text); });
  }
  {
    cpu_stat_manager cpu(loopback, server.port);
    ask_twice_on_two_connections([&] { return cpu.get_cpu_usage(&text); });
  }
  EXPECT_EQ(seen, (std::vector<int>{64, 62, 62, 62, 64, 62, 21, 27, 21, 21, 21, 27}));
}

// Counters that went to another client, while this one read them or while it was away, are not
// asked for by a new connection: that would take them back, or be refused for ever.
TEST(reconnection, lets_go_of_counters_that_are_busy) {
  std::mutex lock;
  std::vector<int> seen;
  std::map<int, int32_t> status;
  std::atomic<bool> hang_up{false};
  const scripted_server server(after_hello([&](const message_header& request) {
    const std::lock_guard<std::mutex> guard(lock);
    seen.push_back(request.sub_command);
    return hang_up.exchange(false) ? bytes() : answer_to(request, status[request.sub_command]);
  }));
  cpu_stat_manager cpu(loopback, server.port);
  std::ostringstream text;
  const auto come_back = [&](const std::vector<int>& asked) {
    hang_up = true;
    EXPECT_EQ(cpu.cpu_mon_exit(), -ECONNRESET);
    EXPECT_EQ(cpu.cpu_mon_exit(), 0);
    const std::lock_guard<std::mutex> guard(lock);
    EXPECT_EQ(std::exchange(seen, {}), asked);
  };
  using namespace mon_protocol;
  EXPECT_EQ(cpu.enable_perf_mon(), 0);
  come_back({cpu_enable_perf, cpu_exit, cpu_enable_perf, cpu_exit});
  status[cpu_perf_data] = -EBUSY;
  EXPECT_EQ(cpu.get_perf_data(&text), -EBUSY);
  come_back({cpu_perf_data, cpu_exit, cpu_exit});
  EXPECT_EQ(cpu.enable_perf_mon(), 0);
  status[cpu_enable_perf] = -EBUSY;
  come_back({cpu_enable_perf, cpu_exit, cpu_enable_perf, cpu_exit});
  come_back({cpu_exit, cpu_exit});
}

// A write to a connection that the server closed must not raise SIGPIPE, which ends the program.
TEST(reconnection, a_dead_server_raises_no_signal) {
  auto server = std::make_unique<scripted_server>(after_hello([](auto) { return bytes(); }));
  cpu_stat_manager cpu(loopback, server->port);
  std::ostringstream text;
  EXPECT_LT(cpu.get_cpu_usage(&text), 0);
  server.reset();
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(cpu.get_cpu_usage(&text), -ECONNREFUSED);
  }
  EXPECT_EQ(cpu.client->back_client_id(), -ENOTCONN);
}

// The ION text wanted little when the server was there, and has its room when it is gone.
TEST(reconnection, memory_and_ion_share_their_line_when_they_fail) {
  auto server = std::make_unique<scripted_server>(
      after_hello([](const message_header& request) { return answer_to(request); }));
  peri_stat_manager peri(loopback, server->port);
  std::ostringstream text;
  EXPECT_EQ(peri.get_ion_info(&text), 0);
  EXPECT_EQ(text.str(), "[ION none]");
  server.reset();
  EXPECT_LT(peri.get_meminfo(&text), 0);
  text.str("");
  EXPECT_EQ(peri.get_meminfo(&text), -ECONNREFUSED);
  text << ", ";
  EXPECT_EQ(peri.get_ion_info(&text), -ECONNREFUSED);
  EXPECT_NE(text.str().find("refused], [ION no answer"), std::string::npos) << text.str();
  EXPECT_EQ(text.str().back(), ']');
  EXPECT_LE(text.str().size(), 117U);
}

TEST(requests, bad_paths_are_not_sent) {
  const scripted_server server(after_hello([](auto request) { return answer_to(request); }));
  peri_stat_manager peri(loopback, server.port);
  std::ostringstream text;
  const std::string too_long(32, 'x');
  std::vector<const char*> parts = {too_long.c_str() + 1};
  EXPECT_EQ(peri.get_partition_info(parts, &text), 0);
  --parts[0];
  EXPECT_EQ(peri.get_partition_info(parts, &text), -EINVAL);
  parts.assign(17, "/log");
  EXPECT_EQ(peri.get_partition_info(parts, &text), -EINVAL);
  EXPECT_EQ(bpu_ratio_manager().get_bpu_ratio_all(&text), -ENOTCONN);
}

}  // namespace
