#include <gtest/gtest.h>

#include "tests/support/temp_folder.h"
#include "tests/unit/filesystem/lent_libraries.h"
#include "tests/unit/filesystem/mounted_drive.h"
#include "tests/unit/filesystem/random_operations.h"

namespace tarn::test {
namespace {

// What the remote has in the end is what the plain folder has.
void CompareWithRemote(MemoryProtocol::Store& store, Calls& plain) {
  for (const std::string& path : store.Paths()) {
    std::uint64_t size = 0;
    ASSERT_EQ(plain.GetSize(path, size), 0) << path << " is only at the remote";
    std::vector<std::string> names;
    if (plain.List(path, names) != 0) {
      EXPECT_TRUE(store.Content(path) == plain.Content(path)) << path;
    }
  }
}

class RandomTest : public testing::TestWithParam<unsigned> {
 protected:
  LentLibraries libraries;
  MemoryProtocol protocol;
  TempFolder folder;
  FolderCalls plain{folder.path()};
};

TEST_P(RandomTest, WithoutAMountEveryStepIsThatOfAPlainFolder) {
  const auto files = std::make_shared<fs::FileSystem>();
  files->AddProtocol(Share(protocol));
  DirectCalls drive(*files);
  RandomOperations operations(drive, plain, GetParam());
  operations.Run(400);
  operations.Finish();
  ASSERT_FALSE(operations.Differs()) << operations.Difference();
  CompareWithRemote(protocol.GetStore(), plain);
}

TEST_P(RandomTest, OnAMountEveryStepIsThatOfAPlainFolder) {
  TARN_SKIP_WITHOUT_FUSE();
  MountedDrive mounted;
  ASSERT_EQ(mounted.result, SUCCESS);
  mounted.drive->AddProtocol(Share(protocol));
  FolderCalls drive(mounted.path);
  RandomOperations operations(drive, plain, GetParam());
  operations.Run(150);
  operations.Finish();
  ASSERT_FALSE(operations.Differs()) << operations.Difference();
  ASSERT_EQ(::Unmount(mounted.path.c_str()), SUCCESS);
  CompareWithRemote(protocol.GetStore(), plain);
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomTest, testing::Range(1U, 25U));

}  // namespace
}  // namespace tarn::test
