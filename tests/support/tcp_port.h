#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "agent/unique_fd.h"

namespace tidegate::test {

// A loopback port that refuses connections unless it is to `listen`.
struct Port {
  explicit Port(bool listen) : fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* const raw = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(::bind(fd.get(), raw, size), 0);
    EXPECT_EQ(listen ? ::listen(fd.get(), 1) : 0, 0);
    EXPECT_EQ(::getsockname(fd.get(), raw, &size), 0);
    number = ntohs(address.sin_port);
  }
  agent::UniqueFd Accept() const { return agent::UniqueFd(::accept(fd.get(), nullptr, nullptr)); }

  const agent::UniqueFd fd;
  int number = 0;
};

}  // namespace tidegate::test
