#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/temp_folder.h"

namespace tarn::test {

// A home folder of the test's own, with the folders in it that the service expects. At the end it
// goes with all that is in it; a volume that is still mounted below it is detached first and fails
// the test.
class TempHome {
 public:
  TempHome();
  ~TempHome();
  TempHome(const TempHome&) = delete;
  TempHome& operator=(const TempHome&) = delete;

  [[nodiscard]] std::filesystem::path Path() const { return folder.path(); }
  [[nodiscard]] std::filesystem::path DataFolder() const;  // of the service
  [[nodiscard]] std::filesystem::path LogFile() const;

  // Makes a folder in the home. Returns its path.
  [[nodiscard]] std::filesystem::path MakeFolder(const std::string& name) const;

 private:
  TempFolder folder;
};

// The mount points at or below a folder, the deepest first.
[[nodiscard]] std::vector<std::filesystem::path> MountsBelow(const std::filesystem::path& folder);

// Detaches a volume, even one that is in use or dead.
void Detach(const std::filesystem::path& mount_point);

}  // namespace tarn::test
