#include <cstring>
#include <gtest/gtest.h>
#include <random>

#include "tests/unit/filesystem/direct_calls.h"
#include "tests/unit/filesystem/lent_libraries.h"

namespace tarn::test {
namespace {

const std::vector<std::string> kFolders = {"/", "/one", "/two", "/one/deep"};
const std::vector<std::string> kFileNames = {"a", "b", "c", "A"};
constexpr size_t kMaxOpen = 5;
constexpr size_t kMaxSize = 300'000;  // more than one request of the kernel

// Does the same random things to a drive and to a plain folder until what comes of them differs.
class RandomOperations {
 public:
  RandomOperations(Calls& tested_drive, Calls& plain_folder, unsigned seed)
      : drive(tested_drive), plain(plain_folder), random(seed) {}

  // Empty, or the first difference with the step that made it.
  std::string Run(int steps) {
    for (int i = 0; i < steps && difference.empty(); ++i) {
      step = "step " + std::to_string(i) + ":";
      if (open.size() < kMaxOpen && Below(4) == 0) {
        OpenOne();
      } else if (!open.empty() && Below(4) != 0) {
        StepOnOpenFile();
      } else {
        StepOnNames();
      }
      if (i % 10 == 0) {
        CompareTree("/");
      }
    }
    step = "at the end:";
    while (!open.empty()) {
      CloseOne(open.size() - 1);
    }
    CompareTree("/");
    return difference;
  }

 private:
  struct Pair {
    std::string path;
    int drive_file;
    int plain_file;
  };

