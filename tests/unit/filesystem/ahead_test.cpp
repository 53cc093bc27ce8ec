// What is asked of the remote, and when: a slow network is felt by the number of round trips.
#include <fcntl.h>
#include <gtest/gtest.h>

#include "tests/unit/filesystem/drive.h"
#include "tests/unit/filesystem/lent_libraries.h"

namespace tarn::test {
namespace {

class AheadTest : public testing::Test {
 protected:
  void SetUp() override { files->AddProtocol(Share(protocol)); }

  MemoryProtocol::Store& Remote() { return protocol.GetStore(); }
  static std::string Name(int i) { return std::to_string(100 + i); }

  LentLibraries libraries{64 * 1024 * 1024};
  MemoryProtocol protocol;
  std::shared_ptr<fs::FileSystem> files = std::make_shared<fs::FileSystem>();
  DirectCalls drive{*files};
};

TEST_F(AheadTest, OneListingAnswersForEveryNameInItsFolder) {
  for (int i = 0; i < 50; ++i) {
    Remote().Write("/folder/" + Name(i), "x");
  }
  std::uint64_t size = 0;
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(drive.GetSize("/folder/" + Name(i), size), 0);
    EXPECT_EQ(drive.GetSize("/folder/absent" + Name(i), size), ENOENT);
  }
  EXPECT_LE(protocol.counts.info, 4) << "the folder, the first name in it, the size of the drive";
  EXPECT_EQ(protocol.counts.list, 1);
}

TEST_F(AheadTest, FoldersBelowAListedOneAreListedAhead) {
  for (int i = 0; i < 20; ++i) {
    Remote().Write("/folder" + Name(i) + "/file", "x");
  }
  std::vector<std::string> names;
  ASSERT_EQ(drive.List("/", names), 0);
  libraries.WaitIdle();
  EXPECT_EQ(protocol.counts.list, 21);
  const int infos = protocol.counts.info;
  for (const std::string& name : names) {
    std::vector<std::string> below;
    EXPECT_EQ(drive.List("/" + name, below), 0);
    EXPECT_EQ(below, std::vector<std::string>{"file"});
  }
  EXPECT_EQ(protocol.counts.list, 21);
  EXPECT_EQ(protocol.counts.info, infos);
}

TEST_F(AheadTest, SmallFilesThatAreReadOneAfterAnotherAreThereBeforeTheyAreOpened) {
  for (int i = 0; i < 60; ++i) {
    Remote().Write("/folder/" + Name(i), "content " + Name(i));
  }
  std::vector<std::string> names;
  ASSERT_EQ(drive.List("/folder", names), 0);
  EXPECT_EQ(drive.Content("/folder/" + Name(0)), "content " + Name(0));
  EXPECT_EQ(drive.Content("/folder/" + Name(1)), "content " + Name(1));
  libraries.WaitIdle();
  EXPECT_EQ(protocol.counts.read, 2 + 32) << "the next 32";
  for (int i = 2; i < 15; ++i) {
    EXPECT_EQ(drive.Content("/folder/" + Name(i)), "content " + Name(i));
  }
  libraries.WaitIdle();
  EXPECT_EQ(protocol.counts.read, 2 + 32) << "not one is fetched twice";
  for (int i = 15; i < 60; ++i) {
    EXPECT_EQ(drive.Content("/folder/" + Name(i)), "content " + Name(i));
  }
}

TEST_F(AheadTest, WhatWasFetchedAheadIsNotShownOnceItHasChanged) {
  for (int i = 0; i < 10; ++i) {
    Remote().Write("/folder/" + Name(i), "old");
  }
  std::vector<std::string> names;
  ASSERT_EQ(drive.List("/folder", names), 0);
  EXPECT_EQ(drive.Content("/folder/" + Name(0)), "old");
  EXPECT_EQ(drive.Content("/folder/" + Name(1)), "old");
  libraries.WaitIdle();
  ASSERT_EQ(protocol.counts.read, 10);
  EXPECT_EQ(drive.WriteFile("/folder/" + Name(5), "ours"), 0);
  EXPECT_EQ(drive.Content("/folder/" + Name(5)), "ours");
  EXPECT_EQ(drive.Rename("/folder/" + Name(5), "/folder/" + Name(6)), 0);
  EXPECT_EQ(drive.Content("/folder/" + Name(6)), "ours");
  Remote().Write("/folder/" + Name(1), "new");
  EXPECT_EQ(drive.Content("/folder/" + Name(1)), "new") << "only the first open trusts";
}

TEST_F(AheadTest, OpeningASmallFileOfAKnownFolderTakesOneRoundTrip) {
  Remote().Write("/folder/file", "content");
  Remote().Write("/folder/other", "content");
  std::vector<std::string> names;
  ASSERT_EQ(drive.List("/folder", names), 0);
  constexpr int kLatencyMs = 500;
  protocol.behaviour.latency_ms = kLatencyMs;
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(drive.Content("/folder/file"), "content");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(2 * kLatencyMs));
}

}  // namespace
}  // namespace tarn::test
