// The messages against the worked examples of the protocol's page, and against what a peer may
// send.
#include "mon_protocol.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <map>
#include <sstream>

#include "mon_records.h"

namespace {

using bytes = std::vector<uint8_t>;
using namespace mon_protocol;

// The blocks of the page that are fenced as "hex NAME".
std::map<std::string, bytes> examples() {
  std::ifstream page(PROTOCOL_PAGE);
  std::map<std::string, bytes> found;
  std::string line;
  std::string name;
  while (std::getline(page, line)) {
    if (line.rfind("```hex ", 0) == 0) {
      name = line.substr(7);
    } else if (line == "```") {
      name.clear();
    } else if (!name.empty()) {
      std::istringstream row(line);
      unsigned byte = 0;
      while (row >> std::hex >> byte) {
        found[name].push_back(static_cast<uint8_t>(byte));
      }
    }
  }
  return found;
}

constexpr uint64_t example_time = 1700000000000000;

struct expectation {
  const char* name;
  uint16_t command;
  uint16_t sub_command;
  message_type type;
  uint32_t client_id;
  uint64_t timestamp_us;
  int32_t status;
};

TEST(protocol, examples_of_the_page_decode_and_encode_to_the_same_bytes) {
  const auto page = examples();
  const expectation all[] = {
      {"hello-request", cmd_connection, connection_hello, type_request, 0, example_time, 0},
      {"hello-answer", cmd_connection, connection_hello, type_answer, 7, example_time, 0},
      {"process-list-request", cmd_cpu, cpu_process_list, type_request, 7, example_time + 1, 0},
      {"process-list-answer", cmd_cpu, cpu_process_list, type_answer, 7, example_time + 1, 0},
      {"partition-request", cmd_peri, peri_partitions, type_request, 7, example_time + 2, 0},
      {"partition-answer", cmd_peri, peri_partitions, type_answer, 7, example_time + 2, 0},
      {"bandwidth-answer", cmd_net, net_bandwidth, type_answer, 7, example_time + 3, 0},
      {"perf-refused-answer", cmd_cpu, cpu_enable_perf, type_answer, 7, example_time + 4, -16},
  };
  EXPECT_EQ(page.size(), std::size(all));
  for (const expectation& one : all) {
    SCOPED_TRACE(one.name);
    ASSERT_EQ(page.count(one.name), 1u);
    const bytes& message = page.at(one.name);
    ASSERT_GE(message.size(), header_size);
    message_header header{};
    ASSERT_EQ(decode_header(message.data(), one.type, max_answer_payload, header), "");
    EXPECT_EQ(header.command, one.command);
    EXPECT_EQ(header.sub_command, one.sub_command);
    EXPECT_EQ(header.client_id, one.client_id);
    EXPECT_EQ(header.timestamp_us, one.timestamp_us);
    EXPECT_EQ(header.status, one.status);
    ASSERT_EQ(header.length, message.size() - header_size);
    EXPECT_TRUE(crc_matches(header, message.data() + header_size));

    bytes again;
    message_header fresh{};
    fresh.command = one.command;
    fresh.sub_command = one.sub_command;
    fresh.type = one.type;
    fresh.client_id = one.client_id;
    fresh.timestamp_us = one.timestamp_us;
    fresh.status = one.status;
    encode(fresh, message.data() + header_size, header.length, again);
    EXPECT_EQ(again, message);
  }
}

TEST(protocol, records_of_the_examples_hold_what_the_page_says) {
  const auto page = examples();
  const auto payload = [&](const char* name, size_t from) {
    const bytes& message = page.at(name);
    return bytes(message.begin() + static_cast<long>(header_size + from), message.end());
  };
  std::vector<pid_msg> list;
  ASSERT_TRUE(decode_records(payload("process-list-answer", 8), max_pid_msgs, list));
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0].pid, 4242);
  EXPECT_STREQ(list[0].comm, "camera");
  EXPECT_EQ(list[0].process_usage, 150.0F);
  EXPECT_TRUE(std::isnan(list[0].net_band));
  EXPECT_EQ(list[0].rss, 20480);

  std::vector<part_info> parts;
  ASSERT_TRUE(decode_records(payload("partition-answer", 0), 16, parts));
  ASSERT_EQ(parts.size(), 1u);
  EXPECT_STREQ(parts[0].part_name, "/userdata");
  EXPECT_EQ(parts[0].f_blocks * parts[0].f_frsize, 20ull << 30);

  std::vector<net_stat> devices;
  ASSERT_TRUE(decode_records(payload("bandwidth-answer", 0), 16, devices));
  ASSERT_EQ(devices.size(), 2u);
  EXPECT_EQ(devices[0].rate, 120.5);
}

// Flips each bit of a message in turn: none may pass for a good one.
TEST(protocol, every_flipped_bit_is_found) {
  const bytes good = examples().at("process-list-answer");
  for (size_t bit = 0; bit < good.size() * 8; ++bit) {
    bytes bad = good;
    bad[bit / 8] = static_cast<uint8_t>(bad[bit / 8] ^ (1U << (bit % 8)));
    message_header header{};
    const std::string why = decode_header(bad.data(), type_answer, max_answer_payload, header);
    const bool passes = why.empty() && header.length == good.size() - header_size &&
                        crc_matches(header, bad.data() + header_size);
    EXPECT_FALSE(passes) << "bit " << bit;
  }
}

TEST(protocol, header_says_why_it_is_refused) {
  const bytes good = examples().at("hello-answer");
  const auto why = [&](size_t offset, uint8_t value, message_type type, uint32_t most) {
    bytes bad = good;
    bad[offset] = value;
    message_header header{};
    return decode_header(bad.data(), type, most, header);
  };
  EXPECT_EQ(why(0, 'G', type_answer, 0), "no message of this protocol");
  EXPECT_EQ(why(4, 2, type_answer, 0), "protocol version 2, expected 1");
  EXPECT_EQ(why(0, 0xf5, type_request, 0), "message type 2, expected 1");
  EXPECT_EQ(why(18, 2, type_answer, 0), "packet 0 of 2");
  EXPECT_EQ(why(15, 0xff, type_answer, 65536),
            "payload of 4278190080 bytes, at most 65536 allowed");
}

TEST(protocol, fractions_of_records_and_too_many_are_refused) {
  std::vector<vio_stat> records(3);
  EXPECT_FALSE(decode_records(bytes(sizeof(vio_stat) + 1), 8, records));
  EXPECT_TRUE(records.empty());
  EXPECT_FALSE(decode_records(bytes(sizeof(vio_stat) * 9), 8, records));
  EXPECT_TRUE(decode_records(bytes(sizeof(vio_stat) * 8), 8, records));
  EXPECT_EQ(records.size(), 8u);
  EXPECT_TRUE(decode_records(bytes(), 8, records));
}

}  // namespace
