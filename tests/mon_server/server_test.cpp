// The server over its socket: what it answers, what it refuses, and what clients notice of each
// other.
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <sstream>

#include "bpu_ratio_manager.h"
#include "cpu_stat_manager.h"
#include "net_stat_manager.h"
#include "peri_stat_manager.h"
#include "running_server.h"
#include "scripted_server.h"
#include "test_tools.h"
#include "vio_info_manager.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr char loopback[] = "127.0.0.1";

bytes request(uint16_t command, uint16_t sub_command, const bytes& payload = {}) {
  message_header header{};
  header.type = mon_protocol::type_request;
  header.command = command;
  header.sub_command = sub_command;
  return message_of(header, payload);
}

// The status of the answer, INT32_MAX when there is none.
int32_t status_of(raw_connection& connection, const bytes& message) {
  message_header answer{};
  const bool answered =
      send_bytes(connection.socket, message) && read_message(connection.socket, answer);
  return answered ? answer.status : INT32_MAX;
}

template <class client, class query>
std::string text_of(client& object, query ask) {
  std::ostringstream text;
  EXPECT_EQ((object.*ask)(&text), 0);
  return text.str();
}

void check_answers(peri_stat_manager& client) {
  EXPECT_THAT(text_of(client, &peri_stat_manager::get_meminfo), StartsWith("[Mem total "));
}

TEST(server, answers_every_family_from_a_tree_of_files) {
  server_options options;
  options.sysroot = ZORVA_FIXTURES "/cpu64";
  options.board = ZORVA_FIXTURES "/board-4core/board";
  const running_server server(options);
  cpu_stat_manager cpu(loopback, server.port);
  peri_stat_manager peri(loopback, server.port);
  bpu_ratio_manager bpu(loopback, server.port);
  vio_info_manager vio(loopback, server.port);
  EXPECT_THAT(text_of(cpu, &cpu_stat_manager::get_cpu_usage), StartsWith("CPU %"));
  EXPECT_EQ(cpu.cpus_num, 64);
  std::ostringstream list;
  EXPECT_EQ(cpu.get_process_all(0xff01, &list), 0);
  EXPECT_THAT(list.str(), HasSubstr("THREADS"));
  EXPECT_THAT(text_of(peri, &peri_stat_manager::get_all_thermal), StartsWith("Thermal  "));
  check_answers(peri);
  EXPECT_THAT(text_of(peri, &peri_stat_manager::get_ion_info), StartsWith("[ION "));
  EXPECT_THAT(text_of(peri, &peri_stat_manager::get_block_usage),
              HasSubstr("mmcblk0 read - write -  mmcblk0boot0 "));
  EXPECT_THAT(text_of(bpu, &bpu_ratio_manager::get_bpu_ratio_all), HasSubstr("bpu10 "));
  EXPECT_THAT(text_of(vio, &vio_info_manager::sort_all_vio_fps), HasSubstr("fps\n"));
  std::vector<const char*> parts = {"/", "/no/such/mount"};
  std::ostringstream partitions;
  EXPECT_EQ(peri.get_partition_info(parts, &partitions), 0);
  EXPECT_THAT(partitions.str(), StartsWith("Partitions  / "));
  EXPECT_THAT(partitions.str(), HasSubstr("/no/such/mount -"));
}

TEST(server, requests_without_sense_are_refused_and_the_connection_lives) {
  const running_server server;
  raw_connection connection(server.port);
  for (const uint16_t command : {1, 2, 3, 4, 5, 6, 99}) {
    EXPECT_EQ(status_of(connection, request(command, 99)), -ENOSYS);
  }
  const bytes senseless[] = {
      request(2, mon_protocol::cpu_process_list),
      request(2, mon_protocol::cpu_perf_data),
      request(3, mon_protocol::peri_partitions, bytes(33)),
      request(3, mon_protocol::peri_partitions, bytes(32, 'x')),
      request(3, mon_protocol::peri_partitions, bytes(32 * 17)),
      request(6, mon_protocol::net_bandwidth),
  };
  for (const bytes& message : senseless) {
    EXPECT_EQ(status_of(connection, message), -EINVAL) << testing::PrintToString(message);
  }
  EXPECT_EQ(status_of(connection, request(1, mon_protocol::connection_hello)), 0);
}

