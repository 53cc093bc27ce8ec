// What a drive does when its remote hangs or is gone.
#include <cerrno>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

#include "platform/filesystem/reachability.h"
#include "platform/filesystem/remote.h"
#include "tests/support/service/wait.h"
#include "tests/unit/filesystem/direct_calls.h"
#include "tests/unit/filesystem/lent_libraries.h"
#include "tests/unit/filesystem/recording_events.h"

namespace tarn::test {
namespace {

using std::chrono::milliseconds;

fs::Limits ShortLimits() {
  fs::Limits limits;
  limits.metadata = limits.read = limits.upload_stall = milliseconds(200);
  limits.doubt = limits.probe = limits.cancel = milliseconds(50);
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

class LimitsTest : public testing::Test {
 protected:
  LimitsTest() {
    files->GetEvents().SetSink(events);
    files->AddProtocol(Share(protocol));
  }
  ~LimitsTest() override { protocol.SetHanging(false); }

  // The time that some calls take.
  template <typename Some>
  static milliseconds TimeOf(Some calls) {
    const auto begin = std::chrono::steady_clock::now();
    calls();
    return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - begin);
  }
  bool IsReachable() { return files->GetRemote().IsReachable(); }
  int CountErrors() {
    const auto texts = events->Texts();
    return static_cast<int>(std::count(texts.begin(), texts.end(), "error 1 / 17"));
  }

  LentLibraries libraries;
  MemoryProtocol protocol;
  std::shared_ptr<RecordingEvents> events = std::make_shared<RecordingEvents>();
  // Attributes expire at once, so that only the remote's absence lets them be believed.
  std::shared_ptr<fs::FileSystem> files =
      std::make_shared<fs::FileSystem>(milliseconds(1), ShortLimits());
  DirectCalls drive{*files};
};

TEST_F(LimitsTest, EveryCallComesBackFromARemoteThatNeverAnswersAndLaterOnesAtOnce) {
  protocol.Write("/file", "content");
  int file = -1;
  ASSERT_EQ(drive.Open("/file", O_RDONLY, file), 0);
  protocol.SetHanging(true);
  std::string content;
  EXPECT_LT(TimeOf([&] { EXPECT_EQ(drive.Read(file, 0, 10, content), EIO); }), milliseconds(5000));
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
  EXPECT_EQ(drive.Read(file, 0, 10, content), 0);
  EXPECT_EQ(content, "content");
  EXPECT_EQ(CountErrors(), 1);
  drive.Close(file);
}

TEST_F(LimitsTest, WhatIsKnownAndCachedStaysUsableWhileTheRemoteIsGone) {
  protocol.Write("/folder/read", "content");
  protocol.Write("/folder/other", "never read");
  std::vector<std::string> names;
  ASSERT_EQ(drive.List("/folder", names), 0);
  ASSERT_EQ(drive.Content("/folder/read"), "content");
  int unsent = -1;
  ASSERT_EQ(drive.Open("/folder/unsent", O_RDWR | O_CREAT, unsent), 0);
  protocol.failure = DEVICE_NOT_READY;
  EXPECT_NE(drive.MakeFolder("/folder/no"), 0);
  ASSERT_TRUE(WaitUntil([&] { return !IsReachable(); }));
  EXPECT_EQ(drive.List("/folder", names), 0);
  EXPECT_EQ(names, (std::vector<std::string>{"other", "read", "unsent"}));
  EXPECT_EQ(drive.Content("/folder/read"), "content");
  std::string content;
  EXPECT_EQ(drive.ReadFile("/folder/other", content), EIO);
  EXPECT_EQ(drive.Write(unsent, 0, "written"), 0);
  EXPECT_EQ(drive.Read(unsent, 0, 10, content), 0);
  EXPECT_EQ(content, "written");
  int made = -1;
  EXPECT_EQ(drive.Open("/folder/new", O_WRONLY | O_CREAT, made), 0);
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
  remote.Add(Share(protocol));
  protocol.SetHanging(true);
  EXPECT_EQ(remote.CreateFolder("/folder"), DEVICE_NOT_READY);
  EXPECT_TRUE(WaitUntil([&] { return !remote.IsReachable(); }));
  EXPECT_FALSE(remote.Close(milliseconds(10))) << "the module still works";
  protocol.SetHanging(false);
  EXPECT_TRUE(remote.Close(milliseconds(5000)));
  EXPECT_EQ(protocol.Paths(), std::vector<std::string>{"/folder"}) << "it happened after all";
}

}  // namespace
}  // namespace tarn::test
