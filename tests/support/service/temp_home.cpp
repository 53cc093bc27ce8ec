#include "tests/support/service/temp_home.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <memory>
#include <mntent.h>
#include <sys/mount.h>

#include "tests/support/service/run_program.h"

namespace tarn::test {

std::vector<std::filesystem::path> MountsBelow(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> mounts;
  const std::unique_ptr<FILE, decltype(&::endmntent)> table(::setmntent("/proc/self/mounts", "re"),
                                                            &::endmntent);
  mntent entry{};
  char texts[8192];
  while (table && ::getmntent_r(table.get(), &entry, texts, sizeof texts) != nullptr) {
    const std::string mount_point = entry.mnt_dir;
    if (mount_point == folder || mount_point.starts_with(folder.string() + "/")) {
      mounts.insert(mounts.begin(), mount_point);
    }
  }
  return mounts;
}

void Detach(const std::filesystem::path& mount_point) {
  if (::umount2(mount_point.c_str(), MNT_DETACH) != 0) {
    // Whether it is gone is seen in the table.
    (void)RunningProgram({"fusermount3", "-u", "-z", mount_point}, "/").WaitForEnd();
  }
}

TempHome::TempHome() {
  (void)MakeFolder("Library/Application Support");
  (void)MakeFolder("Library/Logs");
}

TempHome::~TempHome() {
  for (const std::filesystem::path& mount_point : MountsBelow(Path())) {
    ADD_FAILURE() << "still mounted: " << mount_point;
    Detach(mount_point);
  }
}

std::filesystem::path TempHome::DataFolder() const {
  return Path() / "Library/Application Support/tarnsvc";
}

std::filesystem::path TempHome::LogFile() const {
  return Path() / "Library/Logs/tarnsvc/tarnsvclog";
}

std::filesystem::path TempHome::MakeFolder(const std::string& name) const {
  std::filesystem::create_directories(Path() / name);
  return Path() / name;
}

}  // namespace tarn::test
