// The small parts that stand alone.
#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

#include "platform/filesystem/bindings.h"
#include "platform/filesystem/errors.h"
#include "platform/filesystem/names.h"
#include "platform/filesystem/nodes.h"
#include "platform/filesystem/path_locks.h"

namespace tarn::fs {
namespace {

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

TEST(NamesTest, PathsAreTakenApartAndPutTogether) {
  EXPECT_EQ(JoinPath("/", "a"), "/a");
  EXPECT_EQ(JoinPath("/a", "b"), "/a/b");
  EXPECT_EQ(FolderOf("/a"), "/");
  EXPECT_EQ(FolderOf("/a/b"), "/a");
  EXPECT_EQ(NameOf("/a/b"), "b");
  EXPECT_TRUE(IsWithin("/a/b", "/a"));
  EXPECT_FALSE(IsWithin("/ab", "/a"));
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

TEST(ErrorsTest, ProtocolErrorsBecomeWhatProgramsKnow) {
  EXPECT_EQ(ErrnoOf(SUCCESS), 0);
  EXPECT_EQ(ErrnoOf(PATH_NOT_FOUND), ENOENT);
  EXPECT_EQ(ErrnoOf(ACCESS_DENIED), EACCES);
  EXPECT_EQ(ErrnoOf(DEVICE_NOT_READY), EIO);
  EXPECT_EQ(ErrnoOf(static_cast<AERROR>(4711)), EIO);
  EXPECT_FALSE(MattersToPeople(FILE_NOT_FOUND));
  EXPECT_TRUE(MattersToPeople(DEVICE_NOT_READY));
}

TEST(NodesTest, NumbersStayWithWhatTheyNameUnderARenamedFolder) {
  Nodes nodes;
  const Ino folder = nodes.Ensure(kRootIno, "folder", true);
  const Ino file = nodes.Ensure(folder, "file", false);
  nodes.AddLookup(folder);
  nodes.AddLookup(file);
  nodes.Move(folder, kRootIno, "moved");
  EXPECT_EQ(nodes.PathOf(file), "/moved/file");
  EXPECT_EQ(nodes.Find(kRootIno, "folder"), std::nullopt);
  nodes.Unlink(folder);
  EXPECT_EQ(nodes.PathOf(file), std::nullopt);
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

}  // namespace
}  // namespace tarn::fs
