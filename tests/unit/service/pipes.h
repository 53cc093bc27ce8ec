#pragma once

#include <string>

#include "tarnsvc/PipeSession.h"
#include "tests/support/service/wait.h"

namespace tarn::test {

// The next message; "(none)" when none comes.
inline std::string ReadSoon(CPipeSession& pipe) {
  std::shared_ptr<char> message;
  return WaitUntil([&] { return (message = pipe.read()) != nullptr; }) ? message.get() : "(none)";
}

}  // namespace tarn::test
