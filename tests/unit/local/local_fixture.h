#pragma once

#include <filesystem>
#include <fstream>
#include <stdlib.h>
#include <string>

#include "tests/support/module_test.h"

namespace tarn::local {

using test::Protocol;
using test::TextSource;

// A folder under /tmp and a connected protocol object for it, from the module's file.
class LocalTest : public test::ModuleTest {
 protected:
  void SetUp() override {
    std::string name = "/tmp/tarn_local_XXXXXX";
    ASSERT_NE(::mkdtemp(name.data()), nullptr);
    base = name;
    root = base / "root";
    std::filesystem::create_directory(root);
    ASSERT_NO_FATAL_FAILURE(Load(LOCAL_MODULE));
    protocol = Make(root.string());
    ASSERT_EQ(Connect(*protocol), SUCCESS);
  }
  void TearDown() override {
    ModuleTest::TearDown();
    std::filesystem::remove_all(base);
  }

  static void WriteFile(const std::filesystem::path& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
  }
  static std::string FileContent(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  // Names in the folder itself, hidden ones too.
  static size_t CountFiles(const std::filesystem::path& folder) {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
  }

  std::filesystem::path base;
  std::filesystem::path root;
};

}  // namespace tarn::local
