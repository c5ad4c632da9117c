// SPDX-License-Identifier: Apache-2.0
#include "name_lookup.h"

#include <netdb.h>
#include <string.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

namespace {

struct lookup_result {
  std::string why;  // empty when it went well
  std::vector<socket_address> addresses;
};

lookup_result ask(const std::string& host, int port, int flags) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  lookup_result result;
  const int error = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (error != 0) {
    result.why = error == EAI_SYSTEM ? strerror(errno) : gai_strerror(error);
    return result;
  }
  for (const addrinfo* one = found; one != nullptr; one = one->ai_next) {
    socket_address address;
    memcpy(&address.storage, one->ai_addr, one->ai_addrlen);
    address.length = one->ai_addrlen;
    result.addresses.push_back(address);
  }
  freeaddrinfo(found);
  return result;
}

}  // namespace

std::string look_up(const std::string& host, int port, int timeout_ms,
                    std::vector<socket_address>& addresses) {
  lookup_result result = ask(host, port, AI_NUMERICHOST);
  if (!result.why.empty()) {
    auto promised = std::make_shared<std::promise<lookup_result>>();
    auto answer = promised->get_future();
    try {
      std::thread([promised, host, port] { promised->set_value(ask(host, port, 0)); }).detach();
    } catch (const std::system_error& error) {
      return std::string("the host name cannot be looked up: ") + error.what();
    }
    if (answer.wait_for(std::chrono::milliseconds(timeout_ms)) != std::future_status::ready) {
      return "the host name could not be looked up in time";
    }
    result = answer.get();
  }
  addresses = std::move(result.addresses);
  return result.why;
}
