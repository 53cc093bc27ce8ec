#include "platform/filesystem/file_system.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

#include "tests/unit/filesystem/direct_calls.h"

namespace tarn::test {
namespace {

class FileSystemTest : public testing::Test {
 protected:
  MemoryProtocol protocol;
  Drive drive{protocol};
  const std::shared_ptr<fs::FileSystem>& files = drive.files;
};

TEST_F(FileSystemTest, EveryOpenSeesWhatWasChangedElsewhereAndNoReadGivesAMixture) {
  protocol.Write("/file", "old content");
  EXPECT_EQ(drive.Content("/file"), "old content");
  const int before = drive.Opened("/file", O_RDWR);
  protocol.Write("/file", "new");
  std::string content;
  const int after = drive.Opened("/file", O_RDONLY);
  EXPECT_EQ(drive.Read(before, 0, 10, content), EIO);
  EXPECT_EQ(drive.ReadAt(after, 0, 10), "new");
  drive.Close(before);
  drive.Close(after);
  EXPECT_EQ(protocol.Content("/file"), "new");
  protocol.Remove("/file");
  EXPECT_EQ(drive.ReadFile("/file", content), ESTALE) << "the kernel looks it up again";
}

TEST_F(FileSystemTest, OfALargeFileThatIsChangedOnlyWhatIsNeededIsFetchedBeforeItIsClosed) {
  const std::string before(5'000'000, 'a');
  protocol.Write("/file", before);
  protocol.Write("/overwritten", before);
  protocol.Write("/lost", before);
  const int file = drive.Opened("/file", O_RDWR);
  const int overwritten = drive.Opened("/overwritten", O_WRONLY);
  const int lost = drive.Opened("/lost", O_RDWR);
  for (const int changed : {file, lost}) {
    EXPECT_EQ(drive.Write(changed, 3'000'000, "b"), 0);
  }
  EXPECT_EQ(drive.Truncate(file, 4'000'000), 0);
  EXPECT_EQ(drive.Truncate(file, 4'000'010), 0);
  EXPECT_EQ(drive.Write(overwritten, 0, std::string(5'000'000, 'c')), 0);
  EXPECT_EQ(protocol.reads, 0);
  EXPECT_EQ(drive.ReadAt(file, 2'999'999, 3), "aba");
  EXPECT_EQ(drive.Close(overwritten), 0);
  EXPECT_LT(protocol.reads, 3);
  EXPECT_EQ(drive.Close(file), 0);
  std::string after = before.substr(0, 4'000'000) + std::string(10, '\0');
  after[3'000'000] = 'b';
  EXPECT_TRUE(protocol.Content("/file") == after);
  EXPECT_TRUE(protocol.Content("/overwritten") == std::string(5'000'000, 'c'));
  protocol.Write("/lost", "theirs");
  EXPECT_EQ(drive.Close(lost), EIO) << "the rest would come from another version";
  EXPECT_EQ(protocol.Content("/lost"), "theirs");
}

TEST_F(FileSystemTest, AFileThatIsPartlyChangedCanBeRenamedAndWrittenAnewWhereItsRestIsLost) {
  const std::string before(5'000'000, 'a');
  protocol.Write("/log", before);
  const int log = drive.Opened("/log", O_RDWR);
  EXPECT_EQ(drive.Write(log, 5'000'000, "b"), 0);
  EXPECT_EQ(drive.Rename("/log", "/old"), 0) << "of which the remote makes another version";
  EXPECT_EQ(drive.Close(log), 0);
  EXPECT_TRUE(protocol.Content("/old") == before + "b");

  const int lost = drive.Opened("/old", O_RDWR);
  EXPECT_EQ(drive.Write(lost, 0, "c"), 0);
  protocol.Write("/old", std::string(5'000'000, 'd'));
  EXPECT_EQ(drive.Sync(lost), EIO);
  EXPECT_EQ(drive.Truncate(lost, 1), 0);
  protocol.refusal = ACCESS_DENIED;
  EXPECT_NE(drive.Close(lost), 0);
  EXPECT_TRUE(drive.Content("/old") == "c") << "it is whole again, though not at the remote";
}

TEST_F(FileSystemTest, CloseTellsThatTheRemoteTookNothingAndTheContentStaysReadable) {
  const std::string content(1'000'000, 'x');
  const int file = drive.Opened("/file", O_WRONLY | O_CREAT);
  ASSERT_EQ(drive.Write(file, 0, content), 0);
  protocol.failure = ACCESS_DENIED;
  EXPECT_EQ(drive.Close(file), EACCES);
  EXPECT_THAT(drive.events->Texts(), testing::Contains("end /file 23"));
  protocol.failure = SUCCESS;
  EXPECT_EQ(drive.Content("/file"), content);
  EXPECT_EQ(files->SendAll(kPatience), 0U);
  EXPECT_EQ(protocol.Content("/file"), content);
  const auto texts = drive.events->Texts();
  EXPECT_EQ(texts.back(), "end /file 0");
  EXPECT_EQ(texts[texts.size() - 2], "uploading /file 1000000/1000000");
  const auto is_progress = [](const std::string& text) { return text.starts_with("uploading"); };
  EXPECT_LT(std::ranges::count_if(texts, is_progress), 6) << "32 parts in an instant";
}

TEST_F(FileSystemTest, ATimeReachesTheRemoteAndLeavesTheContentReadable) {
  protocol.Write("/file", "content");
  const int reader = drive.Opened("/file", O_RDONLY);
  fs::Stat stat;
  ASSERT_EQ(files->Lookup(fs::kRootIno, "file", stat), 0);
  fs::AttributeChange change;
  change.modified = FS_TIME{1'000'000'000, 5};
  EXPECT_EQ(files->SetAttributes(stat.ino, change, stat), 0);
  FS_INFO info = {};
  ASSERT_EQ(protocol.GetInfo("/file", &info), SUCCESS);
  EXPECT_EQ(info.modified.seconds, 1'000'000'000);
  EXPECT_EQ(stat.modified.nanoseconds, 5);
  const int second = drive.Opened("/file", O_RDONLY);
  EXPECT_EQ(drive.ReadAt(reader, 0, 10), "content") << "only the time is another";
  drive.Close(reader);
  drive.Close(second);
}

TEST_F(FileSystemTest, SeveralProtocolsAreOneFolder) {
  MemoryProtocol second;
  second.Write("/both/of_second", "2");
  second.Write("/hidden", "of second");
  second.MakeFolder("/only_second");
  protocol.Write("/both/of_first", "1");
  protocol.Write("/hidden", "of first");
  files->AddProtocol(Share(second));
  EXPECT_EQ(drive.Names("/"), (std::vector<std::string>{"both", "hidden", "only_second"}));
  EXPECT_EQ(drive.Names("/both"), (std::vector<std::string>{"of_first", "of_second"}));
  EXPECT_EQ(drive.WriteFile("/only_second/new", "n"), 0);
  EXPECT_EQ(second.Content("/only_second/new"), "n");
  EXPECT_EQ(drive.WriteFile("/both/of_second", "22"), 0);
  EXPECT_EQ(second.Content("/both/of_second"), "22") << "replaced where it is";
  EXPECT_EQ(drive.Rename("/hidden", "/only_second/hidden"), EXDEV);
  EXPECT_EQ(drive.RemoveFolder("/both"), ENOTEMPTY);
  second.failure = DEVICE_NOT_READY;
  std::vector<fs::Entry> entries;
  EXPECT_EQ(files->GetRemote().List("/", entries), DEVICE_NOT_READY)
      << "half a listing would look like deleted files";
  EXPECT_TRUE(files->GetRemote().Close()) << "nobody asks `second` then";
}

// A module that answers as no module should.
class HostileProtocol : public MemoryProtocol {
 public:
  AERROR List(const char* path, FS_LIST_SINK sink, void* context) override {
    FS_INFO info = {};
    info.size = ~0ULL;
    std::memset(info.version, 'v', sizeof info.version);
    const std::string too_long(300, 'x');
    for (const char* const name :
         {"", ".", "..", "a/b", "/etc", "\xFF", too_long.c_str(), "good"}) {
      sink(context, name, &info);
    }
    sink(context, nullptr, &info);
    sink(context, "no info", nullptr);
    return std::string(path) == "/" ? SUCCESS : static_cast<AERROR>(-7);
  }
  AERROR ReadVersion(const char* /*path*/, const char* /*version*/, unsigned long long /*offset*/,
                     void* /*buffer*/, unsigned long long length,
                     unsigned long long* received) override {
    *received = length + 1'000'000;
    return SUCCESS;
  }
};

TEST_F(FileSystemTest, AModuleThatAnswersNonsenseDoesNoHarm) {
  HostileProtocol hostile;
  hostile.Write("/good", "content");
  Drive calls(hostile);
  EXPECT_EQ(calls.Names("/"), std::vector<std::string>{"good"});
  EXPECT_EQ(calls.Content("/good"), "(error)");
}

TEST_F(FileSystemTest, ContentIsRightWhileSeveralThreadsUseIt) {
  const auto work = [this](int number) {
    DirectCalls calls(*files);
    const std::string folder = "/folder" + std::to_string(number % 2);
    (void)calls.MakeFolder(folder);  // the other thread may have been first
    for (int i = 0; i < 30; ++i) {
      const std::string path = folder + "/" + std::to_string(number);
      const std::string content(static_cast<size_t>(1000 * i + number), static_cast<char>('a' + i));
      EXPECT_EQ(calls.WriteFile(path, content), 0);
      EXPECT_EQ(calls.Rename(path, path + "x"), 0);
      EXPECT_TRUE(calls.Content(path + "x") == content);
      (void)calls.Names(folder);
      EXPECT_EQ(calls.Unlink(path + "x"), 0);
    }
  };
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back(work, i);
  }
  threads.clear();
  EXPECT_EQ(protocol.Paths(), (std::vector<std::string>{"/folder0", "/folder1"}));
}

}  // namespace
}  // namespace tarn::test
