#include "tests/unit/filesystem/random_operations.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>

namespace tarn::test {

namespace {

const std::vector<std::string> kFolders = {"/", "/one", "/two", "/one/deep"};
const std::vector<std::string> kFileNames = {"a", "b", "c", "A"};
constexpr size_t kMaxOpen = 5;
constexpr size_t kMaxSize = 300'000;  // more than one request of the kernel

}  // namespace

std::string RandomOperations::FilePath() {
  const std::string& folder = kFolders[Below(kFolders.size())];
  return (folder == "/" ? "" : folder) + "/" + kFileNames[Below(kFileNames.size())];
}

std::string RandomOperations::FolderPath() {
  return kFolders[1 + Below(kFolders.size() - 1)];
}

void RandomOperations::Compare(const std::string& what, int drive_error, int plain_error) {
  if (drive_error != plain_error && difference.empty()) {
    difference = step + ": " + what + ": " + std::strerror(drive_error) + " instead of " +
                 std::strerror(plain_error);
  }
}

void RandomOperations::CompareFile(const std::string& path) {
  std::string of_drive;
  std::string of_plain;
  std::uint64_t drive_size = 0;
  std::uint64_t plain_size = 0;
  const int plain_error = plain.ReadFile(path, of_plain);
  Compare("read of " + path, drive.ReadFile(path, of_drive), plain_error);
  if (plain_error != 0 || Differs()) {
    return;
  }
  Compare("stat of " + path, drive.GetSize(path, drive_size), plain.GetSize(path, plain_size));
  if (of_drive != of_plain || drive_size != plain_size) {
    const auto [left, right] =
        std::mismatch(of_drive.begin(), of_drive.end(), of_plain.begin(), of_plain.end());
    difference = step + ": " + path + " differs at " + std::to_string(left - of_drive.begin()) +
                 ", sizes " + std::to_string(of_drive.size()) + " (" + std::to_string(drive_size) +
                 ") and " + std::to_string(of_plain.size());
  }
}

void RandomOperations::CompareTree(const std::string& folder) {
  std::vector<std::string> of_drive;
  std::vector<std::string> of_plain;
  const int plain_error = plain.List(folder, of_plain);
  Compare("listing of " + folder, drive.List(folder, of_drive), plain_error);
  if (plain_error == 0 && of_drive != of_plain && difference.empty()) {
    difference = step + ": listing of " + folder + " has " + std::to_string(of_drive.size()) +
                 " instead of " + std::to_string(of_plain.size()) + " entries";
  }
  for (const std::string& name : of_plain) {
    const std::string path = (folder == "/" ? "" : folder) + "/" + name;
    const bool is_folder = std::find(kFolders.begin(), kFolders.end(), path) != kFolders.end();
    is_folder ? CompareTree(path) : CompareFile(path);
  }
}

void RandomOperations::OpenOne() {
  constexpr int kFlags[] = {O_RDONLY,
                            O_RDWR,
                            O_RDWR | O_CREAT,
                            O_WRONLY | O_CREAT | O_TRUNC,
                            O_WRONLY | O_CREAT | O_APPEND,
                            O_RDWR | O_TRUNC};
  const int flags = kFlags[Below(std::size(kFlags))];
  Pair pair{FilePath(), -1, -1};
  step += " open " + pair.path + " flags " + std::to_string(flags);
  const int plain_error = plain.Open(pair.path, flags, pair.plain_file);
  const int drive_error = drive.Open(pair.path, flags, pair.drive_file);
  Compare("open", drive_error, plain_error);
  if (plain_error == 0 && drive_error == 0) {
    open.push_back(pair);
  }
}

void RandomOperations::CloseOne(size_t index) {
  const Pair pair = open[index];
  open.erase(open.begin() + static_cast<std::ptrdiff_t>(index));
  step += " close " + pair.path;
  const int plain_error = plain.Close(pair.plain_file);
  Compare("close", drive.Close(pair.drive_file), plain_error);
}

void RandomOperations::StepOnOpenFile() {
  const size_t index = Below(open.size());
  const Pair pair = open[index];
  const std::uint64_t offset = Below(Below(2) == 0 ? 5000 : kMaxSize);
  const size_t length = 1 + Below(Below(3) == 0 ? 140'000 : 5000);
  const std::string where =
      " " + pair.path + " " + std::to_string(offset) + "+" + std::to_string(length);
  switch (Below(7)) {
    case 0:
      CloseOne(index);
      break;
    case 1:
      step += " sync " + pair.path;
      Compare("sync", drive.Sync(pair.drive_file), plain.Sync(pair.plain_file));
      break;
    case 2: {
      step += " truncate" + where;
      const int plain_error = plain.Truncate(pair.plain_file, offset);
      if (plain_error == 0) {  // what read-only files answer is the kernel's business
        Compare("truncate", drive.Truncate(pair.drive_file, offset), plain_error);
      }
      break;
    }
    case 3:
    case 4: {
      step += " read" + where;
      std::string of_drive;
      std::string of_plain;
      const int plain_error = plain.Read(pair.plain_file, offset, length, of_plain);
      if (plain_error == 0) {
        Compare("read", drive.Read(pair.drive_file, offset, length, of_drive), 0);
        if (of_drive != of_plain && !Differs()) {
          difference = step + ": read differs";
        }
      }
      break;
    }
    default: {
      step += " write" + where;
      const std::string content(length, static_cast<char>('a' + Below(26)));
      const int plain_error = plain.Write(pair.plain_file, offset, content);
      Compare("write", drive.Write(pair.drive_file, offset, content), plain_error);
    }
  }
  CompareFile(pair.path);
}

void RandomOperations::StepOnNames() {
  const std::string from = FilePath();
  const std::string to = FilePath();
  const std::string folder = FolderPath();
  switch (Below(8)) {
    case 0:
    case 1:
      step += " unlink " + from;
      Compare("unlink", drive.Unlink(from), plain.Unlink(from));
      break;
    case 2:
    case 3:
    case 4:
      if (from != to) {
        step += " rename " + from + " to " + to;
        const int plain_error = plain.Rename(from, to);
        Compare("rename", drive.Rename(from, to), plain_error);
        CompareFile(to);
      }
      break;
    case 5:
      step += " rmdir " + folder;
      Compare("rmdir", drive.RemoveFolder(folder), plain.RemoveFolder(folder));
      break;
    case 6:
      step += " rename /one to /two";
      Compare("rename", drive.Rename("/one", "/two"), plain.Rename("/one", "/two"));
      // Below /two no name of the test's stands for a folder: move it back, or empty it.
      Compare("rename", drive.Rename("/two/deep", "/one"), plain.Rename("/two/deep", "/one"));
      break;
    default:
      step += " mkdir " + folder;
      Compare("mkdir", drive.MakeFolder(folder), plain.MakeFolder(folder));
  }
  CompareFile(from);
}

void RandomOperations::Step() {
  if (open.size() < kMaxOpen && Below(4) == 0) {
    OpenOne();
  } else if (!open.empty() && Below(4) != 0) {
    StepOnOpenFile();
  } else {
    StepOnNames();
  }
}

void RandomOperations::Run(int steps) {
  for (int i = 0; i < steps && !Differs(); ++i) {
    step = "step " + std::to_string(i) + ":";
    Step();
    if (i % 10 == 0) {
      CompareTree("/");
    }
  }
}

void RandomOperations::Finish() {
  step = "at the end:";
  while (!open.empty()) {
    CloseOne(open.size() - 1);
  }
  CompareTree("/");
}

}  // namespace tarn::test
