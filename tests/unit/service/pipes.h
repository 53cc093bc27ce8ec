#pragma once

#include <gtest/gtest.h>
#include <string>
#include <thread>

#include "tarnsvc/PipeSession.h"
#include "tests/support/service/wait.h"

namespace tarn::test {

// Makes both sides of a channel.
inline void OpenBoth(const std::wstring& name, CPipeSession& creating, CPipeSession& connecting) {
  std::thread other([&] { EXPECT_TRUE(connecting.connect(name, nullptr)); });
  EXPECT_TRUE(creating.create(name, nullptr));
  other.join();
}

// The next message; "(none)" when none comes.
inline std::string ReadSoon(CPipeSession& pipe) {
  std::shared_ptr<char> message;
  return WaitUntil([&] { return (message = pipe.read()) != nullptr; }) ? message.get() : "(none)";
}

}  // namespace tarn::test
