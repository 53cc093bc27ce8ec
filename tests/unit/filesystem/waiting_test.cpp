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

}  // namespace
}  // namespace tarn::test
