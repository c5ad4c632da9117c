// SPDX-License-Identifier: Apache-2.0
// The client library against servers that are away, silent, broken or hostile.
#include <gtest/gtest.h>
#include <netdb.h>

#include <cerrno>
#include <chrono>
#include <cstring>
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

TEST(answers, every_cut_and_every_flipped_bit_is_found) {
  const size_t ways = 9 * (mon_protocol::header_size + sizeof(bpu_stat));
  std::atomic<size_t> way{0};
  const scripted_server server([&way](tcp::socket& client) {
    message_header request{};
    bool good = true;
    while (good && read_message(client, request)) {
      const bool hello = request.command == mon_protocol::cmd_connection;
      bytes message = answer_to(request, 0, bytes(hello ? 0 : sizeof(bpu_stat)));
      good = hello || way == ways;
      if (!good) {
        spoil(message, way);
      }
      send_bytes(client, message);
    }
  });
  bpu_ratio_manager bpu(loopback, server.port);
  for (; way < ways; ++way) {
    std::ostringstream text;
    ASSERT_LT(bpu.get_bpu_ratio_all(&text), 0) << way;
    ASSERT_NE(text.str().find(" answer"), std::string::npos) << way << ": " << text.str();
  }
  std::ostringstream text;
  EXPECT_EQ(bpu.get_bpu_ratio_all(&text), 0) << "the same one whole";
}

bytes list_of_process(uint8_t pid, const std::string& name) {
  bytes list(8 + sizeof(pid_msg));
  list[0] = list[4] = 1;
  list[8] = pid;
  std::copy(name.begin(), name.end(), list.begin() + 16);
  return list;
}

bytes line_of_process(uint8_t pid, const std::string& line) {
  bytes record(sizeof(process_command));
  record[0] = pid;
  std::copy(line.begin(), line.end(), record.begin() + 4);
  return record;
}

TEST(answers, process_list_counts_must_agree) {
  const scripted_server server(after_hello([](const message_header& request) {
    bytes list = list_of_process(7, "camera");
    list[0] = 146;  // claimed, and one comes
    return answer_to(request, 0, list);
  }));
  cpu_stat_manager cpu(loopback, server.port);
  std::ostringstream text;
  EXPECT_EQ(cpu.get_process_all(1, &text), -EBADMSG);
  EXPECT_EQ(text.str().rfind("Processes  bad answer", 0), 0U) << text.str();
}

