#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "common/frame.h"
#include "common/posix.h"
#include "tarnsvc/PipeSession.h"
#include "tests/support/temp_folder.h"

namespace {

class PipeSessionTest : public testing::Test {
 protected:
  // Both sides, connected.
  void Open() {
    std::thread other([&] { EXPECT_TRUE(connecting.connect(name, nullptr)); });
    EXPECT_TRUE(creating.create(name, nullptr));
    other.join();
  }
  void TearDown() override {
    creating.close();
    connecting.close();
  }

  // Puts raw bytes on the way to the creating side.
  void Inject(const std::string& bytes) {
    const tarn::UniqueFd fifo = tarn::OpenFile(tarn::FirstFifo(name), O_WRONLY);
    ASSERT_TRUE(tarn::WriteAll(fifo.get(), bytes.data(), bytes.size()));
  }

  static std::string Text(const std::shared_ptr<char>& message) {
    return message ? message.get() : "(none)";
  }
  static std::string WaitText(CPipeSession& pipe) {
    for (int i = 0; i < 500; ++i) {
      if (const auto message = pipe.read()) {
        return message.get();
      }
      tarn::PausePipePoll();
    }
    return "(none)";
  }

  const tarn::test::TempFolder folder;
  const std::wstring name = std::filesystem::path(folder.path() / "p").wstring();
  std::atomic<bool> gone{false};
  CPipeSession creating{[&] { return gone.load(); }};
  CPipeSession connecting{[&] { return gone.load(); }};
};

TEST_F(PipeSessionTest, CarriesFramesBothWaysOverStaleFiles) {
  folder.Write("p_1", "stale");
  folder.Write("p_2", "stale");
  std::thread other([&] {
    // Comes second: a stale plain file would be opened otherwise.
    struct stat status = {};
    while (::stat(tarn::FirstFifo(name).c_str(), &status) != 0 || !S_ISFIFO(status.st_mode)) {
      tarn::PausePipePoll();
    }
    EXPECT_TRUE(connecting.connect(name, nullptr));
  });
  ASSERT_TRUE(creating.create(name, nullptr));
  other.join();
  EXPECT_FALSE(creating.read());
  EXPECT_TRUE(connecting.write(R"({"cmd":"a"})"));
  EXPECT_TRUE(creating.write("b"));
  EXPECT_EQ(Text(creating.read()), R"({"cmd":"a"})");
  EXPECT_EQ(Text(connecting.read()), "b");
}

TEST_F(PipeSessionTest, LargeFramesOfTwoThreadsArriveWhole) {
  Open();
  const std::string large_a(1 << 20, 'a');
  const std::string large_b(1 << 20, 'b');
  std::thread first([&] { EXPECT_TRUE(connecting.write(large_a)); });
  std::thread second([&] { EXPECT_TRUE(connecting.write(large_b)); });
  const std::string one = WaitText(creating);
  const std::string two = WaitText(creating);
  first.join();
  second.join();
  EXPECT_TRUE((one == large_a && two == large_b) || (one == large_b && two == large_a));
}

TEST_F(PipeSessionTest, ALengthThatMakesNoSenseBreaksTheChannel) {
  for (const std::string& header :
       {std::string("\xFF\xFF\xFF\xFF", 4), std::string("\0\0\0\x7F", 4)}) {
    CPipeSession creator;
    CPipeSession connector;
    std::thread other([&] { EXPECT_TRUE(connector.connect(name, nullptr)); });
    ASSERT_TRUE(creator.create(name, nullptr));
    other.join();
    Inject(header);
    EXPECT_FALSE(creator.read());
    EXPECT_FALSE(creator.is_connected());
    creator.close();
    connector.close();
  }
}

TEST_F(PipeSessionTest, WhatArrivedBeforeTheEndIsStillRead) {
  Open();
  EXPECT_TRUE(connecting.write("last words"));
  Inject(std::string("\x05\0\0\0ab", 6));
  creating.mark_broken();
  EXPECT_EQ(Text(creating.read()), "last words");
  EXPECT_FALSE(creating.read());  // half a frame, whose rest can't come any more
}

TEST_F(PipeSessionTest, WaitsAreGivenUpWhenThePeerIsGone) {
  std::atomic<int> ended{0};
  CPipeSession waiting{[&] { return gone.load(); }};
  std::thread create([&] {
    EXPECT_FALSE(creating.create(name, nullptr));
    ++ended;
  });
  std::thread connect([&] {
    EXPECT_FALSE(waiting.connect(name + L"x", nullptr));
    ++ended;
  });
  EXPECT_EQ(ended, 0);
  gone = true;
  create.join();
  connect.join();
  EXPECT_EQ(ended, 2);
}

TEST_F(PipeSessionTest, AWriteToAPeerThatIsGoneFailsAndMarksTheChannel) {
  ::signal(SIGPIPE, SIG_IGN);
  Open();
  connecting.close();
  connecting.close();
  EXPECT_FALSE(creating.write("x"));
  EXPECT_FALSE(creating.is_connected());
  EXPECT_FALSE(creating.write(""));
}

TEST_F(PipeSessionTest, OnlyTheCreatingSideRemovesTheFiles) {
  {
    CPipeSession creator;
    {
      CPipeSession connector;
      std::thread other([&] { EXPECT_TRUE(connector.connect(name, nullptr)); });
      EXPECT_TRUE(creator.create(name, nullptr));
      other.join();
      connector.close();
    }
    EXPECT_TRUE(std::filesystem::exists(tarn::FirstFifo(name)));
    creator.close();
  }
  EXPECT_FALSE(std::filesystem::exists(tarn::FirstFifo(name)));
  EXPECT_FALSE(std::filesystem::exists(tarn::SecondFifo(name)));
}

TEST_F(PipeSessionTest, DescriptorsAreNotInherited) {
  const auto inheritable = [] {
    std::vector<int> descriptors;
    for (int fd = 0; fd < 64; ++fd) {
      if (const int flags = ::fcntl(fd, F_GETFD); flags >= 0 && (flags & FD_CLOEXEC) == 0) {
        descriptors.push_back(fd);
      }
    }
    return descriptors;
  };
  const std::vector<int> before = inheritable();
  Open();
  EXPECT_EQ(inheritable(), before);
}

}  // namespace
