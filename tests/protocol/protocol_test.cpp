// SPDX-License-Identifier: Apache-2.0
// The messages against the worked examples of the protocol's page, and against what a peer may
// send.
#include "mon_protocol.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <map>
#include <sstream>

#include "mon_records.h"
#include "wrong_headers.h"

namespace {

using bytes = std::vector<uint8_t>;
using namespace mon_protocol;

// The blocks of the page that are fenced as "hex NAME".
std::map<std::string, bytes> examples() {
  std::ifstream page(PROTOCOL_PAGE);
  std::map<std::string, bytes> found;
  std::string name;
  for (std::string line; std::getline(page, line);) {
    if (line.rfind("```", 0) == 0) {
      name = line.rfind("```hex ", 0) == 0 ? line.substr(7) : "";
    } else if (!name.empty()) {
      std::istringstream row(line);
      for (unsigned byte = 0; row >> std::hex >> byte;) {
        found[name].push_back(static_cast<uint8_t>(byte));
      }
    }
  }
  return found;
}

TEST(protocol, examples_of_the_page_decode_and_encode_to_the_same_bytes) {
  const auto page = examples();
  const struct {
    const char* name;
    uint16_t command;
    uint16_t sub_command;
    message_type type;
    uint32_t client_id;
    int number;  // in the order of their times
    int32_t status;
  } rows[] = {
      {"hello-request", cmd_connection, connection_hello, type_request, 0, 0, 0},
      {"hello-answer", cmd_connection, connection_hello, type_answer, 7, 0, 0},
      {"process-list-request", cmd_cpu, cpu_process_list, type_request, 7, 1, 0},
      {"process-list-answer", cmd_cpu, cpu_process_list, type_answer, 7, 1, 0},
      {"partition-request", cmd_peri, peri_partitions, type_request, 7, 2, 0},
      {"partition-answer", cmd_peri, peri_partitions, type_answer, 7, 2, 0},
      {"bandwidth-answer", cmd_net, net_bandwidth, type_answer, 7, 3, 0},
      {"traffic-answer", cmd_net, net_by_direction, type_answer, 7, 5, 0},
      {"system-answer", cmd_cpu, cpu_system, type_answer, 7, 6, 0},
      {"perf-refused-answer", cmd_cpu, cpu_enable_perf, type_answer, 7, 4, -16},
      {"command-lines-request", cmd_cpu, cpu_command_lines, type_request, 7, 5, 0},
      {"command-lines-answer", cmd_cpu, cpu_command_lines, type_answer, 7, 5, 0},
  };
  EXPECT_EQ(page.size(), std::size(rows));
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const bytes& message = page.at(row.name);
    const uint8_t* const payload = message.data() + header_size;
    message_header header{};
    ASSERT_EQ(decode_header(message.data(), row.type, max_answer_payload, header), "");
    ASSERT_EQ(header.length, message.size() - header_size);
    EXPECT_TRUE(crc_matches(header, payload));

    message_header fresh{};
    fresh.command = row.command;
    fresh.sub_command = row.sub_command;
    fresh.type = row.type;
    fresh.client_id = row.client_id;
    fresh.timestamp_us = 1700000000000000U + static_cast<unsigned>(row.number);
    fresh.status = row.status;
    for (const message_header& one : {fresh, header}) {
      bytes again;
      encode(one, payload, header.length, again);
      EXPECT_EQ(again, message);
    }
  }
}

TEST(protocol, headers_that_cannot_be_one_are_told_apart) {
  for (const wrong_header& wrong : wrong_headers) {
    for (const message_type type : {type_request, type_answer}) {
      message_header header{};
      header.type = type;
      bytes message;
      encode(header, "data", 4, message);
      EXPECT_EQ(decode_header(message.data(), type, 4, header), "");
      message = wrong.of(message);
      EXPECT_EQ(decode_header(message.data(), type, 4, header).rfind(wrong.why, 0), 0U)
          << wrong.why;
      EXPECT_TRUE(header.length != 4 || crc_matches(header, message.data() + header_size));
    }
  }
}

// The records of an example, behind so many bytes of its payload.
template <class record>
std::vector<record> records_of(const std::string& name, size_t skipped = 0) {
  const bytes message = examples().at(name);
  std::vector<record> records;
  EXPECT_TRUE(decode_records(
      {message.begin() + static_cast<ptrdiff_t>(header_size + skipped), message.end()}, records));
  return records;
}

TEST(protocol, records_of_the_examples_hold_what_the_page_says) {
  const pid_msg process = records_of<pid_msg>("process-list-answer", 8).at(0);
  EXPECT_EQ(process.pid, 4242);
  EXPECT_STREQ(process.comm, "camera");
  EXPECT_EQ(process.process_usage, 150.0F);
  EXPECT_TRUE(std::isnan(process.net_band));
  EXPECT_EQ(process.rss, 20480);
  const system_stat system = records_of<system_stat>("system-answer").at(0);
  EXPECT_EQ(system.tasks, 118U);
  EXPECT_EQ(system.io_some, 0.25F);
  EXPECT_TRUE(std::isnan(system.memory_full));
  EXPECT_EQ(system.zram_used, 32768U);
  const auto devices = records_of<net_traffic>("traffic-answer");
  EXPECT_EQ(devices.at(0).tx_rate, 20.25);
  EXPECT_EQ(devices.at(0).drops, 41U);
  EXPECT_TRUE(std::isnan(devices.at(1).rx_rate));
  EXPECT_EQ(devices.at(1).errors, unknown_u64);
  const process_command command = records_of<process_command>("command-lines-answer").at(0);
  EXPECT_EQ(command.pid, 4242);
  EXPECT_STREQ(command.text, "/usr/bin/camera --left");
}

// The table of a record as the page has it, in the order of the offsets.
template <class described, size_t count>
std::string table_of(const described (&fields)[count], size_t start) {
  std::map<size_t, std::string> rows;
  for (const described& one : fields) {
    const mon_fields::field& field = mon_fields::field_of(one);
    std::ostringstream row;
    row << "| " << start + field.offset << " | " << name_of(field.type);
    if (field.type == mon_fields::value_type::text) {
      row << '[' << field.size << ']';
    }
    row << " | " << field.name << " | " << name_of(field.unit) << " | " << name_of(field.kind)
        << " | " << field.meaning << " |\n";
    rows[field.offset] = row.str();
  }
  std::string table;
  for (const auto& [offset, row] : rows) {
    table += row;
  }
  return table;
}

template <class record>
void expect_table(const std::string& page) {
  using description = mon_fields::description<record>;
  std::ostringstream table;
  table << '`' << description::name << "`, " << sizeof(record) << " bytes, at most "
        << description::most << " an answer, from " << description::source
        << ":\n\n| offset | type | field | unit | kind | meaning |\n|---|---|---|---|---|---|\n"
        << table_of(description::fields, 0);
  if constexpr (std::is_same_v<record, perf_sample>) {
    table << table_of(counter_fields::all, offsetof(perf_sample, counters));
  }
  EXPECT_NE(page.find(table.str()), std::string::npos) << "the page should have\n" << table.str();
}

template <class... records>
void expect_tables(const std::string& page, const std::tuple<records...>*) {
  (expect_table<records>(page), ...);
}

TEST(protocol, page_has_the_description_of_each_record) {
  std::ifstream file(PROTOCOL_PAGE);
  std::ostringstream page;
  page << file.rdbuf();
  expect_tables(page.str(), static_cast<const all_records*>(nullptr));
}

}  // namespace