  size_t Below(size_t limit) { return std::uniform_int_distribution<size_t>(0, limit - 1)(random); }
  std::string FilePath() {
    return Join(kFolders[Below(kFolders.size())], kFileNames[Below(kFileNames.size())]);
  }
  static std::string Join(const std::string& folder, const std::string& name) {
    return (folder == "/" ? "" : folder) + "/" + name;
  }
  void Differ(const std::string& how) {
    if (difference.empty()) {
      difference = step + ": " + how;
    }
  }
  // Makes a call with a path in both places. The result is that of the plain folder.
  template <typename Call>
  int Both(const std::string& what, Call call) {
    step += " " + what;
    const int plain_error = call(plain);
    Compare(what, call(drive), plain_error);
    return plain_error;
  }
  void Compare(const std::string& what, int drive_error, int plain_error) {
    if (drive_error != plain_error) {
      Differ(what + ": " + std::strerror(drive_error) + " instead of " +
             std::strerror(plain_error));
    }
  }
  void CompareFile(const std::string& path) {
    std::string of_drive;
    std::string of_plain;
    const int plain_error = plain.ReadFile(path, of_plain);
    Compare("read of " + path, drive.ReadFile(path, of_drive), plain_error);
    std::uint64_t size = 0;
    if (plain_error == 0) {
      Compare("stat of " + path, drive.GetSize(path, size), 0);
      if (of_drive != of_plain || size != of_plain.size()) {
        const auto [left, right] =
            std::mismatch(of_drive.begin(), of_drive.end(), of_plain.begin(), of_plain.end());
        Differ(path + " at " + std::to_string(left - of_drive.begin()) + ", sizes " +
               std::to_string(of_drive.size()) + " (" + std::to_string(size) + ") and " +
               std::to_string(of_plain.size()));
      }
    }
  }
  void CompareTree(const std::string& folder) {
    std::vector<std::string> of_drive;
    std::vector<std::string> of_plain;
    const int plain_error = plain.List(folder, of_plain);
    Compare("listing of " + folder, drive.List(folder, of_drive), plain_error);
    if (plain_error == 0 && of_drive != of_plain) {
      Differ("listing of " + folder + " has " + std::to_string(of_drive.size()) + " instead of " +
             std::to_string(of_plain.size()) + " entries");
    }
    for (const std::string& name : of_plain) {
      const std::string path = Join(folder, name);
      const bool is_folder = std::find(kFolders.begin(), kFolders.end(), path) != kFolders.end();
      is_folder ? CompareTree(path) : CompareFile(path);
    }
  }
  void OpenOne() {
    constexpr int kFlags[] = {O_RDONLY,
                              O_RDWR,
                              O_RDWR | O_CREAT,
                              O_WRONLY | O_CREAT | O_TRUNC,
                              O_WRONLY | O_CREAT | O_APPEND,
                              O_RDWR | O_TRUNC};
    const int flags = kFlags[Below(std::size(kFlags))];
    Pair pair{FilePath(), -1, -1};
    const int error = Both("open " + pair.path + " flags " + std::to_string(flags), [&](Calls& on) {
      return on.Open(pair.path, flags, &on == &drive ? pair.drive_file : pair.plain_file);
    });
    if (error == 0 && difference.empty()) {
      open.push_back(pair);
    }
  }
  void CloseOne(size_t index) {
    const Pair pair = open[index];
    open.erase(open.begin() + static_cast<std::ptrdiff_t>(index));
    step += " close " + pair.path;
    const int plain_error = plain.Close(pair.plain_file);
    Compare("close", drive.Close(pair.drive_file), plain_error);
  }
  void StepOnOpenFile() {
    const size_t index = Below(open.size());
    const Pair pair = open[index];
    const std::uint64_t offset = Below(Below(2) == 0 ? 5000 : kMaxSize);
    const size_t length = 1 + Below(Below(3) == 0 ? 140'000 : 5000);
    step += " " + pair.path + " " + std::to_string(offset) + "+" + std::to_string(length);
    switch (Below(7)) {
      case 0:
        CloseOne(index);
        break;
      case 1:
        Compare("sync", drive.Sync(pair.drive_file), plain.Sync(pair.plain_file));
        break;
      case 2:  // what read-only files answer is the kernel's business
        if (plain.Truncate(pair.plain_file, offset) == 0) {
          Compare("truncate", drive.Truncate(pair.drive_file, offset), 0);
        }
        break;
      case 3:
      case 4: {
        std::string of_drive;
        std::string of_plain;
        if (plain.Read(pair.plain_file, offset, length, of_plain) == 0) {
          Compare("read", drive.Read(pair.drive_file, offset, length, of_drive), 0);
          if (of_drive != of_plain) {
            Differ("read differs");
          }
        }
        break;
      }
      default: {
        const std::string content(length, static_cast<char>('a' + Below(26)));
        const int plain_error = plain.Write(pair.plain_file, offset, content);
        Compare("write", drive.Write(pair.drive_file, offset, content), plain_error);
      }
    }
    CompareFile(pair.path);
  }
  void StepOnNames() {
    const std::string from = FilePath();
    const std::string to = FilePath();
    const std::string folder = kFolders[1 + Below(kFolders.size() - 1)];
    const auto rename = [this](const std::string& source, const std::string& target) {
      Both("rename " + source + " to " + target,
           [&](Calls& on) { return on.Rename(source, target); });
    };
    switch (Below(8)) {
      case 0:
      case 1:
        Both("unlink " + from, [&](Calls& on) { return on.Unlink(from); });
        break;
      case 2:
      case 3:
      case 4:
        if (from != to) {
          rename(from, to);
          CompareFile(to);
        }
        break;
      case 5:
        Both("rmdir " + folder, [&](Calls& on) { return on.RemoveFolder(folder); });
        break;
      case 6:
        rename("/one", "/two");
        // Below /two no name of the test's stands for a folder: move it back, or empty it.
        rename("/two/deep", "/one");
        break;
      default:
        Both("mkdir " + folder, [&](Calls& on) { return on.MakeFolder(folder); });
    }
    CompareFile(from);
  }

  Calls& drive;
  Calls& plain;
  std::mt19937 random;
  std::vector<Pair> open;
  std::string step;  // what was done last
  std::string difference;
};

class RandomTest : public testing::TestWithParam<unsigned> {
 protected:
  // What the remote has in the end is what the plain folder has.
  void CompareWithRemote() {
    for (const std::string& path : protocol.Paths()) {
      const auto there = folder.path() / path.substr(1);
      ASSERT_TRUE(std::filesystem::exists(there)) << path << " is only at the remote";
      EXPECT_TRUE(std::filesystem::is_directory(there) ||
                  protocol.Content(path) == plain.Content(path))
          << path;
    }
  }

  LentLibraries libraries;
  MemoryProtocol protocol;
  TempFolder folder;
  FolderCalls plain{folder.path()};
};

TEST_P(RandomTest, WithoutAMountEveryStepIsThatOfAPlainFolder) {
  Drive drive(protocol);
  ASSERT_EQ(RandomOperations(drive, plain, GetParam()).Run(400), "");
  CompareWithRemote();
}

TEST_P(RandomTest, WithAJournalEveryStepIsThatOfAPlainFolder) {
  const TempFolder journal;
  Drive drive(protocol, journal.path());
  ASSERT_EQ(RandomOperations(drive, plain, GetParam()).Run(400), "");
  EXPECT_EQ(drive.files->SendAll(std::chrono::seconds(30)), 0U);
  CompareWithRemote();
}

TEST_P(RandomTest, OnAMountEveryStepIsThatOfAPlainFolder) {
  TARN_SKIP_WITHOUT_FUSE();
  MountedDrive mounted;
  ASSERT_EQ(mounted.result, SUCCESS);
  mounted.drive->AddProtocol(Share(protocol));
  FolderCalls drive(mounted.path);
  ASSERT_EQ(RandomOperations(drive, plain, GetParam()).Run(150), "");
  ASSERT_EQ(::Unmount(mounted.path.c_str()), SUCCESS);
  CompareWithRemote();
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomTest, testing::Range(1U, 25U));

}  // namespace
}  // namespace tarn::test
