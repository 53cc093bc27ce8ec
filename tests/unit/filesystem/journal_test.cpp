#include "platform/filesystem/journal.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "tests/support/service/wait.h"
#include "tests/unit/filesystem/direct_calls.h"
#include "tests/unit/filesystem/lent_libraries.h"

namespace tarn::test {
namespace {

// While it exists, nothing longer than some bytes can be written to a file by this process.
class FullDisk {
 public:
  explicit FullDisk(rlim_t bytes = 1) {
    (void)std::signal(SIGXFSZ, SIG_IGN);
    ::getrlimit(RLIMIT_FSIZE, &before);
    const rlimit full = {bytes, before.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &full);
  }
  ~FullDisk() { ::setrlimit(RLIMIT_FSIZE, &before); }
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;

 private:
  rlimit before = {};
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

  // Puts a new file into a journal, newer than those before.
  void PutOne(fs::Journal& journal, const std::string& path, const std::string& text,
              const std::string& remote = "memory:", const std::string& id = "one") {
    fs::Journal::Record record{.remote = remote,
                               .path = path,
                               .size = text.size(),
                               .modified = {++last_modified, 0},
                               .replaces = ""};
    std::shared_ptr<fs::Content> content;
    size_t written = 0;
    ASSERT_EQ(fs::Content::Make(journal.GetFolder(), true, content), 0);
    ASSERT_EQ(content->Write(0, text.data(), text.size(), written), 0);
    ASSERT_EQ(journal.Put(id, record, *content), 0);
  }

