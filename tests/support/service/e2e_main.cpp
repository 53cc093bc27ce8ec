#include <gmock/gmock.h>
#include <string_view>

#include "tests/support/service/isolation.h"

namespace {

int RunTests(int count, char** texts) {
  testing::InitGoogleMock(&count, texts);
  return RUN_ALL_TESTS();
}

bool OnlyListsTests(int count, char** texts) {
  for (int i = 1; i < count; ++i) {
    if (std::string_view(texts[i]).starts_with("--gtest_list_tests")) {
      return true;
    }
  }
  return false;
}

}  // namespace

int main(int count, char** texts) {
  if (OnlyListsTests(count, texts)) {
    return RunTests(count, texts);
  }
  tarn::test::RunIsolated(RunTests, count, texts);
}
