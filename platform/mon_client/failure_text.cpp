// SPDX-License-Identifier: Apache-2.0
// The line that stands in place of figures when a query failed.
#include <fmt/format.h>

#include <cerrno>
#include <cstring>

#include "mon_protocol.h"
#include "text_tools.h"
#include "texts.h"

namespace texts {
namespace {

std::string reason(int status) {
  switch (-status) {
    case ETIMEDOUT:
      return "timed out";
    case EUSERS:
      return full_server();
    default:
      return strerror(-status);
  }
}

// What is said, from the longest to the shortest.
std::vector<std::string> sayings(const failed_query& query) {
  const std::string why = reason(query.status);
  const std::string_view server = query.server;
  if (server.empty()) {
    return {why};  // nobody was asked
  }
  if (query.answered) {
    return {fmt::format("the server has no figures: {}", why), fmt::format("no figures: {}", why),
            "no figures"};
  }
  if (query.status == -EUSERS) {
    return {fmt::format("{}: {}", server, why), why, "server full"};
  }
  if (query.status == -EBADMSG) {
    return {fmt::format("bad answer from {}", server), "bad answer"};
  }
  return {fmt::format("no answer from {}: {}", server, why), fmt::format("no answer: {}", why),
          "no answer"};
}

}  // namespace

std::string full_server() {
  return fmt::format("the monitor server is full ({} connections)", mon_protocol::most_connections);
}

std::string failure(const failed_query& query, size_t width) {
  const bool brackets = query.form == text_form::brackets;
  const std::vector<std::string> all = sayings(query);
  std::string text;
  for (const std::string& saying : all) {
    text = brackets ? fmt::format("[{} {}]", query.name, saying)
                    : fmt::format("{}  {}", query.name, saying);
    if (text.size() <= width) {
      break;
    }
  }
  if (text.size() > width) {
    text = text_tools::cut(brackets ? text : all.back(), width);
  }
  return query.form == text_form::ended_line ? text + '\n' : text;
}

}  // namespace texts
