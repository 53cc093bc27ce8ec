// The small parts that stand alone.
#include <atomic>
#include <gtest/gtest.h>
#include <thread>

#include "platform/filesystem/listings.h"
#include "platform/filesystem/names.h"
#include "platform/filesystem/nodes.h"
#include "platform/filesystem/path_locks.h"
#include "tests/support/service/wait.h"

namespace tarn::fs {
namespace {

using Names = std::initializer_list<std::string>;

TEST(NamesTest, OnlyNamesThatStayInTheirFolderAreValid) {
  const std::string longest(255, 'x');
  for (const std::string& name : Names{"...", "gr\xC3\xBC\xC3\x9F", "\xF0\x9F\x98\x80", longest}) {
    EXPECT_TRUE(IsValidName(name)) << name;
  }
  for (const std::string& name :
       Names{"", ".", "..", "a/b", "/", longest + "x", std::string("a\0b", 3), "\xC3", "\xC0\xAF",
             "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF"}) {
    EXPECT_FALSE(IsValidName(name)) << name;
  }
}

TEST(NamesTest, ConflictNamesOfTheLongestNamesStayValid) {
  std::string name;
  while (name.size() + 2 <= kMaxNameBytes) {
    name += "\xC3\xBC";
  }
  for (const std::string& of : Names{name, "a." + name.substr(2), ".profile"}) {
    EXPECT_TRUE(IsValidName(ConflictName(of, 0)));
    EXPECT_NE(ConflictName(of, 0), of);
  }
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
  const Ino known = nodes.Ensure(kRootIno, "folder", true);
  EXPECT_GT(known, file);
  EXPECT_NE(nodes.Ensure(kRootIno, "folder", false), known) << "a file is another thing";
}

TEST(PathLocksTest, ChangesThatMeetComeOneAfterTheOtherAndOthersDoNotWait) {
  PathLocks locks;
  std::atomic<int> order = 0;
  auto upload = std::make_unique<PathLocks::Hold>(locks.Take({{"/a/file"}}));
  int rename_at = 0;
  std::thread rename([&] {
    const auto hold = locks.Take({{"/a", Haste::kAtOnce}, {"/b"}});
    rename_at = ++order;
  });
  const auto other = locks.Take({{"/ab"}});
  EXPECT_TRUE(test::WaitUntil([&] { return upload->HasteOfOthers() == Haste::kAtOnce; }));
  EXPECT_EQ(other.HasteOfOthers(), Haste::kNone);
  EXPECT_EQ(++order, 1);
  upload.reset();
  rename.join();
  EXPECT_EQ(rename_at, 2);
}

TEST(ListingsTest, AnswersToQuestionsFromBeforeAChangeAreNotKept) {
  Listings listings{std::chrono::seconds(5)};
  const Clock::time_point now = Clock::now();
  const Attributes stale;
  const auto before = listings.Begin();
  listings.SetAbsent("/f/gone", now);
  listings.AddListing(before, "/f", {{"gone", stale}}, now);
  EXPECT_EQ(listings.Find("/f/gone", now).known, Listings::Known::kAbsent);
  EXPECT_FALSE(listings.Add(before, "/f/gone", &stale, now));
  EXPECT_TRUE(listings.Add(before, "/f/other", &stale, now)) << "nothing happened to that one";

  listings.AddListing(listings.Begin(), "/f", {{"kept", stale}}, now);
  EXPECT_FALSE(listings.Add(before, "/f/gone", &stale, now));
  listings.ForgetTree("/");
  EXPECT_FALSE(listings.Add(before, "/new/folder", &stale, now));

  for (const char* const folder : {"/a", "/a-b", "/a/b"}) {
    listings.AddListing(listings.Begin(), folder, {{"x", stale}}, now);
  }
  listings.ForgetTree("/a");
  EXPECT_EQ(listings.Find("/a/b/x", now).known, Listings::Known::kNothing);
  EXPECT_EQ(listings.Find("/a-b/x", now).known, Listings::Known::kPresent);
}

}  // namespace
}  // namespace tarn::fs
