#include "common/posix.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "common/frame.h"

namespace tarn {
namespace {

TEST(UniqueFdTest, DescriptorsAreBornCloseOnExecAndReplacingClosesWhatWasHeld) {
  UniqueFd first = OpenFile("/dev/null", O_RDONLY);
  UniqueFd second = OpenSocket(AF_INET, SOCK_STREAM);
  const int replaced = first.get();
  const int kept = second.get();
  EXPECT_EQ(::fcntl(replaced, F_GETFD), FD_CLOEXEC);
  first = std::move(second);
  EXPECT_EQ(::fcntl(replaced, F_GETFD), -1);
  EXPECT_EQ(::fcntl(kept, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(first.get(), kept);
}

TEST(FrameTest, LengthsKeepTheirSignAndTheirBounds) {
  EXPECT_EQ(EncodeFrameHeader(0x1234), (FrameHeader{0x34, 0x12, 0, 0}));
  EXPECT_EQ(DecodeFrameHeader({0xFE, 0xFF, 0xFF, 0xFF}), -2);
  EXPECT_TRUE(IsFrameLength(kMaxFrameBytes));
  EXPECT_FALSE(IsFrameLength(kMaxFrameBytes + 1));
  EXPECT_FALSE(IsFrameLength(-1));
}

}  // namespace
}  // namespace tarn
