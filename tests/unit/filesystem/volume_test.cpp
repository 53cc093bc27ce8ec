#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
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
int ChangeThroughMapping(const std::string& path, size_t offset, char byte) {
  const pid_t child = ::fork();
  if (child == 0) {
    const int file = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    void* const bytes = ::mmap(nullptr, offset + 1, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (bytes == MAP_FAILED || ::close(file) != 0) {
      ::_exit(1);
    }
    static_cast<char*>(bytes)[offset] = byte;
    ::_exit(::munmap(bytes, offset + 1));
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
  const std::string file = folder.Write("file", "x");
  IFSDrive* drive = nullptr;
  for (const std::string& path :
       std::initializer_list<std::string>{mounted->path, mounted->path + "/", folder.path(), file,
                                          file + "/folder", "/proc", ""}) {
    EXPECT_EQ(::Mount(path.c_str(), "x", 2, &drive, nullptr), FS_MOUNT_POINT_ERROR) << path;
  }
  EXPECT_EQ(drive, nullptr);
  EXPECT_EQ(folder.Read("file"), "x");
  EXPECT_EQ(::Unmount("/proc"), FS_UNMOUNT_FAILED) << "that is not ours";
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

TEST_F(VolumeTest, AChangeThroughAMappingReachesTheRemote) {
  MountWithProtocol();
  std::string content(10'000, 'a');
  ASSERT_EQ(calls->WriteFile("/file", content), 0);
  ASSERT_EQ(ChangeThroughMapping(mounted->path + "/file", 5000, 'M'), 0);
  content[5000] = 'M';
  EXPECT_TRUE(WaitUntil([&] { return protocol.Content("/file") == content; }));
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

TEST_F(VolumeTest, AFolderWithManyEntriesIsListedAsAWhole) {
  std::vector<std::string> expected;
  for (int i = 0; i < 3000; ++i) {
    expected.push_back("file with a long name " + std::to_string(i));
    protocol.Write("/folder/" + expected.back(), "");
  }
  std::sort(expected.begin(), expected.end());
  MountWithProtocol();
  EXPECT_TRUE(calls->Names("/folder") == expected);
}

}  // namespace
}  // namespace tarn::test
