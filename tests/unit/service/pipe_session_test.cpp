#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <future>
#include <gtest/gtest.h>
#include <thread>

#include "common/posix.h"
#include "tarnsvc/PipeSession.h"
#include "tests/support/temp_folder.h"
#include "tests/unit/service/pipes.h"

namespace tarn::test {
namespace {

class PipeSessionTest : public testing::Test {
 protected:
  void TearDown() override {
    creating.close();
    connecting.close();
  }

  // Makes both sides of the channel.
  void Open() {
    const std::jthread other([&] { EXPECT_TRUE(connecting.connect(name, nullptr)); });
    EXPECT_TRUE(creating.create(name, nullptr));
  }
  // Puts raw bytes on the way to the creating side.
  void Inject(const std::string& bytes) {
    const UniqueFd fifo = OpenFile(FirstFifo(name), O_WRONLY);
    ASSERT_TRUE(WriteAll(fifo.get(), bytes.data(), bytes.size()));
  }

  const TempFolder folder;
  const std::wstring name = (folder.path() / "p").wstring();
  std::atomic<bool> gone{false};
  CPipeSession creating{[&] { return gone.load(); }};
  CPipeSession connecting{[&] { return gone.load(); }};
};

TEST_F(PipeSessionTest, CarriesWholeFramesOfSeveralThreadsBothWays) {
  Open();
  EXPECT_FALSE(creating.read());
  EXPECT_TRUE(creating.write("b"));
  EXPECT_EQ(ReadSoon(connecting), "b");
  const std::string large_a(1 << 20, 'a');
  const std::string large_b(1 << 20, 'b');
  const std::jthread first([&] { EXPECT_TRUE(connecting.write(large_a)); });
  const std::jthread second([&] { EXPECT_TRUE(connecting.write(large_b)); });
  const std::string one = ReadSoon(creating);
  const std::string two = ReadSoon(creating);
  EXPECT_TRUE((one == large_a && two == large_b) || (one == large_b && two == large_a));
}

TEST_F(PipeSessionTest, ALengthThatMakesNoSenseBreaksTheChannel) {
  Open();
  Inject("\xFF\xFF\xFF\xFF");
  EXPECT_FALSE(creating.read());
  EXPECT_FALSE(creating.is_connected());
}

TEST_F(PipeSessionTest, WhatArrivedBeforeTheEndIsStillRead) {
  Open();
  EXPECT_TRUE(connecting.write("last words"));
  Inject(std::string("\x05\0\0\0ab", 6));
  creating.mark_broken();
  EXPECT_EQ(ReadSoon(creating), "last words");
  EXPECT_FALSE(creating.read());  // half a frame, whose rest can't come any more
}

TEST_F(PipeSessionTest, AWriteToAPeerThatIsGoneFailsAndMarksTheChannel) {
  ::signal(SIGPIPE, SIG_IGN);
  Open();
  connecting.close();
  connecting.close();
  EXPECT_FALSE(creating.write("x"));
  EXPECT_FALSE(creating.is_connected());
}

TEST_F(PipeSessionTest, WaitsAreGivenUpWhenThePeerIsGone) {
  const auto later = [](auto wait) { return std::async(std::launch::async, wait); };
  auto create = later([&] { return creating.create(name, nullptr); });
  auto connect = later([&] { return connecting.connect(name + L"x", nullptr); });
  gone = true;
  EXPECT_FALSE(create.get());
  EXPECT_FALSE(connect.get());
}

}  // namespace
}  // namespace tarn::test
