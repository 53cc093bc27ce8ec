#pragma once

#include <filesystem>
#include <string>

#include "tests/support/module_test.h"
#include "tests/support/temp_folder.h"

namespace tarn::local {

using test::Pattern;
using test::TextSource;
using Strings = std::vector<std::string>;
namespace fs = std::filesystem;

// A connected protocol object, from the module's file, for root/ in a folder of the test's own.
// Files are named from that folder.
class LocalTest : public test::ModuleTest {
 protected:
  LocalTest() : test::ModuleTest(LOCAL_MODULE) { fs::create_directory(root); }
  void SetUp() override {
    protocol = Make(root.string());
    ASSERT_EQ(Connect(*protocol), SUCCESS);
  }

  // Names in the folder itself, hidden ones too.
  static size_t CountFiles(const fs::path& folder) {
    return static_cast<size_t>(std::distance(fs::directory_iterator(folder), {}));
  }

  const test::TempFolder files;
  const fs::path root = files.path() / "root";
};

}  // namespace tarn::local
