#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

namespace tarn::test {

// A folder of the test's own, gone with everything in it at the end.
class TempFolder {
 public:
  TempFolder() {
    if (::mkdtemp(name.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), name);
    }
  }
  ~TempFolder() {
    std::error_code ignored;  // the test has said what went wrong
    std::filesystem::remove_all(name, ignored);
  }
  TempFolder(TempFolder&&) = delete;

  [[nodiscard]] std::filesystem::path path() const { return name; }

  // Makes a file, and the folders above it. Returns its path.
  std::string Write(const std::string& file_name, const std::string& content) const {
    const std::filesystem::path file = path() / file_name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
    return file;
  }

  [[nodiscard]] std::string Read(const std::string& file_name) const {
    std::ifstream file(path() / file_name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

 private:
  std::string name = "/tmp/tarn_test_XXXXXX";
};

}  // namespace tarn::test
