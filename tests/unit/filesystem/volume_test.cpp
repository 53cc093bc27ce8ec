#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "common/unique_fd.h"
#include "tests/support/service/wait.h"
#include "tests/unit/filesystem/drive.h"
#include "tests/unit/filesystem/recording_events.h"

namespace tarn::test {
namespace {

namespace stdfs = std::filesystem;

// The line of the mount table for a mount point; empty when nothing is mounted there.
std::string MountLine(const std::string& path) {
  std::ifstream table("/proc/self/mountinfo");
  for (std::string line; std::getline(table, line);) {
    if (line.find(" " + path + " ") != std::string::npos) {
      return line;
    }
  }
  return "";
}

// Changes one byte after the file was closed; 0 when that went well. In a process of its own: the
// kernel holds this one's memory while it waits for the threads of the volume that need it.
int ChangeThroughMapping(const char* path, size_t size, size_t offset, char byte) {
  const pid_t child = ::fork();
  if (child == 0) {
    const int file = ::open(path, O_RDWR | O_CLOEXEC);
    void* const bytes = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (bytes == MAP_FAILED || ::close(file) != 0) {
      ::_exit(1);
    }
    static_cast<char*>(bytes)[offset] = byte;
    ::_exit(::munmap(bytes, size));
  }
  int status = -1;
  (void)::waitpid(child, &status, 0);
  return status;
}

class VolumeTest : public testing::Test {
 protected:
  void SetUp() override { TARN_SKIP_WITHOUT_FUSE(); }

  void MountWithProtocol(const std::string& label = "drive") {
    mounted = std::make_unique<MountedDrive>(label);
    ASSERT_EQ(mounted->result, SUCCESS);
    ASSERT_EQ(mounted->drive->SetEventSink(events), SUCCESS);
    ASSERT_EQ(mounted->drive->AddProtocol(Share(protocol)), SUCCESS);
    calls = std::make_unique<FolderCalls>(mounted->path);
  }
  int Unmount() { return ::Unmount(mounted->path.c_str()); }

