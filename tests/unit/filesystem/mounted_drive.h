#pragma once

#include <memory>
#include <string>
#include <sys/mount.h>
#include <unistd.h>

#include "interfaces/filesystem.h"
#include "tests/support/temp_folder.h"

namespace tarn::test {

// A volume without a protocol in a folder of its own; taken away at the end whatever happened.
class MountedDrive {
 public:
  explicit MountedDrive(const std::string& label = "drive")
      : path(folder.path() / "volume"),
        result(::Mount(path.c_str(), label.c_str(), 2, &drive, nullptr)) {}
  ~MountedDrive() {
    if (result == SUCCESS && ::Unmount(path.c_str()) != SUCCESS) {
      (void)::umount2(path.c_str(), MNT_DETACH);
    }
  }
  MountedDrive(const MountedDrive&) = delete;
  MountedDrive& operator=(const MountedDrive&) = delete;

 private:
  TempFolder folder;

 public:
  IFSDrive* drive = nullptr;
  const std::string path;
  const int result;
};

}  // namespace tarn::test

#define TARN_SKIP_WITHOUT_FUSE()                                           \
  if (::access("/dev/fuse", R_OK | W_OK) != 0) {                           \
    GTEST_SKIP() << "no /dev/fuse that this user may open on this system"; \
  }                                                                        \
  static_assert(true)