  long long last_modified = 0;
  TempFolder base;
  LentLibraries libraries;
  MemoryProtocol protocol;
};

TEST_F(JournalTest, WhatWasClosedSurvivesTheProcessAndIsSentUnderItsLastName) {
  protocol.MakeFolder("/folder");
  protocol.Write("/changed", "theirs");
  {
    Drive drive(protocol, base.path());
    EXPECT_EQ(drive.Content("/changed"), "theirs");
    (void)drive.Names("/folder");
    const int changed = drive.Opened("/changed", O_WRONLY | O_TRUNC);
    protocol.failure = DEVICE_NOT_READY;
    EXPECT_EQ(drive.Write(changed, 0, "ours"), 0);
    EXPECT_EQ(drive.Close(changed), 0);
    EXPECT_EQ(drive.WriteFile("/folder/new", "new"), 0);
    EXPECT_EQ(drive.WriteFile("/folder/removed", "x"), 0);
    EXPECT_EQ(drive.Unlink("/folder/removed"), 0);
    EXPECT_EQ(drive.Rename("/folder/new", "/folder/renamed"), 0);
    EXPECT_EQ(drive.Content("/folder/renamed"), "new");
    // Never closed, so nobody was promised anything.
    const int half = drive.Opened("/folder/renamed", O_WRONLY);
    EXPECT_EQ(drive.Write(half, 0, "NEW"), 0);
  }
  protocol.failure = SUCCESS;
  protocol.Remove("/folder");
  {
    Drive other(protocol, base.path(), "another label");
    EXPECT_EQ(other.Content("/changed"), "ours") << "from the first moment";
    EXPECT_EQ(other.files->SendAll(kPatience), 0U);
    EXPECT_EQ(protocol.Content("/changed"), "ours");
    EXPECT_EQ(protocol.Content("/folder/renamed"), "new");
    EXPECT_THAT(protocol.Paths(), testing::Not(testing::Contains("/folder/removed")));
  }
  EXPECT_EQ(FilesOnDisk(), 0U);
}

// Says that it has stored everything, and tells no version.
class SilentProtocol : public MemoryProtocol {
 public:
  AERROR Upload(const char* path, FS_SOURCE* source, unsigned long long size, FS_PROGRESS progress,
                void* context) override {
    if (const AERROR error = MemoryProtocol::Upload(path, source, size, progress, context);
        error != SUCCESS) {
      return error;
    }
    source->version[0] = '\0';
    Write(path, Content(path).substr(0, kept_bytes));
    failure = failure_then.load();
    return SUCCESS;
  }
  std::atomic<size_t> kept_bytes = std::string::npos;
  std::atomic<AERROR> failure_then = SUCCESS;
};

TEST_F(JournalTest, AnUploadCountsOnceTheRemoteIsKnownToHaveAllOfIt) {
  SilentProtocol silent;
  Drive drive(silent, base.path());
  silent.kept_bytes = 3;
  const int cut = drive.Opened("/cut", O_WRONLY | O_CREAT);
  EXPECT_EQ(drive.Write(cut, 0, "content"), 0);
  EXPECT_EQ(drive.Sync(cut), EIO);
  silent.kept_bytes = std::string::npos;
  const int file = drive.Opened("/file", O_WRONLY | O_CREAT);
  EXPECT_EQ(drive.Write(file, 0, "content"), 0);
  silent.failure_then = ACCESS_DENIED;
  EXPECT_NE(drive.Sync(file), 0);
  EXPECT_GE(FilesOnDisk(), 2U) << "the content and the record of the second at least";
  silent.failure_then = silent.failure = SUCCESS;
  EXPECT_EQ(drive.Close(cut), 0);
  EXPECT_EQ(drive.Close(file), 0);
  EXPECT_EQ(drive.files->SendAll(kPatience), 0U);
  EXPECT_EQ(silent.Content("/file"), "content");
  EXPECT_THAT(silent.Paths(), testing::Contains(testing::StartsWith("/cut (conflict ")))
      << "whose the other one is cannot be told";
}

TEST_F(JournalTest, ANewFileIsKeptForTheProtocolOfItsFolder) {
  MemoryProtocol second;
  MemoryProtocol third;
  second.identity = "second:";
  second.MakeFolder("/folder");
  {
    Drive drive(protocol, base.path());
    drive.files->AddProtocol(Share(second));
    protocol.refusal = second.refusal = ACCESS_DENIED;
    EXPECT_EQ(drive.WriteFile("/folder/old", "renamed"), 0);
    EXPECT_EQ(drive.Rename("/folder/old", "/folder/new"), 0);
    fs::Stat folder;
    fs::Stat file;
    fs::FileSystem::Opened opened;
    ASSERT_EQ(drive.files->Lookup(fs::kRootIno, "folder", folder), 0);
    drive.files->AddProtocol(Share(third));  // so that nothing is known of the folder any more
    ASSERT_EQ(drive.files->Create(folder.ino, "made", O_WRONLY, file, opened), 0);
    EXPECT_EQ(drive.files->Flush(opened.handle), 0);
    drive.files->Release(opened.handle);
  }
  protocol.refusal = second.refusal = SUCCESS;
  for (MemoryProtocol* const remote : {&protocol, &second}) {
    Drive alone(*remote, base.path());
    EXPECT_EQ(alone.files->SendAll(kPatience), 0U);
  }
  EXPECT_THAT(protocol.Paths(), testing::IsEmpty());
  EXPECT_THAT(second.Paths(), testing::ElementsAre("/folder", "/folder/made", "/folder/new"));
}

TEST_F(JournalTest, WhatAnotherProcessStillHasAtTheMountIsTakenOverWhenThatHasEnded) {
  protocol.Write("/changed", "before");
  auto ending = std::make_unique<Drive>(protocol, base.path());
  (void)ending->Names("/");
  protocol.refusal = ACCESS_DENIED;
  ASSERT_EQ(ending->WriteFile("/changed", "ours!!"), 0);
  ASSERT_EQ(ending->WriteFile("/new", "new"), 0);
  {
    Drive next(protocol, base.path());
    fs::Stat known;
    ASSERT_EQ(next.files->Lookup(fs::kRootIno, "changed", known), 0);
    const int reader = next.Opened("/changed", O_RDONLY);
    EXPECT_EQ(next.ReadAt(reader, 0, 10), "before");
    ending.reset();
    EXPECT_TRUE(WaitUntil(
        [&] { return next.Content("/changed") == "ours!!" && next.Content("/new") == "new"; }));
    EXPECT_EQ(next.Names("/"), (std::vector<std::string>{"changed", "new"}));
    fs::Stat stat;
    EXPECT_EQ(next.files->MakeFolder(fs::kRootIno, "new", stat), EEXIST)
        << "though the kernel does not know of it yet";
    ASSERT_EQ(next.files->Lookup(fs::kRootIno, "changed", stat), 0);
    EXPECT_NE(stat.ino, known.ino) << "the kernel has old pages of that";
    next.Close(reader);
    protocol.refusal = SUCCESS;
    EXPECT_EQ(next.files->SendAll(kPatience), 0U);
    EXPECT_EQ(protocol.Content("/changed"), "ours!!");
    EXPECT_EQ(protocol.Content("/new"), "new");
  }
  EXPECT_EQ(FilesOnDisk(), 0U);
}

TEST_F(JournalTest, AFileThatCameThereUnnoticedIsReplacedRemovedAndRenamedAsOurs) {
  const std::vector<std::string> names = {"/changed", "/removed", "/renamed", "/same"};
  {
    Drive drive(protocol, base.path());
    protocol.loses_answers = true;
    for (const std::string& name : names) {
      EXPECT_EQ(drive.WriteFile(name, "first"), 0);
      EXPECT_TRUE(WaitUntil([&] { return protocol.Content(name) == "first"; }));
    }
    EXPECT_EQ(drive.WriteFile("/changed", "second"), 0);
  }
  protocol.loses_answers = false;
  protocol.failure = FILE_WRITE_FAILED;  // of what is sent at once
  Drive again(protocol, base.path());
  protocol.failure = SUCCESS;
  EXPECT_EQ(again.Unlink("/removed"), 0);
  EXPECT_EQ(again.Rename("/renamed", "/new name"), 0);
  EXPECT_EQ(again.files->SendAll(kPatience), 0U);
  EXPECT_EQ(protocol.Paths(), (std::vector<std::string>{"/changed", "/new name", "/same"}));
  EXPECT_EQ(protocol.Content("/changed"), "second");
}

TEST_F(JournalTest, WhatSomebodyElsePutInPlaceOfAnUploadIsNotRemovedWithOurs) {
  Drive drive(protocol, base.path());
  protocol.loses_answers = true;
  EXPECT_EQ(drive.WriteFile("/name", "ours"), 0);
  EXPECT_TRUE(WaitUntil([&] { return protocol.Content("/name") == "ours"; }));
  protocol.refusal = FILE_WRITE_FAILED;
  protocol.Write("/name", "theirs");
  EXPECT_EQ(drive.Unlink("/name"), 0);
  EXPECT_EQ(protocol.Content("/name"), "theirs");
}

TEST_F(JournalTest, AMoveThatTheProcessDidNotLiveToSeeHasHappenedOrNot) {
  for (const bool has_happened : {false, true}) {
    protocol.Remove("/b");
    protocol.Write("/a", "theirs");
    FS_INFO source = {};
    ASSERT_EQ(protocol.GetInfo("/a", &source), SUCCESS);
    {
      const auto journal = fs::Journal::Open(base.path(), "drive");
      PutOne(*journal, "/b", "ours");
      PutOne(*journal, "/other", "other", "memory:", "three");
      ASSERT_EQ(journal->Put(fs::Journal::Move{"two", "memory:", "/a", "/b", false, source.size,
                                               source.modified, "one"}),
                0);
    }
    if (has_happened) {
      ASSERT_EQ(protocol.Move("/a", "/b"), SUCCESS);
    }
    protocol.failure = DEVICE_NOT_READY;
    Drive drive(protocol, base.path());
    EXPECT_EQ(drive.Content("/other"), "other");
    protocol.failure = SUCCESS;
    EXPECT_TRUE(WaitUntil([&] { return FilesOnDisk() == 0; })) << "asked until it is known";
    EXPECT_EQ(drive.Content("/b"), has_happened ? "theirs" : "ours");
    EXPECT_EQ(protocol.Content("/b"), has_happened ? "theirs" : "ours");
    EXPECT_EQ(protocol.Paths().size(), has_happened ? 2U : 3U);
  }
}

TEST_F(JournalTest, AMoveIsRememberedUntilTheRecordsOfItsFilesAreWritten) {
  {
    const auto journal = fs::Journal::Open(base.path(), "drive");
    PutOne(*journal, "/same", "old", "memory:", "three");
    PutOne(*journal, "/same", "new", "memory:", "four");
    PutOne(*journal, "/from/file", "ours");
    ASSERT_EQ(journal->Put(fs::Journal::Move{"two", "memory:", "/from", "/to", true, 0, {}, ""}),
              0);
  }
  protocol.MakeFolder("/to");
  {
    const FullDisk full;
    const Drive drive(protocol, base.path());
  }
  Drive drive(protocol, base.path());
  EXPECT_EQ(drive.files->SendAll(kPatience), 0U);
  EXPECT_THAT(protocol.Paths(), testing::ElementsAre("/same", testing::_, "/to", "/to/file"));
  EXPECT_EQ(protocol.Content("/same"), "new") << "the old one stands beside it";
}

TEST_F(JournalTest, ARenameOnAFullDiskFailsOrSurvivesTheProcess) {
  const std::string long_name(200, 'x');
  protocol.MakeFolder("/f");
  {
    Drive drive(protocol, base.path());
    (void)drive.Names("/");
    protocol.refusal = ACCESS_DENIED;
    ASSERT_EQ(drive.WriteFile("/doc", "old"), 0);
    ASSERT_EQ(drive.WriteFile("/tmp", "new"), 0);
    ASSERT_EQ(drive.WriteFile("/f/" + long_name, "x"), 0);
    {
      const FullDisk full;
      EXPECT_EQ(drive.Rename("/tmp", "/doc"), EFBIG);
      EXPECT_EQ(drive.Rename("/f", "/g"), EFBIG);
    }
    EXPECT_EQ(drive.Content("/doc"), "old");
    EXPECT_EQ(drive.Content("/tmp"), "new");
    const FullDisk with_room_for_a_note(250);
    EXPECT_EQ(drive.Rename("/f", "/g"), 0);
  }
  protocol.refusal = SUCCESS;
  Drive again(protocol, base.path());
  EXPECT_EQ(again.files->SendAll(kPatience), 0U);
  EXPECT_EQ(protocol.Paths(), (std::vector<std::string>{"/doc", "/g", "/g/" + long_name, "/tmp"}));
  EXPECT_EQ(protocol.Content("/doc"), "old");
  EXPECT_EQ(protocol.Content("/tmp"), "new");
}

TEST_F(JournalTest, WhatSomebodyElseMadeOrChangedMeanwhileIsKeptAndOursBesideIt) {
  Drive drive(protocol, base.path());
  for (const std::string before : {"there is none", "it is theirs"}) {
    const int file = drive.Opened("/report.txt", O_RDWR | O_CREAT);
    ASSERT_EQ(drive.Write(file, 0, "ours!!"), 0);
    protocol.Write("/report.txt", "theirs");
    EXPECT_EQ(drive.Sync(file), 0);
    EXPECT_EQ(drive.Close(file), 0);
    ASSERT_EQ(drive.files->SendAll(kPatience), 0U);
    const auto paths = protocol.Paths();
    ASSERT_EQ(paths.size(), 2U) << before;
    EXPECT_THAT(paths[0], testing::MatchesRegex("/report .conflict ....-..-.. .*[.]txt"));
    EXPECT_THAT(drive.events->Texts(), testing::Contains("error 2 " + paths[0] + " 36"));
    EXPECT_EQ(protocol.Content(paths[0]), "ours!!") << before;
    EXPECT_EQ(drive.Content(paths[0]), "ours!!") << before;
    EXPECT_EQ(protocol.Content("/report.txt"), "theirs") << before;
    EXPECT_EQ(drive.Content("/report.txt"), "theirs") << before;
    protocol.Remove(paths[0]);
  }
}

TEST_F(JournalTest, WhatWasClosedIsNotChangedByWhatIsWrittenAfterwards) {
  {
    Drive drive(protocol, base.path());
    (void)drive.Names("/");
    protocol.failure = DEVICE_NOT_READY;
    ASSERT_EQ(drive.WriteFile("/log", "closed"), 0);
    const int file = drive.Opened("/log", O_RDWR);
    ASSERT_EQ(drive.Write(file, 0, "not yet"), 0);
    ASSERT_EQ(drive.Truncate(file, 2), 0);
    EXPECT_EQ(drive.Sync(file), EIO);
  }
  protocol.failure = SUCCESS;
  Drive again(protocol, base.path());
  // A failed fsync has put the newer state into the journal, whole.
  EXPECT_EQ(again.files->SendAll(kPatience), 0U);
  EXPECT_EQ(protocol.Content("/log"), "no");
}

TEST_F(JournalTest, OnlyFilesOfTheSameRemoteAreTakenAndDamagedRecordsHarmNobody) {
  {
    const auto journal = fs::Journal::Open(base.path(), "drive");
    PutOne(*journal, "/file", "ab", "elsewhere");
    ASSERT_EQ(journal->Put(fs::Journal::Move{"two", "elsewhere", "/a", "/b", false, 1, {}, ""}), 0);
    std::ofstream(journal->GetFolder() + "/damaged.record") << "{\"remote\":\"elsew";
    std::ofstream(journal->GetFolder() + "/evil.record")
        << R"({"remote":"elsewhere","path":"/../../x","content":"a.content"})";
    EXPECT_NE(fs::Journal::Open(base.path(), "drive")->GetFolder(), journal->GetFolder())
        << "two processes, two folders";
  }
  const auto journal = fs::Journal::Open(base.path(), "../drive");
  std::vector<fs::Journal::Move> moves;
  EXPECT_TRUE(journal->TakeOver("memory:", moves).empty());
  EXPECT_TRUE(std::filesystem::exists(base.path() / "drive/two.move"));
  const auto taken = journal->TakeOver("elsewhere", moves);
  ASSERT_EQ(taken.size(), 1U);
  EXPECT_EQ(taken[0].record.path, "/file");
  EXPECT_EQ(moves.size(), 1U);
  EXPECT_TRUE(journal->TakeOver("elsewhere", moves).empty()) << "once";
  EXPECT_TRUE(std::filesystem::exists(base.path() / "drive/damaged.record"));
}

TEST_F(JournalTest, FailedUploadsAreReportedTriedAgainAndWaitedForWhileTheyMove) {
  Drive drive(protocol, base.path());
  (void)drive.Names("/");
  protocol.failure = ACCESS_DENIED;
  EXPECT_EQ(drive.WriteFile("/file", "content"), 0);
  EXPECT_EQ(drive.files->SendAll(kPatience), 1U) << "a refusal is not waited for";
  EXPECT_THAT(drive.events->Texts(), testing::IsSupersetOf({"end /file 23", "error 2 /file 23"}));
  EXPECT_EQ(drive.Content("/file"), "content");
  protocol.failure = DEVICE_NOT_READY;
  EXPECT_EQ(drive.files->SendAll(std::chrono::milliseconds(50)), 1U);
  protocol.failure = SUCCESS;
  EXPECT_EQ(drive.files->SendAll(kPatience), 0U);
  EXPECT_EQ(protocol.Content("/file"), "content");
}

TEST_F(JournalTest, ManyFilesAreSentSeveralAtOnceAndHoldNoDescriptors) {
  Drive drive(protocol, base.path());
  (void)drive.Names("/");
  protocol.latency_ms = 20;
  const auto count_descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const auto before = count_descriptors();
  constexpr int kFiles = 200;
  for (int i = 0; i < kFiles; ++i) {
    ASSERT_EQ(drive.WriteFile("/" + std::to_string(i), std::to_string(i)), 0);
  }
  EXPECT_LT(count_descriptors() - before, 50);
  EXPECT_EQ(drive.files->SendAll(kPatience), 0U);
  for (int i = 0; i < kFiles; ++i) {
    EXPECT_EQ(protocol.Content("/" + std::to_string(i)), std::to_string(i));
  }
}

TEST_F(JournalTest, FsyncMeansWhatThereIsNowAlsoWhenTheJournalTakesNothing) {
  Drive drive(protocol, base.path());
  (void)drive.Names("/");
  protocol.refusal = SHARING_VIOLATION;
  EXPECT_EQ(drive.WriteFile("/file", "old"), 0);
  for (const auto& entry : std::filesystem::recursive_directory_iterator(base.path())) {
    if (const auto path = entry.path(); path.extension() == ".record") {
      std::filesystem::remove(path);
      std::filesystem::create_directory(path);  // no record can take its place
    }
  }
  const int file = drive.Opened("/file", O_RDWR);
  EXPECT_EQ(drive.Write(file, 0, "new"), 0);
  EXPECT_NE(drive.Sync(file), 0);
  protocol.refusal = SUCCESS;
  EXPECT_EQ(drive.Sync(file), 0);
  EXPECT_EQ(protocol.Content("/file"), "new");
  EXPECT_EQ(drive.Close(file), 0);
}

TEST_F(JournalTest, ALockedFileIsNoConflictAndWhatCannotBeSentIsNotSentAllTheTime) {
  protocol.Write("/file", "before");
  Drive drive(protocol, base.path());
  (void)drive.Names("/");
  protocol.refusal = SHARING_VIOLATION;
  EXPECT_EQ(drive.WriteFile("/file", "ours"), 0);
  EXPECT_EQ(drive.WriteFile("/new", "new"), 0);
  EXPECT_EQ(drive.files->SendAll(kPatience), 2U) << "refused, so not waited for";
  EXPECT_LT(protocol.uploads, 20);
  protocol.refusal = SUCCESS;
  EXPECT_EQ(drive.files->SendAll(kPatience), 0U);
  EXPECT_EQ(protocol.Paths(), (std::vector<std::string>{"/file", "/new"}));
  EXPECT_EQ(protocol.Content("/file"), "ours");
}

TEST_F(JournalTest, AFolderWithUnsentFilesStaysThoughTheRemoteHasAFileInItsPlace) {
  protocol.MakeFolder("/folder");
  Drive drive(std::make_shared<fs::FileSystem>(fs::Clock::duration::zero()));
  drive.files->UseJournal(fs::Journal::Open(base.path(), "drive"));
  drive.files->AddProtocol(Share(protocol));
  protocol.refusal = ACCESS_DENIED;
  ASSERT_EQ(drive.WriteFile("/folder/new", "ours"), 0);
  protocol.Remove("/folder");
  protocol.Write("/folder", "theirs");
  fs::Stat stat;
  ASSERT_EQ(drive.files->Lookup(fs::kRootIno, "folder", stat), 0);
  EXPECT_TRUE(stat.is_folder);
  EXPECT_EQ(drive.files->GetAttributes(stat.ino, stat), 0);
  fs::FileSystem::Opened opened;
  EXPECT_EQ(drive.files->Create(fs::kRootIno, "folder", O_WRONLY, stat, opened), EISDIR);
  const fs::Entry theirs{"folder", {.is_folder = false, .version = "theirs"}};
  ASSERT_TRUE(drive.files->LookUpEntry(fs::kRootIno, theirs, fs::Clock::now(), stat));
  EXPECT_TRUE(stat.is_folder);
  EXPECT_EQ(drive.Content("/folder/new"), "ours");
  protocol.refusal = SUCCESS;
  EXPECT_EQ(drive.files->SendAll(kPatience), 1U) << "there is no place for it";
  protocol.Remove("/folder");
  EXPECT_EQ(drive.files->SendAll(kPatience), 0U);
  EXPECT_EQ(protocol.Content("/folder/new"), "ours");
}

TEST_F(JournalTest, AFolderMadeElsewhereUnderTheNameOfAnUnsentFileStandsBesideIt) {
  Drive drive(protocol, base.path());
  (void)drive.Names("/");
  protocol.refusal = SHARING_VIOLATION;
  EXPECT_EQ(drive.WriteFile("/name", "ours"), 0);
  protocol.MakeFolder("/name");
  fs::Stat stat;
  const fs::Entry folder{"name", {.is_folder = true, .version = {}}};
  ASSERT_TRUE(drive.files->LookUpEntry(fs::kRootIno, folder, fs::Clock::now(), stat));
  EXPECT_FALSE(stat.is_folder);
  protocol.refusal = SUCCESS;
  EXPECT_EQ(drive.files->SendAll(kPatience), 0U);
  const auto paths = protocol.Paths();
  ASSERT_EQ(paths.size(), 2U);
  EXPECT_EQ(protocol.Content(paths[1]), "ours") << paths[1];
}

}  // namespace
}  // namespace tarn::test
