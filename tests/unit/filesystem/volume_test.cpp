#include <cerrno>
#include <dirent.h>
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
#include "tests/support/protocol/memory_protocol.h"
#include "tests/unit/filesystem/drive.h"
#include "tests/unit/filesystem/eventually.h"
#include "tests/unit/filesystem/mounted_drive.h"
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
  MemoryProtocol::Store& Remote() { return protocol.GetStore(); }

  MemoryProtocol protocol;
  std::shared_ptr<RecordingEvents> events = std::make_shared<RecordingEvents>();
  std::unique_ptr<MountedDrive> mounted;
  std::unique_ptr<FolderCalls> calls;
};

TEST_F(VolumeTest, AMountIsThereAtOnceAndGoneWithoutATrace) {
  Remote().Write("/folder/file", "content");
  MountWithProtocol("my, \\label one");
  const std::string line = MountLine(mounted->path);
  EXPECT_NE(line.find("nosuid,nodev"), std::string::npos) << line;
  EXPECT_NE(line.find(" fuse.tarn "), std::string::npos) << line;
  EXPECT_NE(line.find("my,\\040\\134label\\040one"), std::string::npos) << line;
  EXPECT_NE(line.find("default_permissions"), std::string::npos) << line;
  EXPECT_EQ(line.find("allow_other"), std::string::npos) << line;
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
  EXPECT_TRUE(Eventually([&] { return events->Texts().back() == "unmounted " + mounted->path; }));
  EXPECT_EQ(mounted->drive->GetFeatures(), FS_FEATURE_NONE) << "valid until Unmount";
  EXPECT_EQ(Unmount(), SUCCESS);
  EXPECT_EQ(Remote().Content("/file"), "content");
}

TEST_F(VolumeTest, ABusyVolumeIsStoredDetachedAndItsProgramsAreTold) {
  MountWithProtocol();
  const UniqueFd file(::open((mounted->path + "/file").c_str(), O_RDWR | O_CREAT, 0644));
  ASSERT_EQ(::pwrite(file.get(), "content", 7, 0), 7);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(Unmount(), SUCCESS);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  EXPECT_EQ(Remote().Content("/file"), "content");
  EXPECT_EQ(MountLine(mounted->path), "");
  EXPECT_EQ(::pwrite(file.get(), "lost", 4, 0), -1) << "a write that goes nowhere must fail";
}

TEST_F(VolumeTest, AVolumeThatWasDetachedFromOutsideWithFilesOpenIsEndedAllTheSame) {
  MountWithProtocol();
  const UniqueFd file(::open((mounted->path + "/file").c_str(), O_RDWR | O_CREAT, 0644));
  ASSERT_EQ(::pwrite(file.get(), "content", 7, 0), 7);
  ASSERT_EQ(::umount2(mounted->path.c_str(), MNT_DETACH), 0);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(Unmount(), SUCCESS);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  EXPECT_EQ(Remote().Content("/file"), "content");
  EXPECT_THAT(events->Texts(), testing::Contains("unmounted " + mounted->path));
}

