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

#include "platform/filesystem/reachability.h"
#include "platform/filesystem/remote.h"
#include "platform/filesystem/volume.h"
#include "tests/support/service/wait.h"
#include "tests/unit/filesystem/direct_calls.h"
#include "tests/unit/filesystem/lent_libraries.h"

namespace tarn::test {
namespace {

using std::chrono::milliseconds;

// Shared with the calls that were left behind in it.
struct SharedProtocol final : MemoryProtocol {};

fs::Limits ShortLimits() {
  fs::Limits limits;
  limits.metadata = limits.read = limits.upload_stall = milliseconds(200);
  limits.doubt = limits.probe = limits.cancel = limits.close = milliseconds(50);
  limits.pauses = {milliseconds(5), milliseconds(20)};
  return limits;
}

TEST(ReachabilityTest, OnlyARemoteThatAnswersNothingAtAllBecomesUnreachable) {
  std::atomic<bool> answers = true;
  std::atomic<int> probes = 0;
  std::vector<bool> told;
  fs::Reachability* tested = nullptr;
  std::atomic<bool> another_call_answers = false;
  fs::Reachability reachability(
      {milliseconds(1), milliseconds(4)},
      [&] {
        ++probes;
        if (another_call_answers.exchange(false)) {
          tested->Answered();
        }
        return answers.load();
      },
      [&](bool is_reachable) { told.push_back(is_reachable); });
  tested = &reachability;
  const auto doubt = [&] {
    const int before = probes;
    reachability.Doubt();
    EXPECT_TRUE(WaitUntil([&] { return probes > before; }));
  };
  doubt();
  answers = false;
  another_call_answers = true;
  doubt();
  EXPECT_TRUE(reachability.IsReachable());
  doubt();
  ASSERT_TRUE(WaitUntil([&] { return !reachability.IsReachable(); }));
  EXPECT_TRUE(reachability.UnreachableSince().has_value());
  const int before = probes;
  EXPECT_TRUE(WaitUntil([&] { return probes > before + 3; })) << "it is asked again and again";
  answers = true;
  EXPECT_TRUE(WaitUntil([&] { return reachability.IsReachable(); }));
  reachability.Stop();
  EXPECT_EQ(told, (std::vector<bool>{false, true}));
}

// Instead of the machine's own sleep.
std::atomic<std::chrono::nanoseconds> asleep = {};

class LimitsTest : public testing::Test {
 protected:
  LimitsTest() { files->AddProtocol(shared); }
  ~LimitsTest() override { protocol.SetHanging(false); }

  bool IsReachable() { return files->GetRemote().IsReachable(); }
  int CountErrors() {
    const auto texts = drive.events->Texts();
    return static_cast<int>(std::count(texts.begin(), texts.end(), "error 1 / 17"));
  }

