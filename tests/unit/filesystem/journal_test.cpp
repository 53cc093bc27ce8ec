#include "platform/filesystem/journal.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/service/wait.h"
#include "tests/unit/filesystem/direct_calls.h"
#include "tests/unit/filesystem/lent_libraries.h"
#include "tests/unit/filesystem/recording_events.h"

namespace tarn::test {
namespace {

// A drive with a journal over a remote in memory. Its end without SendAll is that of a process
// which died: nothing of the objects' ends touches what was kept.
struct Drive {
  Drive(const std::string& base, const std::string& label, IProtocol_V2& protocol) {
    files->GetEvents().SetSink(events);
    files->UseJournal(fs::Journal::Open(base, label));
    files->AddProtocol(Share(protocol));
  }
  ~Drive() { End(files); }
  Drive(const Drive&) = delete;
  Drive& operator=(const Drive&) = delete;

  std::shared_ptr<RecordingEvents> events = std::make_shared<RecordingEvents>();
  std::shared_ptr<fs::FileSystem> files = std::make_shared<fs::FileSystem>();
  DirectCalls calls{*files};
};

// A remote that may keep files locked.
class LockingProtocol : public MemoryProtocol {
 public:
  AERROR Upload(const char* path, FS_SOURCE* source, unsigned long long size, FS_PROGRESS progress,
                void* context) override {
    ++uploads;
    return is_locked ? SHARING_VIOLATION
                     : MemoryProtocol::Upload(path, source, size, progress, context);
  }

  std::atomic<bool> is_locked = false;
  std::atomic<int> uploads = 0;
};

class JournalTest : public testing::Test {
 protected:
  size_t FilesOnDisk() const {
    size_t count = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(base.path())) {
      count += entry.is_regular_file() ? 1 : 0;
    }
    return count;
  }

