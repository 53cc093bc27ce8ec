#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "common/posix.h"

namespace tarn::test {

// A socket bound to a port of its own on loopback.
struct Endpoint {
  Endpoint() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* any = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(::bind(socket.get(), any, length), 0);
    EXPECT_EQ(::getsockname(socket.get(), any, &length), 0);
    port = ntohs(address.sin_port);
  }
  UniqueFd socket = OpenSocket(AF_INET, SOCK_STREAM);
  int port = 0;
};

}  // namespace tarn::test
