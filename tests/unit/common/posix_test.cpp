#include "common/posix.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "common/frame.h"
#include "common/unique_fd.h"

namespace tarn {
namespace {

bool IsOpen(int fd) {
  return ::fcntl(fd, F_GETFD) >= 0;
}

TEST(UniqueFdTest, ReplacingClosesWhatWasHeld) {
  UniqueFd first = OpenFile("/dev/null", O_RDONLY);
  UniqueFd second = OpenFile("/dev/null", O_RDONLY);
  const int replaced = first.get();
  const int kept = second.get();
  first = std::move(second);
  EXPECT_FALSE(IsOpen(replaced));
  EXPECT_TRUE(IsOpen(kept));
  EXPECT_EQ(first.get(), kept);
}

TEST(PosixTest, DescriptorsAreBornCloseOnExec) {
  const UniqueFd file = OpenFile("/dev/null", O_RDONLY);
  const UniqueFd socket = OpenSocket(AF_INET, SOCK_STREAM);
  EXPECT_EQ(::fcntl(file.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_EQ(::fcntl(socket.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST(FrameTest, LengthsKeepTheirSignAndTheirBounds) {
  for (const std::int32_t length : {0, 28, 255, 256, kMaxFrameBytes, -1, INT32_MIN}) {
    EXPECT_EQ(DecodeFrameHeader(EncodeFrameHeader(length)), length);
  }
  EXPECT_EQ(EncodeFrameHeader(28), (FrameHeader{0x1C, 0, 0, 0}));
  EXPECT_TRUE(IsFrameLength(kMaxFrameBytes));
  EXPECT_FALSE(IsFrameLength(kMaxFrameBytes + 1));
  EXPECT_FALSE(IsFrameLength(-1));
}

}  // namespace
}  // namespace tarn
