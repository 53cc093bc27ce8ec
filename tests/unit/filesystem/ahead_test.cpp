// What is asked of the remote, and when: a slow network is felt by the number of round trips.
#include <fcntl.h>
#include <gtest/gtest.h>

#include "tests/support/service/wait.h"
#include "tests/unit/filesystem/direct_calls.h"
#include "tests/unit/filesystem/lent_libraries.h"

namespace tarn::test {
namespace {

class AheadTest : public testing::Test {
 protected:
  [[nodiscard]] std::string Path(int i) const { return folder + "/" + std::to_string(100 + i); }
  // Makes a folder of files and lists it.
  void FillFolder(int count, const std::string& content) {
    for (int i = 0; i < count; ++i) {
      protocol.Write(Path(i), content + std::to_string(i));
    }
    (void)drive.Names(folder);
  }
  void ExpectContents(int begin, int end, const std::string& content) {
    for (int i = begin; i < end; ++i) {
      EXPECT_EQ(drive.Content(Path(i)), content + std::to_string(i));
    }
  }

  std::string folder = "/folder";
  LentLibraries libraries{64 * 1024 * 1024};
  MemoryProtocol protocol;
  Drive drive{protocol};
};

TEST_F(AheadTest, OneListingAnswersForEveryNameInItsFolder) {
  for (int i = 0; i < 50; ++i) {
    protocol.Write(Path(i), "x");
  }
  std::uint64_t size = 0;
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(drive.GetSize(Path(i), size), 0);
    EXPECT_EQ(drive.GetSize(Path(i) + "absent", size), ENOENT);
  }
  EXPECT_LE(protocol.infos, 4) << "the folder, the first name in it, the size of the drive";
  EXPECT_EQ(protocol.lists, 1);
}

TEST_F(AheadTest, FoldersBelowAListedOneAreListedAhead) {
  for (int i = 0; i < 20; ++i) {
    protocol.Write("/folder" + std::to_string(i) + "/file", "x");
  }
  const auto names = drive.Names("/");
  libraries.WaitIdle();
  EXPECT_EQ(protocol.lists, 21);
  for (const std::string& name : names) {
    EXPECT_EQ(drive.Names("/" + name), std::vector<std::string>{"file"});
  }
  EXPECT_EQ(protocol.lists, 21);
}

TEST_F(AheadTest, SmallFilesAreThereBeforeTheyAreOpenedAndNotShownOnceTheyHaveChanged) {
  FillFolder(60, "content");
  ExpectContents(0, 3, "content");
  EXPECT_TRUE(WaitUntil([&] { return protocol.reads >= 60; }));
  libraries.WaitIdle();
  const int requests = protocol.infos + protocol.reads;
  ExpectContents(3, 50, "content");
  EXPECT_LT(protocol.infos + protocol.reads, requests + 20) << "found unchanged a moment ago";
  EXPECT_LE(protocol.reads, 62) << "but where the program was as quick";
  EXPECT_EQ(drive.WriteFile(Path(55), "ours"), 0);
  EXPECT_EQ(drive.Content(Path(55)), "ours");
  EXPECT_EQ(drive.Rename(Path(55), Path(56)), 0);
  EXPECT_EQ(drive.Content(Path(56)), "ours");
  protocol.Write(Path(1), "new");
  EXPECT_EQ(drive.Content(Path(1)), "new") << "only the first open trusts";
}

TEST_F(AheadTest, OpeningASmallFileOfAKnownFolderAsksForLittle) {
  for (const bool reads_versions : {true, false}) {
    protocol.reads_versions = reads_versions;
    folder += "s";
    FillFolder(1, "content");
    libraries.WaitIdle();
    const int infos = protocol.infos;
    ExpectContents(0, 1, "content");
    EXPECT_EQ(protocol.infos - infos, reads_versions ? 0 : 1) << "the bytes tell their version";
  }
}

TEST_F(AheadTest, ASmallFileThatChangedSinceItsFolderWasListedIsShownAsItIsNow) {
  for (const bool reads_versions : {true, false}) {
    protocol.reads_versions = reads_versions;
    folder += "s";
    FillFolder(2, "old");
    for (const char* const changed : {"newer", "newest"}) {
      protocol.Write(Path(0), changed);
      EXPECT_EQ(drive.Content(Path(0)), changed);
    }
    protocol.Remove(Path(1));
    EXPECT_EQ(drive.Content(Path(1)), "(error)");
  }
}

}  // namespace
}  // namespace tarn::test
