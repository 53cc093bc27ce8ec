#include "tests/support/service/temp_home.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace tarn::test {

namespace {

constexpr const char* kServiceName = "tarnsvc";

// Mount points are listed with blanks and the like as three octal digits.
std::string Unescaped(const std::string& text) {
  std::string plain;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size()) {
      plain += static_cast<char>(std::stoi(text.substr(i + 1, 3), nullptr, 8));
      i += 3;
    } else {
      plain += text[i];
    }
  }
  return plain;
}

bool IsBelow(const std::string& path, const std::string& folder) {
  return path == folder || path.starts_with(folder + "/");
}

}  // namespace

std::vector<std::filesystem::path> MountsBelow(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> mounts;
  std::ifstream table("/proc/self/mountinfo");
  for (std::string line; std::getline(table, line);) {
    std::istringstream fields(line);
    std::string id;
    std::string parent;
    std::string device;
    std::string root;
    std::string mount_point;
    fields >> id >> parent >> device >> root >> mount_point;
    if (IsBelow(Unescaped(mount_point), folder.string())) {
      mounts.emplace_back(Unescaped(mount_point));
    }
  }
  std::reverse(mounts.begin(), mounts.end());
  return mounts;
}

void Detach(const std::filesystem::path& mount_point) {
  if (::umount2(mount_point.c_str(), MNT_DETACH) == 0) {
    return;
  }
  const pid_t child = ::fork();
  if (child == 0) {
    ::execlp("fusermount3", "fusermount3", "-u", "-z", mount_point.c_str(), nullptr);
    ::_exit(127);
  }
  (void)::waitpid(child, nullptr, 0);  // whether it is gone is seen in the table
}

TempHome::TempHome() {
  std::string name = "/tmp/tarn_home_XXXXXX";
  if (::mkdtemp(name.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), name);
  }
  folder = name;
  std::filesystem::create_directories(folder / "Library/Application Support");
  std::filesystem::create_directories(folder / "Library/Logs");
}

TempHome::~TempHome() {
  for (const std::filesystem::path& mount_point : MountsBelow(folder)) {
    ADD_FAILURE() << "still mounted: " << mount_point;
    Detach(mount_point);
  }
  if (MountsBelow(folder).empty()) {
    std::error_code ignored;  // what is left lies in /tmp
    std::filesystem::remove_all(folder, ignored);
  }
}

std::filesystem::path TempHome::DataFolder() const {
  return folder / "Library/Application Support" / kServiceName;
}

std::filesystem::path TempHome::LogFile() const {
  return folder / "Library/Logs" / kServiceName / "tarnsvclog";
}

std::filesystem::path TempHome::MakeFolder(const std::string& name) const {
  std::filesystem::create_directories(folder / name);
  return folder / name;
}

}  // namespace tarn::test
