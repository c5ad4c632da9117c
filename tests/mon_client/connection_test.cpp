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

// A query of a server that answers so: the status says what was wrong, nothing is printed.
TEST(answers, bad_ones_are_refused_and_print_nothing) {
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
  } rows[] = {
      {"negative status", [](auto r) { return answer_to(r, -38); }, -ENOSYS},
      {"huge length", [&](auto r) { return changed(r, 15, 0xff); }, -EBADMSG},
      {"other command", [&](auto r) { return ++r.command, answer_to(r, 0, core); }, -EBADMSG},
      {"other sub-command", [&](auto r) { return ++r.sub_command, answer_to(r, 0, core); },
       -EBADMSG},
      {"old answer", [&](auto r) { return --r.timestamp_us, answer_to(r, 0, core); }, -EBADMSG},
      {"fraction of a record", [](auto r) { return answer_to(r, 0, bytes(21)); }, -EBADMSG},
      {"too many records", [](auto r) { return answer_to(r, 0, bytes(20 * 65)); }, -EBADMSG},
      {"hang-up", [](auto) { return bytes(); }, -ECONNRESET},
  };
  for (const auto& row : rows) {
    const scripted_server server(after_hello(row.make));
    bpu_ratio_manager bpu(loopback, server.port);
    std::ostringstream text;
    EXPECT_EQ(bpu.get_bpu_ratio_all(&text), row.status) << row.name;
    EXPECT_EQ(text.str(), "") << row.name;
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
      ASSERT_EQ(text.str().empty(), turn > 0) << name << " turn " << turn;
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
      "net", [&](auto* os) { return net.get_bandwidth_stat(os); }, bytes(sizeof(net_stat)));
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
  EXPECT_EQ(text.str(), "");
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
  EXPECT_EQ(seen, (std::vector<int>{61, 62, 61, 62, 63, 62, 62}));
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
