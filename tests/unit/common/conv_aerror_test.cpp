#include "common/conv_aerror.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>

namespace {

TEST(AErrorTest, EveryCodeHasItsTextsAndNoOtherValueHas) {
  int messages = 0;
  for (int value = -10; value < 7000; ++value) {
    const std::string name = GetAERRORA(static_cast<AERROR>(value));
    const bool named = (value >= 0 && value <= 40) || (value >= 1000 && value <= 1002) ||
                       (value >= 2001 && value <= 2013) || (value >= 3001 && value <= 3014);
    EXPECT_EQ(name != "Unknown", named) << value;
    messages += std::string(tarn::AERRORMessage(static_cast<AERROR>(value))) != "error" ? 1 : 0;
  }
  EXPECT_EQ(messages, 35);
  EXPECT_STREQ(GetAERRORA(CACHE_NO_RESERVED_BLOCKS), "CACHE_NO_RESERVED_BLOCKS");
  EXPECT_STREQ(tarn::AERRORMessage(CAN_NOT_MAKE), "cannot make");

  EXPECT_EQ(ConvertAERROR(SUCCESS), 0);
  EXPECT_EQ(ConvertAERROR(FILE_NOT_FOUND), -ENOENT);
  EXPECT_EQ(ConvertAERROR(ACCESS_DENIED), -EIO);
}

}  // namespace