  TempFolder base;
  LentLibraries libraries;
  LockingProtocol protocol;
};

TEST_F(JournalTest, WhatWasClosedSurvivesTheProcessAndIsSentUnderItsLastName) {
  protocol.MakeFolder("/folder");
  protocol.Write("/changed", "theirs");
  {
    Drive drive(base.path(), "drive", protocol);
    EXPECT_EQ(drive.calls.Content("/changed"), "theirs");
    std::vector<std::string> names;
    EXPECT_EQ(drive.calls.List("/folder", names), 0);
    int changed = -1;
    EXPECT_EQ(drive.calls.Open("/changed", O_WRONLY | O_TRUNC, changed), 0);
    protocol.failure = DEVICE_NOT_READY;
    EXPECT_EQ(drive.calls.Write(changed, 0, "ours"), 0);
    EXPECT_EQ(drive.calls.Close(changed), 0);
    EXPECT_EQ(drive.calls.WriteFile("/folder/new", "new"), 0);
    EXPECT_EQ(drive.calls.WriteFile("/folder/removed", "x"), 0);
    EXPECT_EQ(drive.calls.Unlink("/folder/removed"), 0);
    EXPECT_EQ(drive.calls.Rename("/folder/new", "/folder/renamed"), 0);
    EXPECT_EQ(drive.calls.Content("/folder/renamed"), "new");
    int half = -1;  // never closed, so nobody was promised anything
    EXPECT_EQ(drive.calls.Open("/folder/renamed", O_WRONLY, half), 0);
    EXPECT_EQ(drive.calls.Write(half, 0, "NEW"), 0);
  }
  protocol.failure = SUCCESS;
  protocol.Remove("/folder");
  {
    Drive other(base.path(), "another label", protocol);
    EXPECT_EQ(other.calls.Content("/changed"), "ours") << "from the first moment";
    EXPECT_EQ(other.files->SendAll(kPatience), 0U);
    EXPECT_EQ(protocol.Content("/changed"), "ours");
    EXPECT_EQ(protocol.Content("/folder/renamed"), "new");
    EXPECT_THAT(protocol.Paths(), testing::Not(testing::Contains("/folder/removed")));
  }
  EXPECT_EQ(FilesOnDisk(), 0U);
}

TEST_F(JournalTest, AnUploadThatCameThereBeforeTheProcessDiedMakesNoConflict) {
  {
    Drive drive(base.path(), "drive", protocol);
    protocol.failure = DEVICE_NOT_READY;
    fs::Stat stat;
    fs::FileSystem::Opened opened;
    size_t written = 0;
    ASSERT_EQ(drive.files->Create(fs::kRootIno, "file", O_WRONLY, stat, opened), 0);
    ASSERT_EQ(drive.files->Write(opened.handle, 0, "ours", 4, false, written), 0);
    ASSERT_EQ(drive.files->Flush(opened.handle), 0);
  }
  protocol.failure = SUCCESS;
  protocol.Write("/file", "ours");
  Drive again(base.path(), "drive", protocol);
  EXPECT_EQ(again.files->SendAll(kPatience), 0U);
  EXPECT_EQ(protocol.Paths(), std::vector<std::string>{"/file"});
}

TEST_F(JournalTest, AFileThatCameThereUnnoticedIsReplacedRemovedAndRenamedAsOurs) {
  const std::vector<std::string> names = {"/changed", "/removed", "/renamed"};
  {
    Drive drive(base.path(), "drive", protocol);
    protocol.loses_answers = true;
    for (const std::string& name : names) {
      EXPECT_EQ(drive.calls.WriteFile(name, "first"), 0);
      EXPECT_TRUE(WaitUntil([&] { return protocol.Content(name) == "first"; }));
    }
    EXPECT_EQ(drive.calls.WriteFile("/changed", "second"), 0);
  }
  protocol.loses_answers = false;
  protocol.failure = FILE_WRITE_FAILED;  // of what is sent at once
  Drive again(base.path(), "drive", protocol);
  protocol.failure = SUCCESS;
  EXPECT_EQ(again.calls.Unlink("/removed"), 0);
  EXPECT_EQ(again.calls.Rename("/renamed", "/new name"), 0);
  EXPECT_EQ(again.files->SendAll(kPatience), 0U);
  EXPECT_EQ(protocol.Paths(), (std::vector<std::string>{"/changed", "/new name"}));
  EXPECT_EQ(protocol.Content("/changed"), "second");
}

TEST_F(JournalTest, AMoveThatTheProcessDidNotLiveToSeeHasHappenedOrNot) {
  for (const bool has_happened : {false, true}) {
    protocol.Remove("/b");
    protocol.Write("/a", "theirs");
    FS_INFO source = {};
    ASSERT_EQ(protocol.GetInfo("/a", &source), SUCCESS);
    fs::Journal::Record record{.remote = "memory:", .path = "/b", .size = 4, .replaces = ""};
    {
      const auto journal = fs::Journal::Open(base.path(), "drive");
      std::shared_ptr<fs::Content> content;
      size_t written = 0;
      ASSERT_EQ(fs::Content::Make(journal->GetFolder(), true, content), 0);
      ASSERT_EQ(content->Write(0, "ours", 4, written), 0);
      ASSERT_EQ(journal->Put("one", record, *content), 0);
      ASSERT_EQ(journal->Put(fs::Journal::Move{"two", "memory:", "/a", "/b", false, source.size,
                                               source.modified, "one"}),
                0);
    }
    if (has_happened) {
      ASSERT_EQ(protocol.Move("/a", "/b"), SUCCESS);
    }
    Drive drive(base.path(), "drive", protocol);
    EXPECT_EQ(drive.calls.Content("/b"), has_happened ? "theirs" : "ours");
    EXPECT_EQ(drive.files->SendAll(kPatience), 0U);
    EXPECT_EQ(protocol.Content("/b"), has_happened ? "theirs" : "ours");
    EXPECT_EQ(protocol.Paths().size(), has_happened ? 1U : 2U);
  }
  EXPECT_EQ(FilesOnDisk(), 0U);
}

TEST_F(JournalTest, AChangedFileThatSomebodyElseChangedMeanwhileIsKeptBesideTheirs) {
  protocol.Write("/report.txt", "before");
  Drive drive(base.path(), "drive", protocol);
  int file = -1;
  ASSERT_EQ(drive.calls.Open("/report.txt", O_RDWR, file), 0);
  ASSERT_EQ(drive.calls.Write(file, 0, "ours!!"), 0);
  protocol.Write("/report.txt", "theirs");
  EXPECT_EQ(drive.calls.Sync(file), 0);
  EXPECT_EQ(drive.calls.Close(file), 0);
  ASSERT_EQ(drive.files->SendAll(kPatience), 0U);
  const auto paths = protocol.Paths();
  ASSERT_EQ(paths.size(), 2U);
  EXPECT_EQ(protocol.Content(paths[0]), "ours!!") << paths[0];
  EXPECT_EQ(protocol.Content("/report.txt"), "theirs");
  EXPECT_THAT(drive.events->Texts(), testing::Contains("error 2 " + paths[0] + " 36"));
}

TEST_F(JournalTest, WhatWasClosedIsNotChangedByWhatIsWrittenAfterwards) {
  {
    Drive drive(base.path(), "drive", protocol);
    std::vector<std::string> names;
    EXPECT_EQ(drive.calls.List("/", names), 0);
    protocol.failure = DEVICE_NOT_READY;
    ASSERT_EQ(drive.calls.WriteFile("/log", "closed"), 0);
    int file = -1;
    ASSERT_EQ(drive.calls.Open("/log", O_RDWR, file), 0);
    ASSERT_EQ(drive.calls.Write(file, 0, "not yet"), 0);
    ASSERT_EQ(drive.calls.Truncate(file, 2), 0);
    EXPECT_EQ(drive.calls.Sync(file), EIO);
  }
  protocol.failure = SUCCESS;
  Drive again(base.path(), "drive", protocol);
  // A failed fsync has put the newer state into the journal, whole.
  EXPECT_EQ(again.files->SendAll(kPatience), 0U);
  EXPECT_EQ(protocol.Content("/log"), "no");
}

TEST_F(JournalTest, OnlyFilesOfTheSameRemoteAreTakenAndDamagedRecordsHarmNobody) {
  fs::Journal::Record record{.remote = "elsewhere", .path = "/file", .size = 2};
  {
    const auto journal = fs::Journal::Open(base.path(), "drive");
    std::shared_ptr<fs::Content> content;
    size_t written = 0;
    ASSERT_EQ(fs::Content::Make(journal->GetFolder(), true, content), 0);
    ASSERT_EQ(content->Write(0, "ab", 2, written), 0);
    ASSERT_EQ(journal->Put("one", record, *content), 0);
    std::ofstream(journal->GetFolder() + "/damaged.record") << "{\"remote\":\"elsew";
    std::ofstream(journal->GetFolder() + "/evil.record")
        << R"({"remote":"elsewhere","path":"/../../x","content":"a.content"})";
    EXPECT_NE(fs::Journal::Open(base.path(), "drive")->GetFolder(), journal->GetFolder())
        << "two processes, two folders";
  }
  const auto journal = fs::Journal::Open(base.path(), "../drive");
  std::vector<fs::Journal::Move> moves;
  EXPECT_TRUE(journal->TakeOver("memory:", moves).empty());
  const auto taken = journal->TakeOver("elsewhere", moves);
  ASSERT_EQ(taken.size(), 1U);
  EXPECT_EQ(taken[0].record.path, "/file");
  EXPECT_TRUE(journal->TakeOver("elsewhere", moves).empty()) << "once";
  EXPECT_TRUE(std::filesystem::exists(base.path() / "drive/damaged.record"));
}

TEST_F(JournalTest, FailedUploadsAreReportedTriedAgainAndWaitedForWhileTheyMove) {
  Drive drive(base.path(), "drive", protocol);
  std::vector<std::string> names;
  EXPECT_EQ(drive.calls.List("/", names), 0);
  protocol.failure = ACCESS_DENIED;
  EXPECT_EQ(drive.calls.WriteFile("/file", "content"), 0);
  EXPECT_EQ(drive.files->SendAll(kPatience), 1U) << "a refusal is not waited for";
  EXPECT_THAT(drive.events->Texts(), testing::IsSupersetOf({"end /file 23", "error 2 /file 23"}));
  EXPECT_EQ(drive.calls.Content("/file"), "content");
  protocol.failure = DEVICE_NOT_READY;
  EXPECT_EQ(drive.files->SendAll(std::chrono::milliseconds(50)), 1U);
  protocol.failure = SUCCESS;
  EXPECT_EQ(drive.files->SendAll(kPatience), 0U);
  EXPECT_EQ(protocol.Content("/file"), "content");
}

TEST_F(JournalTest, ManyFilesAreSentSeveralAtOnceAndHoldNoDescriptors) {
  Drive drive(base.path(), "drive", protocol);
  std::vector<std::string> names;
  EXPECT_EQ(drive.calls.List("/", names), 0);
  protocol.latency_ms = 20;
  const auto count_descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const auto before = count_descriptors();
  constexpr int kFiles = 200;
  for (int i = 0; i < kFiles; ++i) {
    ASSERT_EQ(drive.calls.WriteFile("/" + std::to_string(i), std::to_string(i)), 0);
  }
  EXPECT_LT(count_descriptors() - before, 50);
  EXPECT_EQ(drive.files->SendAll(kPatience), 0U);
  for (int i = 0; i < kFiles; ++i) {
    EXPECT_EQ(protocol.Content("/" + std::to_string(i)), std::to_string(i));
  }
}

TEST_F(JournalTest, FsyncMeansWhatThereIsNowAlsoWhenTheJournalTakesNothing) {
  Drive drive(base.path(), "drive", protocol);
  std::vector<std::string> names;
  EXPECT_EQ(drive.calls.List("/", names), 0);
  protocol.is_locked = true;
  EXPECT_EQ(drive.calls.WriteFile("/file", "old"), 0);
  for (const auto& entry : std::filesystem::recursive_directory_iterator(base.path())) {
    if (const auto path = entry.path(); path.extension() == ".record") {
      std::filesystem::remove(path);
      std::filesystem::create_directory(path);  // no record can take its place
    }
  }
  int file = -1;
  EXPECT_EQ(drive.calls.Open("/file", O_RDWR, file), 0);
  EXPECT_EQ(drive.calls.Write(file, 0, "new"), 0);
  EXPECT_NE(drive.calls.Sync(file), 0);
  protocol.is_locked = false;
  EXPECT_EQ(drive.calls.Sync(file), 0);
  EXPECT_EQ(protocol.Content("/file"), "new");
  EXPECT_EQ(drive.calls.Close(file), 0);
}

TEST_F(JournalTest, ALockedFileIsNoConflictAndWhatCannotBeSentIsNotSentAllTheTime) {
  protocol.Write("/file", "before");
  protocol.MakeFolder("/folder");
  Drive drive(base.path(), "drive", protocol);
  std::vector<std::string> names;
  EXPECT_EQ(drive.calls.List("/", names), 0);
  EXPECT_EQ(drive.calls.List("/folder", names), 0);
  protocol.is_locked = true;
  EXPECT_EQ(drive.calls.WriteFile("/file", "ours"), 0);
  EXPECT_EQ(drive.calls.WriteFile("/new", "new"), 0);
  EXPECT_EQ(drive.files->SendAll(kPatience), 2U) << "refused, so not waited for";
  EXPECT_LT(protocol.uploads, 20);
  protocol.is_locked = false;
  EXPECT_EQ(drive.files->SendAll(kPatience), 0U);
  EXPECT_EQ(protocol.Paths(), (std::vector<std::string>{"/file", "/folder", "/new"}));
  EXPECT_EQ(protocol.Content("/file"), "ours");

  protocol.is_locked = true;
  EXPECT_EQ(drive.calls.WriteFile("/folder/lost", "x"), 0);
  protocol.Remove("/folder");
  protocol.Write("/folder", "a file by now");
  protocol.is_locked = false;
  const int before = protocol.uploads;
  EXPECT_EQ(drive.files->SendAll(kPatience), 1U);
  EXPECT_LT(protocol.uploads - before, 20);
}

TEST_F(JournalTest, AFolderMadeElsewhereUnderTheNameOfAnUnsentFileStandsBesideIt) {
  Drive drive(base.path(), "drive", protocol);
  std::vector<std::string> names;
  EXPECT_EQ(drive.calls.List("/", names), 0);
  protocol.is_locked = true;
  EXPECT_EQ(drive.calls.WriteFile("/name", "ours"), 0);
  protocol.MakeFolder("/name");
  fs::Stat stat;
  const fs::Entry folder{"name", {.is_folder = true, .version = {}}};
  ASSERT_TRUE(drive.files->LookUpEntry(fs::kRootIno, folder, fs::Clock::now(), stat));
  EXPECT_FALSE(stat.is_folder);
  protocol.is_locked = false;
  EXPECT_EQ(drive.files->SendAll(kPatience), 0U);
  const auto paths = protocol.Paths();
  ASSERT_EQ(paths.size(), 2U);
  EXPECT_EQ(protocol.Content(paths[1]), "ours") << paths[1];
}

TEST_F(JournalTest, ATimeThatIsSetWhileTheFileIsSentArrivesWithoutWaiting) {
  Drive drive(base.path(), "drive", protocol);
  std::vector<std::string> names;
  EXPECT_EQ(drive.calls.List("/", names), 0);
  protocol.latency_ms = 1000;
  EXPECT_EQ(drive.calls.WriteFile("/file", "content"), 0);
  fs::Stat stat;
  ASSERT_EQ(drive.files->Lookup(fs::kRootIno, "file", stat), 0);
  fs::AttributeChange change;
  change.modified = FS_TIME{1'000'000'000, 0};
  EXPECT_EQ(drive.files->SetAttributes(stat.ino, change, stat), 0);
  EXPECT_EQ(protocol.Content("/file"), "") << "still on its way";
  protocol.latency_ms = 0;
  EXPECT_EQ(drive.files->SendAll(kPatience), 0U);
  FS_INFO info = {};
  ASSERT_EQ(protocol.GetInfo("/file", &info), SUCCESS);
  EXPECT_EQ(info.modified.seconds, 1'000'000'000);
}

}  // namespace
}  // namespace tarn::test
