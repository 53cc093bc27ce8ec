// The small parts that stand alone.
#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

#include "platform/filesystem/bindings.h"
#include "platform/filesystem/line.h"
#include "platform/filesystem/listings.h"
#include "platform/filesystem/names.h"
#include "platform/filesystem/nodes.h"
#include "platform/filesystem/path_locks.h"

namespace tarn::fs {
namespace {

TEST(LineTest, TellsTheRoundTripFromSmallAnswersAndTheSpeedFromLargeOnes) {
  using std::chrono::milliseconds;
  constexpr size_t kMiB = size_t{1} << 20;
  const auto ago = [](int time) { return Clock::now() - milliseconds(time); };
  Line line;
  EXPECT_EQ(line.RoundTrip(), Clock::duration::zero());
  EXPECT_GT(line.BytesIn(milliseconds(1)), 1000 * kMiB) << "nothing is known yet";
  line.End({ago(20), 0}, 100);
  line.End({ago(90), 0}, 100);
  EXPECT_GE(line.RoundTrip(), milliseconds(20));
  EXPECT_LT(line.RoundTrip(), milliseconds(30)) << "one slow answer is no longer way";
  line.End({ago(1020), 0}, 10 * kMiB);
  EXPECT_LE(line.BytesIn(milliseconds(1000)), 11 * kMiB);
  EXPECT_GE(line.BytesIn(milliseconds(1000)), 5 * kMiB);
  for (size_t i = 0; i < 20; ++i) {
    line.End({ago(10'020), (10 + i) * kMiB}, kMiB);
  }
  EXPECT_LT(line.BytesIn(milliseconds(1000)), kMiB) << "it has become slower";
}

TEST(NamesTest, OnlyNamesThatStayInTheirFolderAreValid) {
  for (const std::string& name :
       {std::string("a"), std::string("..."), std::string("gr\xC3\xBC\xC3\x9F"),
        std::string("\xF0\x9F\x98\x80"), std::string(255, 'x')}) {
    EXPECT_TRUE(IsValidName(name)) << name;
  }
  for (const std::string& name :
       {std::string(), std::string("."), std::string(".."), std::string("a/b"), std::string("/"),
        std::string(256, 'x'), std::string("a\0b", 3), std::string("\xC3"), std::string("\xC0\xAF"),
        std::string("\xED\xA0\x80"), std::string("\xF4\x90\x80\x80"), std::string("\xFF")}) {
    EXPECT_FALSE(IsValidName(name)) << name;
  }
}

TEST(NamesTest, ConflictNamesKeepTheExtensionAndStayValid) {
  EXPECT_THAT(ConflictName("a.b.txt", 0), testing::MatchesRegex("a[.]b .conflict .*[.]txt"));
  EXPECT_THAT(ConflictName(".profile", 0), testing::MatchesRegex("[.]profile .conflict .*"));
  std::string name;
  while (name.size() + 2 <= kMaxNameBytes) {
    name += "\xC3\xBC";
  }
  EXPECT_TRUE(IsValidName(ConflictName(name, 0)));
  EXPECT_TRUE(IsValidName(ConflictName("a." + name.substr(2), 0)));
  EXPECT_NE(ConflictName(name, 0), name);
}

TEST(NodesTest, ANodeLivesAsLongAsItIsUsedAndItsNumberIsNotGivenOutAgain) {
  Nodes nodes;
  const Ino folder = nodes.Ensure(kRootIno, "folder", true);
  nodes.AddLookup(folder);
  const Ino file = nodes.Ensure(folder, "file", false);
  nodes.Pin(file);
  nodes.Forget(folder, 1);
  EXPECT_TRUE(nodes.Exists(folder)) << "something pinned lies below";
  nodes.Unpin(file);
  EXPECT_FALSE(nodes.Exists(file));
  EXPECT_FALSE(nodes.Exists(folder));
  EXPECT_GT(nodes.Ensure(kRootIno, "folder", true), file);
  const Ino known = *nodes.Find(kRootIno, "folder");
  EXPECT_NE(nodes.Ensure(kRootIno, "folder", false), known) << "a file is another thing";
}

TEST(PathLocksTest, ChangesThatMeetComeOneAfterTheOtherAndOthersDoNotWait) {
  PathLocks locks;
  std::atomic<int> order = 0;
  auto upload = std::make_unique<PathLocks::Hold>(locks.Take({"/a/file"}));
  int rename_at = 0;
  std::thread rename([&] {
    const auto hold = locks.Take({"/a", "/b"});
    rename_at = ++order;
  });
  const auto other = locks.Take({"/ab"});
  EXPECT_EQ(++order, 1);
  upload.reset();
  rename.join();
  EXPECT_EQ(rename_at, 2);
}

TEST(BindingsTest, WhatWasLentIsNotUsedAfterItWasTakenBack) {
  Lent<int> lent;
  int object = 1;
  lent.Set(&object);
  std::atomic<bool> taken_back = false;
  std::thread owner;
  {
    const Lent<int>::Lease lease(lent);
    ASSERT_TRUE(lease);
    owner = std::thread([&] {
      lent.Set(nullptr);
      taken_back = true;
    });
    // A lease that begins meanwhile finds either; this one keeps the owner waiting.
    EXPECT_FALSE(taken_back);
  }
  owner.join();
  EXPECT_FALSE(Lent<int>::Lease(lent));
}

class ListingsTest : public testing::Test {
 protected:
  Listings::Known Known(const std::string& path) { return listings.Find(path, now).known; }

  static Entry File(const std::string& name, unsigned long long size) {
    Attributes attributes;
    attributes.size = size;
    return {name, attributes};
  }

  Listings listings{std::chrono::seconds(5)};
  const Clock::time_point now = Clock::now();
};

TEST_F(ListingsTest, AnswersToQuestionsFromBeforeAChangeAreNotKept) {
  const auto before = listings.Begin();
  listings.SetAbsent("/f/gone", now);
  listings.AddListing(before, "/f", {File("gone", 1)}, now);
  EXPECT_EQ(Known("/f/gone"), Listings::Known::kAbsent);

  const Attributes stale = File("", 1).attributes;
  EXPECT_FALSE(listings.Add(before, "/f/gone", &stale, now));
  EXPECT_TRUE(listings.Add(before, "/f/other", &stale, now)) << "nothing happened to that one";

  listings.AddListing(listings.Begin(), "/f", {File("kept", 1)}, now);
  EXPECT_FALSE(listings.Add(before, "/f/gone", &stale, now));
  EXPECT_EQ(Known("/f/gone"), Listings::Known::kAbsent);

  listings.ForgetTree("/");
  EXPECT_FALSE(listings.Add(before, "/new/folder", &stale, now));
  EXPECT_TRUE(listings.Add(listings.Begin(), "/new/folder", &stale, now));
}

TEST_F(ListingsTest, ForgettingATreeSparesNeighboursWithTheSameBeginning) {
  for (const char* const folder : {"/a", "/a-b", "/a/b", "/ab"}) {
    listings.AddListing(listings.Begin(), folder, {File("x", 1)}, now);
  }
  listings.ForgetTree("/a");
  EXPECT_EQ(Known("/a/x"), Listings::Known::kNothing);
  EXPECT_EQ(Known("/a/b/x"), Listings::Known::kNothing);
  EXPECT_EQ(Known("/a-b/x"), Listings::Known::kPresent);
  EXPECT_EQ(Known("/ab/x"), Listings::Known::kPresent);
  listings.Forget("/ab/x");
  EXPECT_EQ(Known("/ab/x"), Listings::Known::kNothing) << "forgotten, not absent";
}

}  // namespace
}  // namespace tarn::fs