// Each of these ends its own connection, and a client beside them goes on.
TEST(server, bad_messages_close_their_connection_only) {
  const running_server server;
  peri_stat_manager bystander(loopback, server.port);
  bytes huge = request(1, mon_protocol::connection_hello);
  huge[13] = 0x20;  // 8192 bytes of payload
  const std::string http = "GET / HTTP/1.1\r\nHost: localhost\r\nUser-Agent: a browser\r\n\r\n";
  for (const bytes& bad : {huge, bytes(http.begin(), http.end()), bytes(40, 0)}) {
    raw_connection connection(server.port);
    EXPECT_TRUE(send_bytes(connection.socket, bad));
    read_to_end(connection.socket);
    check_answers(bystander);
  }
}

// A request of each kind, with payload where the kind has one.
std::vector<bytes> valid_requests() {
  std::vector<bytes> all;
  const std::pair<uint16_t, uint16_t> kinds[] = {{1, 2}, {2, 6}, {3, 5}, {4, 1}, {5, 1}, {6, 3}};
  for (const auto& [command, last] : kinds) {
    for (uint16_t sub_command = 1; sub_command <= last; ++sub_command) {
      bytes payload;
      if (command == 2 && sub_command == mon_protocol::cpu_process_list) {
        payload = {1, 0, 0, 0};
      } else if (command == 3 && sub_command == mon_protocol::peri_partitions) {
        payload.resize(32);
        payload[0] = '/';
      }
      all.push_back(request(command, sub_command, payload));
    }
  }
  return all;
}

// Sends it, and nothing after it; what comes back until the server closes the connection.
size_t bytes_answered_to(int port, const bytes& message) {
  raw_connection connection(port);
  // The server is the first to close: this leaves no trace of the connection in the kernel.
  connection.socket.set_option(asio::socket_base::linger(true, 0));
  asio::error_code error;
  asio::write(connection.socket, asio::buffer(message), error);
  connection.socket.shutdown(tcp::socket::shutdown_send, error);
  return read_to_end(connection.socket);
}

TEST(server, every_cut_and_every_flipped_bit_of_a_request_is_found) {
  const running_server server;
  peri_stat_manager bystander(loopback, server.port);
  for (const bytes& message : valid_requests()) {
    const std::string name = testing::PrintToString(message);
    EXPECT_GE(bytes_answered_to(server.port, message), mon_protocol::header_size) << name;
    for (size_t length = 0; length < message.size(); ++length) {
      const bytes cut(message.begin(), message.begin() + static_cast<std::ptrdiff_t>(length));
      ASSERT_EQ(bytes_answered_to(server.port, cut), 0U) << name << " cut to " << length;
    }
    for (size_t bit = 0; bit < message.size() * 8; ++bit) {
      bytes flipped = message;
      flipped[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
      ASSERT_EQ(bytes_answered_to(server.port, flipped), 0U) << name << " bit " << bit;
    }
    check_answers(bystander);
  }
}

// Sets the soft limit of descriptors, and sets it back.
struct descriptor_limit {
  explicit descriptor_limit(rlim_t most) {
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit now{std::min(most, before.rlim_max), before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &now);
  }
  ~descriptor_limit() { setrlimit(RLIMIT_NOFILE, &before); }
  rlimit before{};
};

// Without a descriptor left nobody new is taken and no file is read; connections live on, and it
// all comes back.
TEST(server, goes_on_without_a_free_descriptor) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizers' own checks take descriptors";
#endif
  const running_server server;
  peri_stat_manager bystander(loopback, server.port);
  check_answers(bystander);
  raw_connection next(server.port, raw_connection::later);
  {
    const int free_descriptor = dup(0);
    close(free_descriptor);
    const descriptor_limit none(static_cast<rlim_t>(free_descriptor));
    next.connect();
    std::ostringstream text;
    EXPECT_TRUE(wait_until([&] { return bystander.get_meminfo(&text) == -EMFILE; }));
  }
  EXPECT_EQ(status_of(next, request(1, mon_protocol::connection_hello)), 0);
  check_answers(bystander);
}

TEST(server, limits_close_slow_writers_and_those_who_do_not_read) {
  const running_server server;
  peri_stat_manager bystander(loopback, server.port);
  raw_connection slow_writer(server.port);
  EXPECT_TRUE(send_bytes(slow_writer.socket, {0xf5}));
  raw_connection never_reads(server.port);
  never_reads.socket.set_option(tcp::socket::receive_buffer_size(4096));
  // Some kilobytes an answer: endless requests are far beyond what may wait.
  while (send_bytes(never_reads.socket, request(2, mon_protocol::cpu_process_list, {1, 0, 0, 0}))) {
  }
  check_answers(bystander);
  read_to_end(slow_writer.socket);
}