TEST_F(VolumeTest, AppendingMappingsAndSavesOfEditorsReachTheRemote) {
  MountWithProtocol();
  const std::string path = mounted->path + "/file";
  ASSERT_EQ(calls->WriteFile("/file", std::string(10'000, 'a')), 0);
  {
    const UniqueFd appender(::open(path.c_str(), O_WRONLY | O_APPEND));
    ASSERT_EQ(::write(appender.get(), "end", 3), 3);
  }
  EXPECT_EQ(Remote().Content("/file"), std::string(10'000, 'a') + "end");
  ASSERT_EQ(ChangeThroughMapping(path.c_str(), 10'003, 5000, 'M'), 0);
  std::string expected = std::string(10'000, 'a') + "end";
  expected[5000] = 'M';
  EXPECT_TRUE(Eventually([&] { return Remote().Content("/file") == expected; }));
  ASSERT_EQ(calls->WriteFile("/file~", "saved"), 0);
  ASSERT_EQ(calls->Rename("/file~", "/file"), 0);
  EXPECT_EQ(calls->Content("/file"), "saved");
  EXPECT_EQ(Remote().Paths(), std::vector<std::string>{"/file"});
}

TEST_F(VolumeTest, AChangeElsewhereIsSeenOnTheNextOpenThroughTheKernelsCache) {
  Remote().Write("/file", "old content");
  MountWithProtocol();
  EXPECT_EQ(calls->Content("/file"), "old content");
  for (const char* changed : {"new content", "new content that is longer", "short"}) {
    Remote().Write("/file", changed);
    EXPECT_EQ(calls->Content("/file"), changed);
  }
  const int reads = protocol.counts.read;
  EXPECT_EQ(calls->Content("/file"), "short");
  EXPECT_EQ(protocol.counts.read, reads) << "the kernel still has the pages of this version";
}

TEST_F(VolumeTest, AFolderWithManyEntriesIsListedAsAWholeWithTheirSizes) {
  std::vector<std::string> expected;
  for (int i = 0; i < 3000; ++i) {
    expected.push_back("file with a long name " + std::to_string(i));
    Remote().Write("/folder/" + expected.back(), std::string(static_cast<size_t>(i % 7), 'x'));
  }
  std::sort(expected.begin(), expected.end());
  MountWithProtocol();
  std::vector<std::string> names;
  ASSERT_EQ(calls->List("/folder", names), 0);
  EXPECT_TRUE(names == expected);
  std::uint64_t size = 0;
  ASSERT_EQ(calls->GetSize("/folder/file with a long name 6", size), 0);
  EXPECT_EQ(size, 6U);
  EXPECT_EQ(protocol.counts.list, 1);
  EXPECT_LE(protocol.counts.info, 3) << "the space of the drive, the folder";
}

TEST_F(VolumeTest, ADeadRemoteHoldsUpNeitherStatfsNorTheUnmount) {
  MountWithProtocol();
  protocol.behaviour.latency_ms = 3'600'000;
  struct statvfs space = {};
  EXPECT_EQ(::statvfs(mounted->path.c_str(), &space), 0);
  EXPECT_GT(space.f_blocks, 0U);
  EXPECT_EQ(space.f_namemax, 255U);
  int error = 0;
  std::thread program([&] { error = calls->Unlink("/file"); });
  ASSERT_TRUE(Eventually([&] { return protocol.counts.info > 0; }));
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

TEST_F(VolumeTest, DescriptorsDoNotReachChildren) {
  MountWithProtocol();
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir("/proc/self/fd"), &::closedir);
  while (const dirent* entry = ::readdir(folder.get())) {
    std::error_code ignored;
    const std::string target =
        stdfs::read_symlink(std::string("/proc/self/fd/") + entry->d_name, ignored);
    if (target == "/dev/fuse") {
      EXPECT_EQ(::fcntl(std::stoi(entry->d_name), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    }
  }
}

TEST_F(VolumeTest, LinksAreRefusedAndSeveralVolumesAreMountedAtOnce) {
  MountWithProtocol();
  const MountedDrive second("second");
  ASSERT_EQ(second.result, SUCCESS);
  ASSERT_EQ(calls->WriteFile("/file", "x"), 0);
  EXPECT_EQ(::link((mounted->path + "/file").c_str(), (mounted->path + "/hard").c_str()), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(::symlink("file", (mounted->path + "/soft").c_str()), -1);
  EXPECT_EQ(errno, EPERM);
  FolderCalls other(second.path);
  std::vector<std::string> names;
  EXPECT_EQ(other.List("/", names), 0);
  EXPECT_TRUE(names.empty());
  EXPECT_EQ(other.WriteFile("/file", "x"), EROFS);
}

}  // namespace
}  // namespace tarn::test
