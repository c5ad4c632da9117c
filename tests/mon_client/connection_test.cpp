// The client library against servers that are away, silent, broken or hostile.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>

#include "bpu_ratio_manager.h"
#include "cpu_stat_manager.h"
#include "mon_records.h"
#include "net_stat_manager.h"
#include "peri_stat_manager.h"
#include "scripted_server.h"

namespace {

using bytes = std::vector<uint8_t>;
using answering = std::function<bool(int, const received_request&)>;  // false: hang up

// Answers each "hello" and leaves the rest to `answer`.
std::function<void(int)> after_hello(answering answer) {
  return [answer](int fd) {
    received_request request;
    while (read_request(fd, request)) {
      const bool hello = request.header.command == mon_protocol::cmd_connection;
      if (hello) {
        send_bytes(fd, answer_to(request));
      } else if (!answer(fd, request)) {
        return;
      }
    }
  };
}

// Keeps a connection open until the other side or the test ends it.
void hold_open(int fd) {
  char byte = 0;
  while (recv(fd, &byte, 1, 0) > 0) {
  }
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
  int unused = 0;
  {
    unused = scripted_server([](int) {}).port;
  }
  EXPECT_EQ(thrown_by("127.0.0.1", unused),
            "connect to 127.0.0.1 port " + std::to_string(unused) + ": Connection refused");
  EXPECT_EQ(thrown_by("127.0.0.1", 70000),
            "connect to 127.0.0.1 port 70000: not a TCP port (1 to 65535)");
  EXPECT_EQ(thrown_by("::1", -1), "connect to ::1 port -1: not a TCP port (1 to 65535)");
  EXPECT_EQ(thrown_by("no-such-host.invalid", 1234)
                .rfind("connect to no-such-host.invalid port 1234: ", 0),
            0u);
  EXPECT_EQ(thrown_by("", 0).rfind("connect to ", 0), 0u);

  const scripted_server silent(hold_open);
  const std::string place = "connect to 127.0.0.1 port " + std::to_string(silent.port);
  EXPECT_EQ(thrown_by("127.0.0.1", silent.port),
            place + ": no monitor server answers there: Connection timed out");

  const scripted_server web([](int fd) {
    const char text[] =
        "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    send_bytes(fd, bytes(text, text + sizeof text));
    hold_open(fd);
  });
  EXPECT_EQ(thrown_by("127.0.0.1", web.port), "connect to 127.0.0.1 port " +
                                                  std::to_string(web.port) +
                                                  ": no monitor server answers there: Bad message");
}

TEST(connect, host_names_serve) {
  const scripted_server server(after_hello([](int, const received_request&) { return false; }));
  EXPECT_EQ(thrown_by("localhost", server.port), "nothing");
}

bytes with_byte(bytes message, size_t offset, uint8_t value) {
  message.at(offset) = value;
  return message;
}

struct bad_answer {
  const char* name;
  std::function<bytes(const received_request&)> make;
  int status;
};

// A query of a server that answers so: the status says what was wrong, nothing is printed.
TEST(answers, bad_ones_are_refused_and_print_nothing) {
  const bytes core(sizeof(bpu_stat));
  const bad_answer all[] = {
      {"negative status", [](const auto& r) { return answer_to(r, -38); }, -ENOSYS},
      {"crc", [&](const auto& r) { return with_byte(answer_to(r, 0, core), 45, 1); }, -EBADMSG},
      {"huge length", [&](const auto& r) { return with_byte(answer_to(r, 0, core), 15, 0xff); },
       -EBADMSG},
      {"other command",
       [&](auto r) {
         ++r.header.command;
         return answer_to(r, 0, core);
       },
       -EBADMSG},
      {"other sub-command",
       [&](auto r) {
         ++r.header.sub_command;
         return answer_to(r, 0, core);
       },
       -EBADMSG},
      {"old answer",
       [&](auto r) {
         --r.header.timestamp_us;
         return answer_to(r, 0, core);
       },
       -EBADMSG},
      {"fraction of a record", [](const auto& r) { return answer_to(r, 0, bytes(21)); }, -EBADMSG},
      {"too many records", [](const auto& r) { return answer_to(r, 0, bytes(20 * 65)); }, -EBADMSG},
      {"hang-up", [](const auto&) { return bytes(); }, -ECONNRESET},
      {"half an answer",
       [&](const auto& r) {
         auto m = answer_to(r, 0, core);
         m.resize(50);
         return m;
       },
       -ECONNRESET},
  };
  for (const bad_answer& one : all) {
    SCOPED_TRACE(one.name);
    const scripted_server server(after_hello([&](int fd, const received_request& request) {
      send_bytes(fd, one.make(request));
      return false;
    }));
    bpu_ratio_manager bpu("127.0.0.1", server.port);
    std::ostringstream text;
    EXPECT_EQ(bpu.get_bpu_ratio_all(&text), one.status);
    EXPECT_EQ(text.str(), "");
  }
}

TEST(answers, process_list_counts_must_agree) {
  const scripted_server server(after_hello([](int fd, const received_request& request) {
    bytes list(8 + 2 * sizeof(pid_msg));
    const int32_t claimed = 146;  // and two come
    std::memcpy(list.data(), &claimed, sizeof claimed);
    send_bytes(fd, answer_to(request, 0, list));
    return true;
  }));
  cpu_stat_manager cpu("127.0.0.1", server.port);
  std::ostringstream text;
  EXPECT_EQ(cpu.get_process_all(1, &text), -EBADMSG);
  EXPECT_EQ(text.str(), "");
}

// One byte now and then keeps every single read happy; the deadline is over the whole answer.
TEST(answers, dripping_bytes_run_into_the_deadline) {
  const scripted_server server(after_hello([](int fd, const received_request& request) {
    for (const uint8_t byte : answer_to(request, 0, bytes(4000))) {
      pollfd gone{fd, POLLIN, 0};
      if (send(fd, &byte, 1, MSG_NOSIGNAL) != 1 || poll(&gone, 1, 20) > 0) {
        return false;
      }
    }
    return false;
  }));
  bpu_ratio_manager bpu("127.0.0.1", server.port);
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
  const scripted_server server(after_hello([&](int fd, const received_request& request) {
    const std::lock_guard<std::mutex> guard(lock);
    seen.push_back(request.header.command * 10 + request.header.sub_command);
    if (hang_up.exchange(false)) {
      return false;
    }
    send_bytes(fd, answer_to(request));
    return true;
  }));
  net_stat_manager net("127.0.0.1", server.port);
  std::ostringstream text;
  EXPECT_EQ(net.start_net_monitor(), 0);
  hang_up = true;
  EXPECT_EQ(net.get_bandwidth_stat(&text), -ECONNRESET);
  EXPECT_EQ(net.get_bandwidth_stat(&text), 0);
  EXPECT_EQ(net.exit_net_monitor(), 0);
  hang_up = true;
  EXPECT_EQ(net.get_bandwidth_stat(&text), -ECONNRESET);
  EXPECT_EQ(net.get_bandwidth_stat(&text), 0);
  const std::lock_guard<std::mutex> guard(lock);
  EXPECT_EQ(seen, (std::vector<int>{61, 62, 61, 62, 63, 62, 62}));
}

// A write to a connection that the server closed must not raise SIGPIPE, which ends the program.
TEST(reconnection, a_dead_server_raises_no_signal) {
  std::unique_ptr<cpu_stat_manager> cpu;
  std::ostringstream text;
  {
    const scripted_server server(after_hello([](int, const received_request&) { return false; }));
    cpu = std::make_unique<cpu_stat_manager>("127.0.0.1", server.port);
    EXPECT_LT(cpu->get_cpu_usage(&text), 0);
  }
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(cpu->get_cpu_usage(&text), -ECONNREFUSED);
  }
  EXPECT_EQ(cpu->client->back_client_id(), -ENOTCONN);
}

TEST(requests, bad_paths_are_not_sent) {
  const scripted_server server(after_hello([](int fd, const received_request& request) {
    send_bytes(fd, answer_to(request));
    return true;
  }));
  peri_stat_manager peri("127.0.0.1", server.port);
  std::ostringstream text;
  const std::string longest(31, 'x');
  const std::string too_long(32, 'x');
  std::vector<const char*> parts = {longest.c_str()};
  EXPECT_EQ(peri.get_partition_info(parts, &text), 0);
  parts[0] = too_long.c_str();
  EXPECT_EQ(peri.get_partition_info(parts, &text), -EINVAL);
  parts.assign(17, "/log");
  EXPECT_EQ(peri.get_partition_info(parts, &text), -EINVAL);
  EXPECT_EQ(bpu_ratio_manager().get_bpu_ratio_all(&text), -ENOTCONN);
}

}  // namespace
