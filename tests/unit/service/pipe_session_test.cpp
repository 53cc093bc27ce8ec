#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <future>
#include <gtest/gtest.h>
#include <thread>

#include "common/posix.h"
#include "tarnsvc/PipeSession.h"
#include "tests/support/temp_folder.h"
#include "tests/unit/service/pipes.h"

namespace tarn {
namespace {

class PipeSessionTest : public testing::Test {
 protected:
  void TearDown() override {
    creating.close();
    connecting.close();
  }

  // Puts raw bytes on the way to the creating side.
  void Inject(const std::string& bytes) {
    const UniqueFd fifo = OpenFile(FirstFifo(name), O_WRONLY);
    ASSERT_TRUE(WriteAll(fifo.get(), bytes.data(), bytes.size()));
  }

  const test::TempFolder folder;
  const std::wstring name = std::filesystem::path(folder.path() / "p").wstring();
  std::atomic<bool> gone{false};
  CPipeSession creating{[&] { return gone.load(); }};
  CPipeSession connecting{[&] { return gone.load(); }};
};

TEST_F(PipeSessionTest, CarriesWholeFramesOfSeveralThreadsBothWaysOverStaleFiles) {
  folder.Write("p_1", "stale");
  folder.Write("p_2", "stale");
  std::thread other([&] {
    // Comes second: a stale plain file would be opened otherwise.
    EXPECT_TRUE(test::WaitUntil([&] { return std::filesystem::is_fifo(FirstFifo(name)); }));
    EXPECT_TRUE(connecting.connect(name, nullptr));
  });
  ASSERT_TRUE(creating.create(name, nullptr));
  other.join();
  EXPECT_FALSE(creating.read());
  EXPECT_TRUE(creating.write("b"));
  EXPECT_EQ(test::ReadSoon(connecting), "b");
  const std::string large_a(1 << 20, 'a');
  const std::string large_b(1 << 20, 'b');
  std::thread first([&] { EXPECT_TRUE(connecting.write(large_a)); });
  std::thread second([&] { EXPECT_TRUE(connecting.write(large_b)); });
  const std::string one = test::ReadSoon(creating);
  const std::string two = test::ReadSoon(creating);
  first.join();
  second.join();
  EXPECT_TRUE((one == large_a && two == large_b) || (one == large_b && two == large_a));
}

// Also: only the creating side removes the files.
TEST_F(PipeSessionTest, ALengthThatMakesNoSenseBreaksTheChannel) {
  for (const std::string& header :
       {std::string("\xFF\xFF\xFF\xFF", 4), std::string("\0\0\0\x7F", 4)}) {
    {
      CPipeSession creator;
      {
        CPipeSession connector;
        test::OpenBoth(name, creator, connector);
        Inject(header);
        EXPECT_FALSE(creator.read());
        EXPECT_FALSE(creator.is_connected());
        connector.close();
      }
      EXPECT_TRUE(std::filesystem::exists(FirstFifo(name)));
      creator.close();
    }
    EXPECT_FALSE(std::filesystem::exists(FirstFifo(name)));
    EXPECT_FALSE(std::filesystem::exists(SecondFifo(name)));
  }
}

TEST_F(PipeSessionTest, WhatArrivedBeforeTheEndIsStillRead) {
  test::OpenBoth(name, creating, connecting);
  EXPECT_TRUE(connecting.write("last words"));
  Inject(std::string("\x05\0\0\0ab", 6));
  creating.mark_broken();
  EXPECT_EQ(test::ReadSoon(creating), "last words");
  EXPECT_FALSE(creating.read());  // half a frame, whose rest can't come any more
}

TEST_F(PipeSessionTest, AWriteToAPeerThatIsGoneFailsAndMarksTheChannel) {
  ::signal(SIGPIPE, SIG_IGN);
  test::OpenBoth(name, creating, connecting);
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
}  // namespace tarn
