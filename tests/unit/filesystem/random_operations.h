#pragma once

#include <random>
#include <string>
#include <vector>

#include "tests/unit/filesystem/drive.h"

namespace tarn::test {

// Does the same random things to a drive and to a plain folder and compares what comes of them.
// Every difference is a GoogleTest failure that names the step.
class RandomOperations {
 public:
  RandomOperations(Calls& tested_drive, Calls& plain_folder, unsigned seed)
      : drive(tested_drive), plain(plain_folder), random(seed) {}

  void Run(int steps);
  // Closes all files and compares everything.
  void Finish();
  [[nodiscard]] bool Differs() const { return !difference.empty(); }
  [[nodiscard]] const std::string& Difference() const { return difference; }

 private:
  struct Pair {
    std::string path;
    int drive_file;
    int plain_file;
  };

  size_t Below(size_t limit) { return std::uniform_int_distribution<size_t>(0, limit - 1)(random); }
  std::string FilePath();
  std::string FolderPath();
  void Step();
  void StepOnOpenFile();
  void StepOnNames();
  void OpenOne();
  void CloseOne(size_t index);
  void Compare(const std::string& what, int drive_error, int plain_error);
  void CompareFile(const std::string& path);
  void CompareTree(const std::string& folder);

  Calls& drive;
  Calls& plain;
  std::mt19937 random;
  std::vector<Pair> open;
  std::string step;  // what was done last
  std::string difference;
};

}  // namespace tarn::test
