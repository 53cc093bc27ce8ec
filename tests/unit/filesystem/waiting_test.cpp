// Calls that are not to wait for what others do.
#include <cerrno>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

#include "tests/support/service/wait.h"
#include "tests/unit/filesystem/direct_calls.h"
#include "tests/unit/filesystem/lent_libraries.h"

namespace tarn::test {
namespace {

using std::chrono::milliseconds;

// While it stalls, uploads of what is named "stuck" get no further.
class StallingProtocol : public MemoryProtocol {
 public:
  AERROR Upload(const char* path, FS_SOURCE* source, unsigned long long size, FS_PROGRESS progress,
                void* context) override {
    ++stalled;
    char none = 0;
    const bool is_stuck = std::string_view(path).find("stuck") != std::string_view::npos;
    const bool goes_on = WaitUntil(
        [&] { return !is_stuck || !stalls || source->read(source->context, &none, 0) < 0; });
    --stalled;
    return goes_on ? MemoryProtocol::Upload(path, source, size, progress, context)
                   : FILE_WRITE_FAILED;
  }

  std::atomic<bool> stalls = true;
  std::atomic<int> stalled = 0;
};

class WaitingTest : public testing::Test {
 protected:
  TempFolder base;
  LentLibraries libraries;
  StallingProtocol protocol;
  Drive drive{protocol, base.path()};
};

TEST_F(WaitingTest, RemovingAFolderWithUnsentFilesFailsAtOnceAlsoWhereTheRemoteLostThem) {
  protocol.MakeFolder("/stuck");
  protocol.Write("/waiting/file", "before");
  (void)drive.Names("/stuck");
  ASSERT_EQ(drive.WriteFile("/stuck/file", "content"), 0);
  ASSERT_TRUE(WaitUntil([&] { return protocol.stalled > 0; }));
  EXPECT_EQ(drive.RemoveFolder("/stuck"), ENOTEMPTY);
  ASSERT_EQ(drive.MakeFolder("/new"), 0);
  EXPECT_EQ(drive.Rename("/new", "/stuck"), ENOTEMPTY);
  EXPECT_EQ(protocol.stalled, 1) << "still";

  protocol.refusal = ACCESS_DENIED;
  ASSERT_EQ(drive.WriteFile("/waiting/file", "ours"), 0);
  protocol.Remove("/waiting/file");
  EXPECT_EQ(drive.RemoveFolder("/waiting"), ENOTEMPTY);
  EXPECT_EQ(drive.Names("/waiting"), std::vector<std::string>{"file"});
  EXPECT_EQ(drive.Unlink("/stuck/file"), 0);
  EXPECT_EQ(drive.RemoveFolder("/stuck"), 0);
}

TEST_F(WaitingTest, RemovingAndReplacingRightAfterCloseWaitForNoUpload) {
  (void)drive.Names("/");
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(drive.WriteFile("/stuck old", std::string(2 << 20, 'x')), 0);
    ASSERT_EQ(drive.WriteFile("/stuck", "new"), 0);
    const auto begun = fs::Clock::now();
    EXPECT_EQ(drive.Rename("/stuck old", "/stuck"), 0);
    EXPECT_EQ(drive.Unlink("/stuck"), 0);
    ASSERT_LT(fs::Clock::now() - begun, milliseconds(5000));
  }
}

TEST_F(WaitingTest, RemovingAndReplacingDoNotWaitForWhatAnOpenFileCannotHaveSoon) {
  for (const std::string path : {"/changed", "/replaced", "/small", "/film"}) {
    protocol.Write(path, std::string(path == "/film" ? 64U << 20 : 4U << 20, 'x'));
  }
  (void)drive.Names("/");
  const int changed = drive.Opened("/changed", O_RDONLY);
  const int replaced = drive.Opened("/replaced", O_RDONLY);
  const int small = drive.Opened("/small", O_RDWR);
  const int film = drive.Opened("/film", O_RDWR);
  for (const int file : {changed, replaced, small, film}) {
    EXPECT_EQ(drive.ReadAt(file, 0, 2), "xx");
  }
  libraries.WaitIdle();
  protocol.Write("/changed", "elsewhere");
  protocol.Write("/replaced", "elsewhere");
  ASSERT_EQ(drive.WriteFile("/saved", "saved"), 0);
  ASSERT_EQ(drive.files->SendAll(kPatience), 0U);
  EXPECT_EQ(drive.Rename("/saved", "/replaced"), 0);
  EXPECT_EQ(drive.Unlink("/changed"), 0);
  EXPECT_EQ(drive.Content("/replaced"), "saved");
  EXPECT_EQ(drive.Unlink("/small"), 0);
  const int reads = protocol.reads;
  EXPECT_EQ(drive.Unlink("/film"), 0);
  EXPECT_EQ(protocol.reads, reads);
  const std::string lost = "(errno " + std::to_string(EIO) + ")";
  EXPECT_EQ(drive.ReadAt(changed, 3 << 20, 2), lost);
  EXPECT_EQ(drive.ReadAt(replaced, 3 << 20, 2), lost);
  EXPECT_EQ(drive.ReadAt(small, 3 << 20, 2), "xx");
  EXPECT_EQ(drive.ReadAt(film, 60 << 20, 2), lost);
  EXPECT_EQ(drive.Write(film, 0, "y"), 0);
  for (const int file : {changed, replaced, small, film}) {
    EXPECT_EQ(drive.Close(file), 0) << "what is written goes nowhere, so that nothing is missing";
  }
  EXPECT_EQ(drive.files->SendAll(kPatience), 0U);
}

TEST_F(WaitingTest, UnmountingWaitsForWhatThereIsWhenItBeginsAndOnlyWhileThatMoves) {
  (void)drive.Names("/");
  protocol.stalls = false;
  ASSERT_EQ(drive.WriteFile("/stuck", "first"), 0);
  protocol.latency_ms = 10;
  const auto end = fs::Clock::now() + kPatience;
  std::atomic<bool> has_ended = false;
  std::thread writer([&] {
    DirectCalls calls(*drive.files);
    for (int i = 0; !has_ended && fs::Clock::now() < end; ++i) {
      EXPECT_EQ(calls.WriteFile("/log" + std::to_string(i % 20), std::to_string(i)), 0);
    }
  });
  EXPECT_TRUE(WaitUntil([&] { return protocol.uploads > 20; }));
  EXPECT_EQ(drive.files->SendAll(kPatience), 0U);
  EXPECT_EQ(protocol.Content("/stuck"), "first");
  protocol.stalls = true;
  EXPECT_EQ(drive.WriteFile("/stuck", "again"), 0);
  EXPECT_NE(drive.files->SendAll(milliseconds(500)), 0U);
  EXPECT_LT(fs::Clock::now(), end) << "while the other still writes";
  has_ended = true;
  writer.join();
  EXPECT_EQ(drive.Unlink("/stuck"), 0);
}

TEST_F(WaitingTest, ThoseWhoListAFolderAtTheSameTimeShareAFailure) {
  constexpr int kListers = 8;
  protocol.MakeFolder("/folder");
  Drive forgetful(std::make_shared<fs::FileSystem>(milliseconds(1)));
  forgetful.files->AddProtocol(Share(protocol));
  fs::Stat folder;
  ASSERT_EQ(forgetful.files->Lookup(fs::kRootIno, "folder", folder), 0);
  protocol.latency_ms = 500;
  protocol.failure = ACCESS_DENIED;
  const int lists = protocol.lists;
  std::vector<std::jthread> listers;
  for (int i = 0; i < kListers; ++i) {
    listers.emplace_back([&] {
      fs::FolderContent content;
      EXPECT_EQ(forgetful.files->ReadFolder(folder.ino, content), EACCES);
    });
  }
  listers.clear();
  EXPECT_LT(protocol.lists, lists + kListers / 2);
}

TEST_F(WaitingTest, FsyncTellsOfNoOtherFailureThanThatTheRemoteDoesNotHaveIt) {
  (void)drive.Names("/");
  const int file = drive.Opened("/file", O_RDWR | O_CREAT);
  EXPECT_EQ(drive.Write(file, 0, "content"), 0);
  for (const AERROR failure : {ACCESS_DENIED, SHARING_VIOLATION, PATH_NOT_FOUND, NOT_SUPPORTED}) {
    protocol.refusal = failure;
    EXPECT_EQ(drive.Sync(file), EIO) << failure;
  }
  EXPECT_EQ(drive.Close(file), 0);
}

}  // namespace
}  // namespace tarn::test