TEST(server, takes_64_of_1000_connections_and_then_more_when_one_goes) {
  const descriptor_limit enough(4096);
  const running_server server;
  std::vector<std::unique_ptr<raw_connection>> all;
  const bytes hello = request(1, mon_protocol::connection_hello);
  for (int i = 0; i < 64; ++i) {
    all.push_back(std::make_unique<raw_connection>(server.port));
    ASSERT_EQ(status_of(*all.back(), hello), 0);
  }
  std::vector<std::unique_ptr<raw_connection>> too_many;
  for (int i = 0; i < 936; ++i) {
    too_many.push_back(std::make_unique<raw_connection>(server.port));
  }
  for (const auto& one : too_many) {
    read_to_end(one->socket);
  }
  EXPECT_EQ(status_of(*all.front(), hello), 0);
  all.pop_back();
  EXPECT_TRUE(wait_until([&] {
    raw_connection next(server.port);
    return status_of(next, hello) == 0;
  }));
}

double eth0_rate(net_stat_manager& net) {
  const std::string text = text_of(net, &net_stat_manager::get_bandwidth_stat);
  double rate = -1;
  std::sscanf(text.c_str(), "Net KB/s  eth0 %lf", &rate);
  return rate;
}

// The same bytes seen by a client over its long interval and by one that came later: each divides
// what it saw pass by the time that it watched.
TEST(server, each_client_has_rates_over_its_own_interval) {
  const temporary_folder tree;
  const auto received = [&tree](const std::string& total) {
    tree.write("proc/net/dev", "eth0: " + total + " 1 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n");
  };
  server_options options;
  options.sysroot = tree.path;
  const running_server server(options);
  net_stat_manager early(loopback, server.port);
  std::ostringstream text;
  EXPECT_EQ(early.start_net_monitor(), 0) << "there is nothing to read yet";
  EXPECT_EQ(early.get_bandwidth_stat(&text), -ENOENT);
  received("0");
  EXPECT_EQ(early.start_net_monitor(), 0);
  received("1048576");
  net_stat_manager late(loopback, server.port);
  // Samples are shared for a tenth of a second: the late one starts once the change is seen.
  EXPECT_TRUE(wait_until([&] { return eth0_rate(early) > 0; }));
  EXPECT_EQ(late.start_net_monitor(), 0);
  double late_rate = -1;
  wait_until([&] { return (late_rate = eth0_rate(late)) >= 0; });  // "-" until a second sample
  EXPECT_EQ(late_rate, 0);
}

// The counters go to the client that asked last, the other one learns of it, and may ask in turn.
TEST(server, counters_move_between_clients) {
  const running_server server;
  auto first = std::make_unique<cpu_stat_manager>(loopback, server.port);
  cpu_stat_manager second(loopback, server.port);
  cpu_stat_manager third(loopback, server.port);
  std::ostringstream text;
  const int started = first->enable_perf_mon();
  if (started < 0) {
    EXPECT_NE(started, -EBUSY);
    GTEST_SKIP() << "no counters on this machine: " << started;
  }
  EXPECT_EQ(first->enable_perf_mon(), 0) << "they are its own already";
  EXPECT_EQ(first->get_perf_data(&text), 0);
  EXPECT_THAT(text.str(), StartsWith("Counters"));
  EXPECT_EQ(third.disable_perf_mon(), 0);  // was not refused: takes nothing from anybody
  EXPECT_EQ(first->get_perf_data(&text), 0);

  EXPECT_EQ(second.enable_perf_mon(), -EBUSY);
  EXPECT_EQ(second.get_perf_data(&text), -EBUSY);
  EXPECT_EQ(second.disable_perf_mon(), 0);
  EXPECT_EQ(second.enable_perf_mon(), 0);
  EXPECT_EQ(first->get_perf_data(&text), -EBUSY);
  EXPECT_EQ(second.get_perf_data(&text), 0);

  // Whoever has them and goes leaves them to the next.
  EXPECT_EQ(first->enable_perf_mon(), -EBUSY);
  EXPECT_EQ(first->disable_perf_mon(), 0);
  EXPECT_EQ(first->enable_perf_mon(), 0);
  first.reset();
  EXPECT_TRUE(wait_until([&] { return third.enable_perf_mon() == 0; }));
}

}  // namespace
