// SPDX-License-Identifier: Apache-2.0
// The server over its socket: what it answers, what it refuses, and what clients notice of each
// other.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <sstream>

#include "bpu_ratio_manager.h"
#include "confinement.h"
#include "cpu_stat_manager.h"
#include "failing_allocation.h"
#include "mon_records.h"
#include "net_stat_manager.h"
#include "peri_stat_manager.h"
#include "running_server.h"
#include "samplers/clock.h"
#include "samplers/descriptor_limit.h"
#include "scripted_server.h"
#include "snapshots.h"
#include "test_tools.h"
#include "vio_info_manager.h"
#include "wrong_headers.h"

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

// The first record of the answer.
template <class record>
record record_of(raw_connection& connection, uint16_t command, uint16_t sub_command) {
  message_header answer{};
  bytes payload;
  record first{};
  EXPECT_TRUE(send_bytes(connection.socket, request(command, sub_command)) &&
              read_message(connection.socket, answer, payload));
  EXPECT_GE(payload.size(), sizeof first);
  std::memcpy(&first, payload.data(), std::min(payload.size(), sizeof first));
  return first;
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
  server_options options = reading(ZORVA_FIXTURES "/cpu64");
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
      request(6, mon_protocol::net_by_direction),
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
  const bytes hello = request(1, mon_protocol::connection_hello);
  bytes huge = hello;
  huge[13] = 0x20;  // 8192 bytes of payload
  const std::string http = "GET / HTTP/1.1\r\nHost: localhost\r\nUser-Agent: a browser\r\n\r\n";
  std::vector<bytes> all = {huge, bytes(http.begin(), http.end()), bytes(40, 0)};
  for (const wrong_header& wrong : wrong_headers) {
    all.push_back(wrong.of(hello));
  }
  for (const bytes& bad : all) {
    raw_connection connection(server.port);
    EXPECT_TRUE(send_bytes(connection.socket, bad));
    EXPECT_EQ(read_to_end(connection.socket), 0U) << testing::PrintToString(bad);
    check_answers(bystander);
  }
}

// The server as a program of its own, whose standard error the test holds the other end of.
struct server_process {
  server_process(int standard_error, int from) : log(from) {
    pid = fork();
    if (pid == 0) {
      dup2(standard_error, STDERR_FILENO);
      execl(MON_SERVER, MON_SERVER, "--port", "0", nullptr);
      _exit(127);
    }
    const std::string line = read_log();
    port = std::atoi(line.c_str() + line.find(" port ") + 6);
  }
  ~server_process() {
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
  }
  std::string read_log() const {
    std::string text(1 << 20, '\0');
    const ssize_t got = read(log, text.data(), text.size());
    text.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return text;
  }
  const int log;
  pid_t pid;
  int port = 0;
};