  LentLibraries libraries;
  const std::shared_ptr<SharedProtocol> shared = std::make_shared<SharedProtocol>();
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
  EXPECT_EQ(CountErrors(), 1);
  protocol.SetHanging(false);
  EXPECT_TRUE(WaitUntil([&] { return IsReachable(); }));
  EXPECT_EQ(drive.ReadAt(file, 0, 10), "content");
  EXPECT_EQ(CountErrors(), 1);
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
  std::string content;
  EXPECT_EQ(drive.ReadFile("/folder/other", content), EIO);
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
  protocol.failure = DEVICE_NOT_READY;
  fs::Attributes attributes;
  EXPECT_EQ(files->GetRemote().GetInfo("/file", attributes), DEVICE_NOT_READY);
  protocol.failure = ACCESS_DENIED;  // an answer all the same
  const int infos = protocol.infos;
  EXPECT_EQ(files->GetRemote().GetInfo("/file", attributes), ACCESS_DENIED);
  EXPECT_TRUE(WaitUntil([&] { return protocol.infos > infos; }));
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
  EXPECT_EQ(protocol.Paths(), std::vector<std::string>{"/folder"}) << "it happened after all";
}

TEST_F(LimitsTest, AfterTheMachineHasSleptNothingIsBelievedAndReadingBeginsAnew) {
  fs::Limits limits = ShortLimits();
  limits.read = milliseconds(60'000);
  limits.asleep = [] { return asleep.load(); };
  Drive calls(std::make_shared<fs::FileSystem>(std::chrono::hours(1), limits));
  const auto& sleeper = calls.files;
  sleeper->AddProtocol(shared);
  protocol.Write("/file", "old");
  EXPECT_EQ(calls.Content("/file"), "old");
  protocol.Write("/file", "newer");
  std::uint64_t size = 0;
  sleeper->NoticeResume();
  EXPECT_EQ(calls.GetSize("/file", size), 0);
  EXPECT_EQ(size, 3U);
  asleep = std::chrono::hours(1);
  sleeper->NoticeResume();
  EXPECT_EQ(calls.GetSize("/file", size), 0);
  EXPECT_EQ(size, 5U);

  protocol.latency_ms = 3'600'000;
  const int reads = protocol.reads;
  const auto buffer = fs::Buffer::Make(10);
  AERROR error = FAILED;
  size_t received = 0;
  std::thread program([&] { error = sleeper->GetRemote().Read(0, "/file", 0, buffer, received); });
  EXPECT_TRUE(WaitUntil([&] { return protocol.reads > reads; }));
  protocol.latency_ms = 0;
  asleep = std::chrono::hours(2);
  program.join();
  EXPECT_EQ(error, SUCCESS);
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
  const std::shared_ptr<SharedProtocol> shared = std::make_shared<SharedProtocol>();
  MemoryProtocol& protocol = *shared;
  std::shared_ptr<fs::Volume> volume;
};

TEST_F(LimitedVolumeTest, AProgramThatWaitsForADeadRemoteCanBeKilledAndHoldsUpNobody) {
  protocol.Write("/folder/file", std::string(4 << 20, 'x'));
  FolderCalls calls(path);
  (void)calls.Names("/folder");
  const int file = ::open((path + "/folder/file").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(file, 0);
  protocol.SetHanging(true);
  const int reads = protocol.reads;
  const pid_t program = ::fork();
  if (program == 0) {
    char byte = 0;
    ::_exit(::pread(file, &byte, 1, 3 << 20) == 1 ? 0 : 1);
  }
  ::close(file);
  EXPECT_TRUE(WaitUntil([&] { return protocol.reads > reads; }));
  EXPECT_EQ(::kill(program, SIGINT), 0);
  int status = 0;
  EXPECT_TRUE(WaitUntil([&] { return ::waitpid(program, &status, WNOHANG) == program; }));
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT);
  EXPECT_EQ(Extended("", "user.tarn.remote"), "ok") << "that was quick";
  struct statvfs space = {};
  EXPECT_EQ(::statvfs(path.c_str(), &space), 0);
  (void)calls.Names("/folder");
  EXPECT_EQ(volume->Stop(), SUCCESS);
}

TEST_F(LimitedVolumeTest, WhatIsToBeSeenIsReadOnlyAndNeedsNoRemote) {
  protocol.Write("/file", "content");
  const std::string file = path + "/file";
  EXPECT_EQ(Extended("/file", "user.tarn.state"), "clean");
  const int infos = protocol.infos;
  EXPECT_EQ(Extended("/file", "security.capability"), std::to_string(ENODATA));
  EXPECT_EQ(Extended("/file", "user.other"), std::to_string(ENODATA));
  EXPECT_EQ(Extended("/file", "user.tarn.cache"), std::to_string(ENODATA));
  EXPECT_EQ(::setxattr(file.c_str(), "user.tarn.state", "x", 1, 0), -1);
  EXPECT_EQ(errno, ENOTSUP);
  EXPECT_EQ(::removexattr(file.c_str(), "user.tarn.state"), -1);
  std::string names(200, '\0');
  names.resize(static_cast<size_t>(::listxattr(file.c_str(), names.data(), names.size())));
  EXPECT_EQ(names, std::string("user.tarn.state\0", 16));
  EXPECT_EQ(protocol.infos, infos);

  const int unsent = ::open((path + "/unsent").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_EQ(::write(unsent, "12345", 5), 5);
  EXPECT_EQ(Extended("/unsent", "user.tarn.state"), "unsent");
  EXPECT_EQ(Extended("", "user.tarn.state"), "unsent");
  EXPECT_EQ(Extended("", "user.tarn.unsent"), "1 files, 5 bytes");
  EXPECT_EQ(::close(unsent), 0);
  EXPECT_EQ(Extended("", "user.tarn.cache"), "none");
  protocol.failure = DEVICE_NOT_READY;
  EXPECT_TRUE(WaitUntil([&] {
    return ::mkdir((path + "/folder").c_str(), 0755) != 0 &&
           Extended("", "user.tarn.remote").starts_with("unreachable since 20");
  }));
  protocol.failure = SUCCESS;
}

}  // namespace
}  // namespace tarn::test
