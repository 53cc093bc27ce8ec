#pragma once

#include <string>

#include "tests/support/http/child_process.h"

namespace tarn::test {

// echo_server.py on loopback for the life of this object.
class EchoServer {
 public:
  EchoServer() : process({"python3", TARN_HTTP_SUPPORT_FOLDER "/echo_server.py"}) {
    port = process.ReadLine();
  }

  // Empty when the server could not be started.
  [[nodiscard]] std::string Url(const std::string& path) const {
    return port.empty() ? "" : "http://127.0.0.1:" + port + path;
  }

 private:
  ChildProcess process;
  std::string port;
};

}  // namespace tarn::test