// Nobody reads its log any more: what does not fit is counted, and no client waits for it.
TEST(server, log_that_nobody_reads_holds_up_nobody) {
#ifdef CROSS_COMPILED
  GTEST_SKIP() << "an emulated process cannot start a program of the emulated machine";
#endif
  for (const bool is_pipe : {true, false}) {
    int ends[2];
    ASSERT_EQ(is_pipe ? pipe(ends) : socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const server_process server(ends[1], ends[0]);
    EXPECT_EQ(fcntl(ends[1], F_GETFL) & O_NONBLOCK, 0) << "others may share it";
    fcntl(ends[1], F_SETFL, O_NONBLOCK);
    while (write(ends[1], "", 1) == 1) {
    }
    fcntl(ends[1], F_SETFL, 0);
    const auto be_a_bad_client = [&server] {
      raw_connection connection(server.port);
      EXPECT_TRUE(send_bytes(connection.socket, bytes(40, 0)));
      read_to_end(connection.socket);
    };
    peri_stat_manager bystander(loopback, server.port);
    for (int i = 0; i < 9; ++i) {
      be_a_bad_client();
      check_answers(bystander);
    }
    server.read_log();
    be_a_bad_client();
    EXPECT_THAT(server.read_log(), HasSubstr("<4>log lines lost here: 9\n<4>client "));
    close(ends[0]);
    close(ends[1]);
  }
}

// In a process of its own, which cannot get back what it gave up. As root, all of these succeed in
// the one that it came from.
TEST(server, gives_up_what_would_make_it_root) {
  const int own_memory = open("/proc/self/mem", O_RDWR);
  ASSERT_GE(own_memory, 0);
  close(own_memory);
  long word = 1;
  iovec mine{&word, sizeof word};
  iovec others{&word, sizeof word};
  const pid_t parent = getpid();
  const std::string memory = "/proc/" + std::to_string(parent) + "/mem";
  const temporary_folder folder;
  const std::string path = folder.file("new");
  char* const nothing[] = {nullptr};
  const std::pair<const char*, std::function<long()>> tries[] = {
      {"memory by call", [&] { return process_vm_writev(parent, &mine, 1, &others, 1, 0); }},
      {"reading it", [&] { return process_vm_readv(parent, &mine, 1, &others, 1, 0); }},
      {"memory by file", [&] { return open(memory.c_str(), O_RDWR); }},
      {"new file", [&] { return open(path.c_str(), O_RDONLY | O_CREAT, 0600); }},
      {"cut file", [&] { return open(MON_SERVER, O_RDONLY | O_TRUNC); }},
      {"link", [&] { return symlink("/", path.c_str()); }},
#ifndef __SANITIZE_ADDRESS__
      {"trace", [&] { return ptrace(PTRACE_SEIZE, parent, 0, 0); }},
#endif
      {"program", [&] { return execve("/bin/true", nothing, nothing); }},
      {"its descriptors", [&] { return syscall(434, parent, 0); }},
      {"namespace", [] { return unshare(CLONE_FS); }},
      {"ring", [&] { return syscall(425, 1, nullptr); }},
      {"signal", [&] { return kill(parent, 0); }},
  };
  constexpr int no_filters = 100;
  const pid_t child = fork();
  if (child == 0) {
    if (confine(true) == -EINVAL) {
      _exit(no_filters);
    }
    int failed = 0;
    for (const auto& [name, attempt] : tries) {
      errno = 0;
      const bool refused = attempt() == -1 && errno == EPERM;
      failed += refused ? 0 : 1;
      if (!refused) {
        std::cerr << name << ": " << strerror(errno) << '\n';
      }
    }
    failed += access(memory.c_str(), F_OK) == 0 && open("/proc/self/stat", O_RDONLY) >= 0 ? 0 : 50;
    _exit(failed);
  }
  int status = -1;
  waitpid(child, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == no_filters) {
    GTEST_SKIP() << "the kernel has no seccomp filters";
  }
  EXPECT_EQ(status, 0);
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
  for (const bytes& message : {request(1, mon_protocol::connection_hello),
                               request(2, mon_protocol::cpu_process_list, {1, 0, 0, 0})}) {
    EXPECT_GE(bytes_answered_to(server.port, message), mon_protocol::header_size);
    for (size_t length = 0; length < message.size(); ++length) {
      const bytes cut(message.begin(), message.begin() + static_cast<std::ptrdiff_t>(length));
      ASSERT_EQ(bytes_answered_to(server.port, cut), 0U) << "cut to " << length;
    }
    for (size_t bit = 0; bit < message.size() * 8; ++bit) {
      bytes flipped = message;
      flipped[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
      ASSERT_EQ(bytes_answered_to(server.port, flipped), 0U) << "bit " << bit;
    }
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

TEST(server, wants_enough_descriptors_before_it_listens) {
  asio::io_context loop(1);
  server monitor(loop, {});
  const descriptor_limit too_few(15);
  EXPECT_EQ(monitor.listen(), "needs more than 15 descriptors (ulimit -n): 15");
}

// Counters are what the server can do without: files are still read, and clients come.
TEST(server, counters_leave_descriptors_for_the_rest) {
  const running_server server;
  cpu_stat_manager cpu(loopback, server.port);
  if (cpu.enable_perf_mon() < 0) {
    GTEST_SKIP() << "no counters on this machine";
  }
  cpu.disable_perf_mon();
  const descriptor_limit none_to_spare(samplers::reserved_descriptors);
  EXPECT_EQ(cpu.enable_perf_mon(), -EMFILE);
  peri_stat_manager next(loopback, server.port);
  check_answers(next);
}

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
  const int32_t status = status_of(next, request(1, mon_protocol::connection_hello));
  EXPECT_TRUE(status == 0 || status == -EUSERS) << status;
  raw_connection later(server.port);
  EXPECT_EQ(status_of(later, request(1, mon_protocol::connection_hello)), 0);
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

// Whoever causes an allocation that fails loses the connection, and nobody else anything.
TEST(server, failed_allocations_cost_only_their_client) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "allocations are the sanitizer's";
#endif
  const running_server server(reading(ZORVA_FIXTURES "/cpu64"));
  raw_connection bystander(server.port);
  const bytes hello = request(1, mon_protocol::connection_hello);
  EXPECT_EQ(status_of(bystander, hello), 0);
  const bytes greedy[] = {request(2, mon_protocol::cpu_usage_all),
                          request(3, mon_protocol::peri_meminfo)};
  for (const bytes& message : greedy) {
    raw_connection client(server.port);
    EXPECT_EQ(status_of(client, hello), 0);
    largest_allocation = 2000;
    EXPECT_EQ(status_of(client, message), INT32_MAX) << testing::PrintToString(message);
    raw_connection newcomer(server.port);
    EXPECT_EQ(status_of(newcomer, hello), INT32_MAX) << "there is no memory for a session";
    EXPECT_EQ(status_of(bystander, hello), 0);
    largest_allocation = SIZE_MAX;
    EXPECT_EQ(status_of(bystander, message), 0);
  }
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
  for (const auto& one : all) {
    EXPECT_EQ(status_of(*one, hello), 0);
  }
  // A client is told why, and one that says nothing is not waited for.
  raw_connection refused(server.port);
  EXPECT_EQ(status_of(refused, hello), -EUSERS);
  EXPECT_EQ(read_to_end(refused.socket), 0U);
  // Another address has its share of the places.
  raw_connection elsewhere(server.port, raw_connection::later);
  elsewhere.socket.bind({asio::ip::make_address("127.0.0.2"), 0});
  elsewhere.connect();
  EXPECT_EQ(status_of(elsewhere, hello), 0);
  all.pop_back();
  EXPECT_TRUE(wait_until([&] {
    raw_connection next(server.port);
    return status_of(next, hello) == 0;
  }));
}

// A process of a tree, with its threads' files beside its own.
void write_process(const temporary_folder& tree, int pid, const std::string& name, int start,
                   const std::string& line) {
  const std::string folder = "proc/" + std::to_string(pid);
  const std::string zeros = " 0 0 0 0 0 0 0 0 0 0 0 0 0 20 0 1 0 ";
  const std::string stat = std::to_string(pid) + " (" + name + ") S 1" + zeros +
                           std::to_string(start) + " 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0";
  tree.write(folder + "/stat", stat);
  tree.write(folder + "/task/" + std::to_string(pid) + "/stat", stat);
  tree.write(folder + "/cmdline", line);
}

TEST(server, command_lines_tell_processes_of_one_name_apart) {
  const temporary_folder tree;
  tree.write("proc/uptime", "10.00 1.00\n");
  for (int i = 1; i <= 5; ++i) {
    write_process(tree, i, "python3", 9,
                  std::string("/usr/bin/python3\0task", 21) + std::to_string(i) + '\0');
  }
  write_process(tree, 6, "kthread", 9, "");
  write_process(tree, 7, "fifo", 9, "");
  std::filesystem::remove(tree.file("proc/7/cmdline"));
  EXPECT_EQ(mkfifo(tree.file("proc/7/cmdline").c_str(), 0600), 0);
  const running_server server(reading(tree.path));
  cpu_stat_manager cpu(loopback, server.port);
  const auto shows = [&cpu](int mode, const std::vector<std::string>& ends) {
    std::string list;
    EXPECT_TRUE(wait_until([&] {
      std::ostringstream text;
      EXPECT_EQ(cpu.get_process_all(mode, &text), 0);
      list = text.str();
      return std::all_of(ends.begin(), ends.end(), [&list](const std::string& end) {
        return list.find(' ' + end + '\n') != std::string::npos;
      });
    })) << list;
  };
  for (const int mode : {0x0001, 0xff01}) {
    shows(mode, {"python3 task1", "python3 task2", "python3 task3", "python3 task4",
                 "python3 task5", "kthread", "fifo"});
  }
  write_process(tree, 2, "camera", 9, "camera --left");   // has executed another program
  write_process(tree, 3, "python3", 11, "python3 -V\n");  // the id's next owner
  shows(0x0001, {"python3 task1", "camera --left", "python3 -V?", "python3 task4"});
}

// Each path is a question of its own, and all are on one mount.
TEST(server, many_clients_with_many_paths_are_all_answered) {
  const temporary_folder folder;
  const running_server server;
  std::vector<std::unique_ptr<raw_connection>> clients;
  for (int i = 0; i < 10; ++i) {
    bytes paths;
    for (int k = 0; k < 16; ++k) {
      const std::string path = folder.file(std::to_string(i * 16 + k));
      std::filesystem::create_directory(path);
      paths.insert(paths.end(), path.begin(), path.end());
      paths.resize(paths.size() + 32 - path.size());
    }
    clients.push_back(std::make_unique<raw_connection>(server.port));
    send_bytes(clients.back()->socket, request(3, mon_protocol::peri_partitions, paths));
  }
  for (const auto& client : clients) {
    message_header header{};
    bytes payload;
    ASSERT_TRUE(read_message(client->socket, header, payload));
    std::vector<part_info> parts;
    ASSERT_TRUE(mon_protocol::decode_records(payload, parts));
    EXPECT_EQ(parts.size(), 16U);
    for (const part_info& part : parts) {
      EXPECT_NE(part.f_blocks, unknown_u64) << part.part_name;
    }
  }
}

// A list of 5,000 processes takes its time. What is asked after it is answered before it, also when
// its client has gone meanwhile.
TEST(server, no_answer_waits_for_a_process_list) {
  const temporary_folder tree;
  write_process(tree, 1, "crowd", 9, "");
  for (int i = 2; i <= 5000; ++i) {
    std::filesystem::create_directory_symlink("1", tree.file("proc/" + std::to_string(i)));
  }
  const running_server server(reading(tree.path));
  const bytes list = request(2, mon_protocol::cpu_process_list, {1, 0, 0, 0});
  raw_connection patient(server.port);
  {
    raw_connection leaving(server.port);
    EXPECT_TRUE(send_bytes(leaving.socket, list));
  }
  EXPECT_TRUE(send_bytes(patient.socket, list));
  raw_connection other(server.port);
  EXPECT_EQ(status_of(other, request(1, mon_protocol::connection_hello)), 0);
  EXPECT_EQ(patient.socket.available(), 0U);
  message_header answer{};
  EXPECT_TRUE(read_message(patient.socket, answer));
  EXPECT_EQ(answer.status, 0);
}

struct costly_sample {
  int64_t time_us = 0;
};

TEST(snapshots, one_that_takes_long_is_shared_and_kept) {
  snapshot_source<costly_sample> source(2);
  int taken = 0;
  int error = 0;
  const auto take = [&](costly_sample& sample, const costly_sample*) {
    sample.time_us = samplers::monotonic_us();
    ++taken;
    usleep(120000);
    return error;
  };
  for (int client = 0; client < 30; ++client) {
    rate_interval<costly_sample> interval;
    EXPECT_EQ(source.sample_into(interval, take), 0);
  }
  EXPECT_EQ(taken, 1);
  error = -EIO;
  std::shared_ptr<const costly_sample> found;
  EXPECT_TRUE(wait_until([&] { return source.newest(0, take, found) == -EIO; }));
  EXPECT_EQ(source.newest(0, take, found), -EIO);
  EXPECT_EQ(taken, 2);
}

double eth0_rate(net_stat_manager& net) {
  const std::string text = text_of(net, &net_stat_manager::get_bandwidth_stat);
  double rate = -1;
  const size_t figure = text.find_first_of("0123456789-", text.find("eth0 ") + 5);
  std::sscanf(text.c_str() + std::min(figure, text.size()), "%lf", &rate);
  return rate;
}

// The same bytes seen by a client over its long interval and by one that came later: each divides
// what it saw pass by the time that it watched.
TEST(server, each_client_has_rates_over_its_own_interval) {
  const temporary_folder tree;
  const auto received = [&tree](const std::string& total) {
    tree.write("proc/net/dev", "eth0: " + total + " 1 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n");
  };
  const running_server server(reading(tree.path));
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

// One after the other they have the same interval.
TEST(server, traffic_of_both_directions_together_and_of_each) {
  const temporary_folder tree;
  int transfers = 0;
  const auto transfer = [&] {
    ++transfers;
    tree.write("proc/net/dev", "eth0: " + std::to_string(transfers * 3072) + " 1 0 0 0 0 0 0 " +
                                   std::to_string(transfers * 1024) + " 0 2 3 0 0 0 0\n");
  };
  const running_server server(reading(tree.path));
  raw_connection connection(server.port);
  transfer();
  EXPECT_EQ(status_of(connection, request(6, mon_protocol::net_start)), 0);
  EXPECT_TRUE(wait_until([&] {
    transfer();
    const auto each = record_of<net_traffic>(connection, 6, mon_protocol::net_by_direction);
    const auto both = record_of<net_stat>(connection, 6, mon_protocol::net_bandwidth);
    EXPECT_EQ(each.errors + each.drops, 5U);
    return each.tx_rate > 0 && std::abs(each.rx_rate / each.tx_rate - 3) < 1e-9 &&
           std::abs(both.rate / each.tx_rate - 4) < 1e-9 && both.total == each.total;
  }));
}

TEST(server, machine_as_a_whole) {
  const temporary_folder tree;
  tree.write("proc/stat", "cpu  1 2 3 4\nprocs_running 5\nprocs_blocked 6\n");
  tree.write("proc/meminfo", "MemTotal: 10 kB\nSwapTotal: 8 kB\nSwapFree: 7 kB\n");
  tree.write("proc/pressure/memory", "some total=1000000\nfull total=0\n");
  tree.write("sys/block/zram0/mm_stat", "4096 74 8192 0 0 0 0\n");
  const running_server server(reading(tree.path));
  raw_connection connection(server.port);
  auto system = record_of<system_stat>(connection, 2, mon_protocol::cpu_system);
  EXPECT_TRUE(std::isnan(system.memory_full) && std::isnan(system.load_1));
  EXPECT_EQ(system.tasks_running, 5U);
  EXPECT_EQ(system.swap_free, 7U);
  EXPECT_EQ(system.zram_used, 8U);
  EXPECT_TRUE(wait_until([&] {
    system = record_of<system_stat>(connection, 2, mon_protocol::cpu_system);
    return system.memory_full == 0;
  }));
  EXPECT_TRUE(std::isnan(system.io_full));
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
