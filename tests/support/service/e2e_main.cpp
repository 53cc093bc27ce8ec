#include <algorithm>
#include <gmock/gmock.h>
#include <string_view>

#include "tests/support/service/isolation.h"

namespace {

int RunTests(int count, char** texts) {
  testing::InitGoogleMock(&count, texts);
  return RUN_ALL_TESTS();
}

}  // namespace

int main(int count, char** texts) {
  const bool only_lists = std::any_of(texts, texts + count, [](const char* text) {
    return std::string_view(text).starts_with("--gtest_list_tests");
  });
  if (only_lists) {
    return RunTests(count, texts);
  }
  tarn::test::RunIsolated(RunTests, count, texts);
}