// A list of process 7, "camera", whose line is asked for next: the list is shown whatever comes.
TEST(answers, command_lines_that_fail_lose_no_list) {
  const bytes good = line_of_process(7, "camera --left\x1b[2J");
  bytes too_many;
  for (int i = 0; i <= max_pid_msgs; ++i) {
    too_many.insert(too_many.end(), good.begin(), good.end());
  }
  const struct {
    const char* name;
    int status;
    bytes lines;
    const char* shown;
    int asked;  // in seven calls: with the first two and then every fifth list
  } rows[] = {
      {"good", 0, good, "camera --left?[2J\n", 3},
      {"empty", 0, line_of_process(7, ""), "camera\n", 3},
      {"not listed", 0, line_of_process(8, "camera x"), "camera\n", 3},
      {"an older server", -ENOSYS, {}, "camera\n", 1},
      {"too many", 0, too_many, "camera\n", 7},
      {"fraction", 0, bytes(127), "camera\n", 7},
  };
  for (const auto& row : rows) {
    std::atomic<int> asked{0};
    const scripted_server server(after_hello([&](const message_header& request) {
      if (request.sub_command != mon_protocol::cpu_command_lines) {
        return answer_to(request, 0, list_of_process(7, "camera"));
      }
      ++asked;
      return answer_to(request, row.status, row.lines);
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
      return answer_to(request, 0, lists == 1 ? line_of_process(7, "camera --left") : bytes());
    }
    return ++lists == 3 ? bytes() : answer_to(request, 0, list_of_process(7, "camera"));
  }));
  cpu_stat_manager cpu(loopback, server.port);
  const auto has_line = [&] {
    std::ostringstream text;
    cpu.get_process_all(1, &text);
    return text.str().find("camera --left") != std::string::npos;
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

// Notes what it is asked, and may hang up in place of its next answer.
struct noting_server {
  std::vector<int> take_seen() {
    const std::lock_guard<std::mutex> guard(lock);
    return std::exchange(seen, {});
  }

  std::function<bytes(const message_header&)> answer = [](auto request) {
    return answer_to(request);
  };
  std::atomic<bool> hang_up{false};
  std::mutex lock;        // guards what follows
  std::vector<int> seen;  // commands, with the sub-command as the last digit
  const scripted_server server{after_hello([this](const message_header& request) {
    const std::lock_guard<std::mutex> guard(lock);
    seen.push_back(request.command * 10 + request.sub_command);
    return hang_up.exchange(false) ? bytes() : answer(request);
  })};
};

// The server goes away after an answer and is back for the next but one request: monitoring that
// was on is on again before the query, and what was switched off stays off.
TEST(reconnection, restores_what_was_switched_on) {
  noting_server noting;
  net_stat_manager net(loopback, noting.server.port);
  std::ostringstream text;
  const auto hang_up_and_come_back = [&] {
    noting.hang_up = true;
    EXPECT_EQ(net.get_bandwidth_stat(&text), -ECONNRESET);
    EXPECT_EQ(net.get_bandwidth_stat(&text), 0);
  };
  EXPECT_EQ(net.start_net_monitor(), 0);
  hang_up_and_come_back();
  EXPECT_EQ(net.exit_net_monitor(), 0);
  hang_up_and_come_back();
  EXPECT_EQ(noting.take_seen(), (std::vector<int>{61, 64, 61, 64, 63, 64, 64}));
}

// What an older server lacks it is asked once a connection; what it has is shown without the rest.
TEST(reconnection, an_older_server_is_asked_for_what_it_has) {
  noting_server noting;
  noting.answer = [](const message_header& request) {
    const bool lacks = request.sub_command == mon_protocol::net_by_direction ||
                       request.sub_command == mon_protocol::cpu_system;
    const bool net = request.command == mon_protocol::cmd_net;
    return lacks ? answer_to(request, -ENOSYS)
                 : answer_to(request, 0, bytes(net ? sizeof(net_stat) : 2 * sizeof(cpu_usage)));
  };
  const auto ask_twice_on_two_connections = [&](auto ask) {
    std::ostringstream text;
    EXPECT_EQ(ask(&text), 0);
    EXPECT_EQ(ask(&text), 0);
    noting.hang_up = true;
    EXPECT_EQ(ask(&text), -ECONNRESET);
    EXPECT_EQ(ask(&text), 0);
    return noting.take_seen();
  };
  {
    net_stat_manager net(loopback, noting.server.port);
    const auto ask = [&net](std::ostream* os) { return net.get_bandwidth_stat(os); };
    EXPECT_EQ(ask_twice_on_two_connections(ask), (std::vector<int>{64, 62, 62, 62, 64, 62}));
  }
  cpu_stat_manager cpu(loopback, noting.server.port);
  const auto ask = [&cpu](std::ostream* os) { return cpu.get_cpu_usage(os); };
  EXPECT_EQ(ask_twice_on_two_connections(ask), (std::vector<int>{21, 27, 21, 21, 21, 27}));
}

// Counters that went to another client, while this one read them or while it was away, are not
// asked for by a new connection: that would take them back, or be refused for ever.
TEST(reconnection, lets_go_of_counters_that_are_busy) {
  std::atomic<int> busy{0};  // the sub-command that is refused
  noting_server noting;
  noting.answer = [&busy](const message_header& request) {
    return answer_to(request, request.sub_command == busy ? -EBUSY : 0);
  };
  cpu_stat_manager cpu(loopback, noting.server.port);
  const auto come_back = [&](const std::vector<int>& asked) {
    noting.hang_up = true;
    EXPECT_EQ(cpu.cpu_mon_exit(), -ECONNRESET);
    EXPECT_EQ(cpu.cpu_mon_exit(), 0);
    EXPECT_EQ(noting.take_seen(), asked);
  };
  constexpr int enable = 20 + mon_protocol::cpu_enable_perf;
  constexpr int data = 20 + mon_protocol::cpu_perf_data;
  constexpr int exit = 20 + mon_protocol::cpu_exit;
  EXPECT_EQ(cpu.enable_perf_mon(), 0);
  come_back({enable, exit, enable, exit});
  busy = mon_protocol::cpu_perf_data;
  std::ostringstream text;
  EXPECT_EQ(cpu.get_perf_data(&text), -EBUSY);
  EXPECT_EQ(text.str(), "");
  come_back({data, exit, exit});
  EXPECT_EQ(cpu.enable_perf_mon(), 0);
  busy = mon_protocol::cpu_enable_perf;
  come_back({enable, exit, enable, exit});
  come_back({exit, exit});
}

// A write to a connection that the server closed must not raise SIGPIPE, which ends the program.
TEST(reconnection, a_dead_server_raises_no_signal) {
  auto server = std::make_unique<scripted_server>(after_hello([](auto) { return bytes(); }));
  cpu_stat_manager cpu(loopback, server->port);
  std::ostringstream text;
  EXPECT_LT(cpu.get_cpu_usage(&text), 0);
  server.reset();
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(cpu.get_perf_data(&text), -ECONNREFUSED);
  }
  EXPECT_NE(text.str().find("Counters  no answer"), std::string::npos) << text.str();
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