  MemoryProtocol protocol;
  std::shared_ptr<RecordingEvents> events = std::make_shared<RecordingEvents>();
  std::unique_ptr<MountedDrive> mounted;
  std::unique_ptr<FolderCalls> calls;
};

TEST_F(VolumeTest, AMountIsThereAtOnceAndGoneWithoutATrace) {
  protocol.Write("/folder/file", "content");
  MountWithProtocol("my, \\label one");
  const std::string line = MountLine(mounted->path);
  for (const char* const part :
       {"nosuid,nodev", " fuse.tarn ", "my,\\040\\134label\\040one", "default_permissions"}) {
    EXPECT_THAT(line, testing::HasSubstr(part));
  }
  EXPECT_THAT(line, testing::Not(testing::HasSubstr("allow_other")));
  EXPECT_EQ(calls->Content("/folder/file"), "content");
  EXPECT_EQ(Unmount(), SUCCESS);
  EXPECT_EQ(MountLine(mounted->path), "");
  EXPECT_FALSE(stdfs::exists(mounted->path)) << "the mount point was made by the mount";
  EXPECT_EQ(Unmount(), SUCCESS) << "nothing is mounted there any more";
  EXPECT_THAT(events->Texts(), testing::ElementsAre("unmounted " + mounted->path));
}

TEST_F(VolumeTest, AMountPointInUseNotEmptyOrNoFolderIsRefused) {
  MountWithProtocol();
  const TempFolder folder;
  folder.Write("full/file", "x");
  folder.Write("file", "x");
  IFSDrive* drive = nullptr;
  for (const std::string& path :
       {mounted->path, mounted->path + "/", std::string(folder.path() / "full"),
        std::string(folder.path() / "file"), std::string(folder.path() / "no/folder"),
        std::string("/proc"), std::string()}) {
    EXPECT_EQ(::Mount(path.c_str(), "x", 2, &drive, nullptr), FS_MOUNT_POINT_ERROR) << path;
    EXPECT_EQ(drive, nullptr);
  }
  EXPECT_FALSE(stdfs::exists(folder.path() / "no"));
  EXPECT_EQ(folder.Read("full/file"), "x");
  EXPECT_EQ(::Unmount("/proc"), FS_UNMOUNT_FAILED) << "that is not ours";
  EXPECT_EQ(mounted->drive->GetProtocolCount(), 1);
}

TEST_F(VolumeTest, AnUnmountFromOutsideIsNoticedAndCounts) {
  MountWithProtocol();
  ASSERT_EQ(calls->WriteFile("/file", "content"), 0);
  ASSERT_EQ(::umount2(mounted->path.c_str(), 0), 0);
  EXPECT_TRUE(WaitUntil([&] { return events->Texts().back() == "unmounted " + mounted->path; }));
  EXPECT_EQ(mounted->drive->GetFeatures(), FS_FEATURE_NONE) << "valid until Unmount";
  EXPECT_EQ(Unmount(), SUCCESS);
  EXPECT_EQ(protocol.Content("/file"), "content");
}

TEST_F(VolumeTest, ABusyVolumeIsStoredAndDetachedByUsOrFromOutsideAndItsProgramsAreTold) {
  for (const bool from_outside : {false, true}) {
    MountWithProtocol();
    const UniqueFd file(::open((mounted->path + "/file").c_str(), O_RDWR | O_CREAT, 0644));
    const std::string content = from_outside ? "detached" : "busy";
    ASSERT_EQ(::write(file.get(), content.data(), content.size()),
              static_cast<ssize_t>(content.size()));
    ASSERT_TRUE(!from_outside || ::umount2(mounted->path.c_str(), MNT_DETACH) == 0);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Unmount(), SUCCESS);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    EXPECT_EQ(protocol.Content("/file"), content);
    EXPECT_EQ(MountLine(mounted->path), "");
    EXPECT_THAT(events->Texts(), testing::Contains("unmounted " + mounted->path));
    EXPECT_EQ(::pwrite(file.get(), "lost", 4, 0), -1) << "a write that goes nowhere must fail";
  }
}

TEST_F(VolumeTest, AppendingMappingsAndSavesOfEditorsReachTheRemote) {
  MountWithProtocol();
  const std::string path = mounted->path + "/file";
  ASSERT_EQ(calls->WriteFile("/file", std::string(10'000, 'a')), 0);
  {
    const UniqueFd appender(::open(path.c_str(), O_WRONLY | O_APPEND));
    ASSERT_EQ(::write(appender.get(), "end", 3), 3);
  }
  EXPECT_EQ(protocol.Content("/file"), std::string(10'000, 'a') + "end");
  ASSERT_EQ(ChangeThroughMapping(path.c_str(), 10'003, 5000, 'M'), 0);
  std::string expected = std::string(10'000, 'a') + "end";
  expected[5000] = 'M';
  EXPECT_TRUE(WaitUntil([&] { return protocol.Content("/file") == expected; }));
  ASSERT_EQ(calls->WriteFile("/file~", "saved"), 0);
  ASSERT_EQ(calls->Rename("/file~", "/file"), 0);
  EXPECT_EQ(calls->Content("/file"), "saved");
  EXPECT_EQ(protocol.Paths(), std::vector<std::string>{"/file"});
}

TEST_F(VolumeTest, AChangeElsewhereIsSeenOnTheNextOpenThroughTheKernelsCache) {
  protocol.Write("/file", "old content");
  MountWithProtocol();
  EXPECT_EQ(calls->Content("/file"), "old content");
  for (const char* changed : {"new content", "new content that is longer", "short"}) {
    protocol.Write("/file", changed);
    EXPECT_EQ(calls->Content("/file"), changed);
  }
  const int reads = protocol.reads;
  EXPECT_EQ(calls->Content("/file"), "short");
  EXPECT_EQ(protocol.reads, reads) << "the kernel still has the pages of this version";
}

TEST_F(VolumeTest, AFolderWithManyEntriesIsListedAsAWholeWithTheirSizes) {
  std::vector<std::string> expected;
  for (int i = 0; i < 3000; ++i) {
    expected.push_back("file with a long name " + std::to_string(i));
    protocol.Write("/folder/" + expected.back(), std::string(static_cast<size_t>(i % 7), 'x'));
  }
  std::sort(expected.begin(), expected.end());
  MountWithProtocol();
  EXPECT_TRUE(calls->Names("/folder") == expected);
  std::uint64_t size = 0;
  ASSERT_EQ(calls->GetSize("/folder/file with a long name 6", size), 0);
  EXPECT_EQ(size, 6U);
}

TEST_F(VolumeTest, ADeadRemoteHoldsUpNeitherStatfsNorTheUnmount) {
  MountWithProtocol();
  protocol.latency_ms = 3'600'000;
  struct statvfs space = {};
  EXPECT_EQ(::statvfs(mounted->path.c_str(), &space), 0);
  EXPECT_GT(space.f_blocks, 0U);
  EXPECT_EQ(space.f_namemax, 255U);
  int error = 0;
  std::thread program([&] { error = calls->Unlink("/file"); });
  ASSERT_TRUE(WaitUntil([&] { return protocol.infos > 0; }));
  std::thread canceller([&] {
    while (!MountLine(mounted->path).empty()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    protocol.Cancel();
  });
  EXPECT_EQ(Unmount(), SUCCESS);
  program.join();
  canceller.join();
  EXPECT_NE(error, 0);
}

TEST_F(VolumeTest, LinksAreRefusedAndASecondVolumeWithoutAProtocolIsAnEmptyFolder) {
  MountWithProtocol();
  const MountedDrive second("second");
  ASSERT_EQ(second.result, SUCCESS);
  ASSERT_EQ(calls->WriteFile("/file", "x"), 0);
  EXPECT_EQ(::link((mounted->path + "/file").c_str(), (mounted->path + "/hard").c_str()), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(::symlink("file", (mounted->path + "/soft").c_str()), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_TRUE(stdfs::is_empty(second.path));
  EXPECT_EQ(FolderCalls(second.path).WriteFile("/file", "x"), EROFS);
}

}  // namespace
}  // namespace tarn::test
