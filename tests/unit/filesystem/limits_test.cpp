// What a drive does when its remote hangs or is gone.
#include <cerrno>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <thread>

#include "platform/filesystem/remote.h"
#include "platform/filesystem/volume.h"
#include "tests/support/service/wait.h"
#include "tests/unit/filesystem/direct_calls.h"
#include "tests/unit/filesystem/lent_libraries.h"

namespace tarn::test {
namespace {

using std::chrono::milliseconds;

fs::Limits ShortLimits() {
  fs::Limits limits;
  limits.metadata = limits.read = limits.upload_stall = milliseconds(200);
  limits.doubt = limits.probe = limits.cancel = limits.close = milliseconds(50);
  limits.pauses = {milliseconds(5), milliseconds(20)};
  return limits;
}

// Instead of the machine's own sleep.
std::atomic<std::chrono::nanoseconds> asleep = {};

class LimitsTest : public testing::Test {
 protected:
  LimitsTest() { files->AddProtocol(shared); }
  ~LimitsTest() override { protocol.SetHanging(false); }

  bool IsReachable() { return files->GetRemote().IsReachable(); }

  LentLibraries libraries;
  // Shared with the calls that were left behind in it.
  const std::shared_ptr<MemoryProtocol> shared = std::make_shared<MemoryProtocol>();
  MemoryProtocol& protocol = *shared;
  // Attributes expire at once, so that only the remote's absence lets them be believed.
  Drive drive{std::make_shared<fs::FileSystem>(milliseconds(1), ShortLimits())};
  const std::shared_ptr<fs::FileSystem>& files = drive.files;
};

TEST_F(LimitsTest, EveryCallComesBackFromARemoteThatNeverAnswersAndLaterOnesAtOnce) {
  protocol.Write("/file", "content");
  const int file = drive.Opened("/file", O_RDONLY);
  protocol.SetHanging(true);
  std::string content;
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(drive.Read(file, 0, 10, content), EIO);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, milliseconds(5000));
  EXPECT_TRUE(WaitUntil([&] { return !IsReachable(); }));
  const int infos = protocol.infos;
  for (int i = 0; i < 300; ++i) {
    EXPECT_EQ(drive.Unlink("/other"), EIO);
    EXPECT_EQ(drive.MakeFolder("/folder"), EIO);
  }
  EXPECT_LT(protocol.infos, infos + 10) << "nothing but probes reaches the remote, and few";
  protocol.SetHanging(false);
  EXPECT_TRUE(WaitUntil([&] { return IsReachable(); }));
  EXPECT_EQ(drive.ReadAt(file, 0, 10), "content");
  const auto texts = drive.events->Texts();
  EXPECT_EQ(std::count(texts.begin(), texts.end(), "error 1 / 17"), 1);
  drive.Close(file);
}

TEST_F(LimitsTest, WhatIsKnownAndCachedStaysUsableWhileTheRemoteIsGone) {
  protocol.Write("/folder/read", "content");
  protocol.Write("/folder/other", "never read");
  (void)drive.Names("/folder");
  ASSERT_EQ(drive.Content("/folder/read"), "content");
  const int unsent = drive.Opened("/folder/unsent", O_RDWR | O_CREAT);
  protocol.failure = DEVICE_NOT_READY;
  // Something may have been answered just now, and count as a sign of life.
  ASSERT_TRUE(WaitUntil([&] { return drive.MakeFolder("/folder/no") != 0 && !IsReachable(); }));
  EXPECT_EQ(drive.Names("/folder"), (std::vector<std::string>{"other", "read", "unsent"}));
  EXPECT_EQ(drive.Content("/folder/read"), "content");
  EXPECT_EQ(drive.Content("/folder/other"), "(error)");
  EXPECT_EQ(drive.Write(unsent, 0, "written"), 0);
  EXPECT_EQ(drive.ReadAt(unsent, 0, 10), "written");
  const int made = drive.Opened("/folder/new", O_WRONLY | O_CREAT);
  protocol.failure = SUCCESS;
  ASSERT_TRUE(WaitUntil([&] { return IsReachable(); }));
  EXPECT_EQ(drive.Close(made), 0);
  EXPECT_EQ(drive.Close(unsent), 0);
  EXPECT_EQ(protocol.Content("/folder/unsent"), "written");
}

TEST_F(LimitsTest, ASingleFailureDoesNotMakeAHealthyRemoteUnreachable) {
  protocol.Write("/file", "content");
  libraries.WaitIdle();  // until the space was asked for
  protocol.fails_once = true;
  protocol.failure = DEVICE_NOT_READY;
  const int infos = protocol.infos;
  fs::Attributes attributes;
  EXPECT_EQ(files->GetRemote().GetInfo("/file", attributes), DEVICE_NOT_READY);
  EXPECT_TRUE(WaitUntil([&] { return protocol.infos > infos + 1; })) << "it is asked again";
  protocol.failure = ACCESS_DENIED;  // an answer all the same
  EXPECT_EQ(files->GetRemote().GetInfo("/file", attributes), ACCESS_DENIED);
  EXPECT_TRUE(IsReachable());
}

TEST_F(LimitsTest, AChangeLeftBehindKeepsOthersFromItsPlaceUntilItHasEnded) {
  fs::Remote remote(ShortLimits());
  remote.Add(shared);
  protocol.SetHanging(true);
  EXPECT_EQ(remote.CreateFolder("/folder"), DEVICE_NOT_READY);
  EXPECT_TRUE(WaitUntil([&] { return !remote.IsReachable(); }));
  EXPECT_FALSE(remote.Close()) << "the module still works";
  protocol.SetHanging(false);
  EXPECT_TRUE(WaitUntil([&] { return remote.Close(); }));
  fs::Attributes attributes;
  EXPECT_EQ(remote.GetInfo("/folder", attributes), DEVICE_NOT_READY) << "and not: is not there";
  EXPECT_EQ(protocol.Paths(), std::vector<std::string>{"/folder"}) << "it happened after all";
}

TEST_F(LimitsTest, AfterTheMachineHasSleptNothingIsBelievedAndReadingBeginsAnew) {
  fs::Limits limits = ShortLimits();
  limits.read = milliseconds(60'000);
  limits.asleep = [] { return asleep.load(); };
  Drive sleeper(std::make_shared<fs::FileSystem>(std::chrono::hours(1), limits));
  sleeper.files->AddProtocol(shared);
  protocol.Write("/file", "old");
  EXPECT_EQ(sleeper.Content("/file"), "old");
  protocol.Write("/file", "newer");
  std::uint64_t size = 0;
  for (const std::uint64_t expected : {3U, 5U}) {
    sleeper.files->NoticeResume();
    EXPECT_EQ(sleeper.GetSize("/file", size), 0);
    EXPECT_EQ(size, expected);
    asleep = std::chrono::hours(1);
  }
  protocol.latency_ms = 3'600'000;
  const int reads = protocol.reads;
  const auto buffer = fs::Buffer::Make(10);
  size_t received = 0;
  std::thread program([&] {
    fs::Remote& remote = sleeper.files->GetRemote();
    EXPECT_EQ(remote.Read(0, "/file", 0, buffer, received), SUCCESS);
  });
  EXPECT_TRUE(WaitUntil([&] { return protocol.reads > reads; }));
  protocol.latency_ms = 0;
  asleep = std::chrono::hours(2);
  program.join();
  EXPECT_EQ(std::string(buffer->data(), received), "newer");
}

// A mounted volume with limits of the test's choice.
class LimitedVolumeTest : public testing::Test {
 protected:
  void SetUp() override {
    TARN_SKIP_WITHOUT_FUSE();
    fs::Limits limits = ShortLimits();
    limits.doubt = milliseconds(1000);
    limits.metadata = limits.read = milliseconds(60'000);
    limits.signal_grace = milliseconds(20);
    volume = std::make_shared<fs::Volume>(path, limits);
    ASSERT_EQ(volume->Start("drive"), SUCCESS);
    ASSERT_EQ(volume->AddProtocol(shared), SUCCESS);
  }
  void TearDown() override {
    protocol.SetHanging(false);
    if (volume) {
      EXPECT_EQ(volume->Stop(), SUCCESS);
    }
  }
  std::string Extended(const std::string& of, const char* name) {  // or the error's number
    std::string value(200, '\0');
    const ssize_t length = ::getxattr((path + of).c_str(), name, value.data(), value.size());
    return length < 0 ? std::to_string(errno) : value.substr(0, static_cast<size_t>(length));
  }

  TempFolder folder;
  const std::string path = folder.path() / "volume";
  FolderCalls calls{path};
  // Shared with the calls that were left behind in it.
  const std::shared_ptr<MemoryProtocol> shared = std::make_shared<MemoryProtocol>();
  MemoryProtocol& protocol = *shared;
  std::shared_ptr<fs::Volume> volume;
};

TEST_F(LimitedVolumeTest, AProgramThatWaitsForADeadRemoteCanBeKilledAndHoldsUpNobody) {
  protocol.Write("/folder/file", std::string(4 << 20, 'x'));
  (void)calls.Names("/folder");
  const int file = calls.Opened("/folder/file", O_RDONLY);
  protocol.SetHanging(true);
  const int reads = protocol.reads;
  const pid_t program = ::fork();
  if (program == 0) {
    char byte = 0;
    ::_exit(::pread(file, &byte, 1, 3 << 20) == 1 ? 0 : 1);
  }
  (void)calls.Close(file);
  EXPECT_TRUE(WaitUntil([&] { return protocol.reads > reads; }));
  EXPECT_EQ(::kill(program, SIGINT), 0);
  int status = 0;
  EXPECT_TRUE(WaitUntil([&] { return ::waitpid(program, &status, WNOHANG) == program; }));
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT);
  EXPECT_EQ(Extended("", "user.tarn.remote"), "ok") << "that was quick";
  struct statvfs space = {};
  EXPECT_EQ(::statvfs(path.c_str(), &space), 0);
  (void)calls.Names("/folder");
  const int asked = protocol.infos + protocol.lists;
  std::thread waiting([&] { EXPECT_NE(calls.Unlink("/other"), 0); });
  EXPECT_TRUE(WaitUntil([&] { return protocol.infos + protocol.lists > asked; }));
  EXPECT_EQ(volume->Stop(), SUCCESS);
  waiting.join();
}

TEST_F(LimitedVolumeTest, TheStateOfFilesAndOfTheDriveIsSeenWithoutTheRemote) {
  protocol.Write("/file", "content");
  EXPECT_EQ(Extended("/file", "user.tarn.state"), "clean");
  const int infos = protocol.infos;
  EXPECT_EQ(Extended("/file", "security.capability"), std::to_string(ENODATA));
  EXPECT_EQ(protocol.infos, infos);
  const int unsent = calls.Opened("/unsent", O_WRONLY | O_CREAT);
  EXPECT_EQ(calls.Write(unsent, 0, "12345"), 0);
  EXPECT_EQ(Extended("/unsent", "user.tarn.state"), "unsent");
  EXPECT_EQ(Extended("", "user.tarn.unsent"), "1 files, 5 bytes");
  EXPECT_EQ(calls.Close(unsent), 0);
}

}  // namespace
}  // namespace tarn::test
