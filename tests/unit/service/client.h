#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>

#include "common/frame.h"
#include "common/posix.h"

namespace tarn::test {

// A client of the server under test.
class Client {
 public:
  explicit Client(int port) : socket(OpenSocket(AF_INET, SOCK_STREAM)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const timeval limit = {10, 0};
    (void)::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    EXPECT_EQ(::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }

  void SendRaw(const std::string& bytes) {
    EXPECT_TRUE(WriteAll(socket.get(), bytes.data(), bytes.size()));
  }
  void Send(const std::string& body) { SendRaw(Frame(body)); }

  static std::string Frame(const std::string& body) {
    const FrameHeader header = EncodeFrameHeader(static_cast<int>(body.size()));
    return std::string(header.begin(), header.end()) + body;
  }

  // The next body; "(closed)" at the end of the connection, or when nothing came for 10 s.
  std::string Receive() {
    FrameHeader header = {};
    if (!ReceiveAll(header.data(), header.size())) {
      return "(closed)";
    }
    std::string body(static_cast<size_t>(DecodeFrameHeader(header)), '\0');
    EXPECT_TRUE(ReceiveAll(body.data(), body.size()));
    return body;
  }

  std::string Ask(const std::string& body) {
    Send(body);
    return Receive();
  }

  // Returns once everything sent before has been handled.
  void Settle() {
    EXPECT_EQ(Ask(R"({"cmd":"get_drive_list"})"), R"({"cmd":"get_drive_list", "drives": []})");
  }

  UniqueFd socket;

 private:
  bool ReceiveAll(void* buffer, size_t size) {
    return size == 0 || RetryOnInterrupt([&] {
                          return ::recv(socket.get(), buffer, size, MSG_WAITALL);
                        }) == static_cast<ssize_t>(size);
  }
};

}  // namespace tarn::test
