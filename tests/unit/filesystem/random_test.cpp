#include <array>
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

  void Run(int steps) {
    for (int i = 0; i < steps && !testing::Test::HasFailure(); ++i) {
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
  }

 private:
  struct Pair {
    std::string path;
    int drive_file;
    int plain_file;
  };

  size_t Below(size_t limit) { return std::uniform_int_distribution<size_t>(0, limit - 1)(random); }
  std::string FilePath() {
    return fs::JoinPath(kFolders[Below(kFolders.size())], kFileNames[Below(kFileNames.size())]);
  }
  // Makes a call with a path in both places. The result is that of the plain folder.
  template <typename Call>
  int Both(const std::string& what, Call call) {
    step += " " + what;
    const int plain_error = call(plain);
    EXPECT_EQ(call(drive), plain_error) << step;
    return plain_error;
  }
  void CompareFile(const std::string& path) {
    std::string of_drive;
    std::string of_plain;
    const int plain_error = plain.ReadFile(path, of_plain);
    EXPECT_EQ(drive.ReadFile(path, of_drive), plain_error) << step << " read of " << path;
    std::uint64_t size = 0;
    if (plain_error == 0) {
      EXPECT_EQ(drive.GetSize(path, size), 0) << step << " stat of " << path;
      EXPECT_EQ(size, of_plain.size()) << step << " size of " << path;
      EXPECT_TRUE(of_drive == of_plain) << step << " content of " << path;
    }
  }
  void CompareTree(const std::string& folder) {
    const std::vector<std::string> names = plain.Names(folder);
    EXPECT_EQ(drive.Names(folder), names) << step << " listing of " << folder;
    for (const std::string& name : names) {
      const std::string path = fs::JoinPath(folder, name);
      const bool is_folder = std::find(kFolders.begin(), kFolders.end(), path) != kFolders.end();
      is_folder ? CompareTree(path) : CompareFile(path);
    }
  }
  void OpenOne() {
    constexpr std::array kFlags = {O_RDONLY,
                                   O_RDWR,
                                   O_RDWR | O_CREAT,
                                   O_RDWR | O_TRUNC,
                                   O_WRONLY | O_CREAT | O_TRUNC,
                                   O_WRONLY | O_CREAT | O_APPEND};
    const int flags = kFlags[Below(kFlags.size())];
    Pair pair{FilePath(), -1, -1};
    const int error = Both("open " + pair.path + " flags " + std::to_string(flags), [&](Calls& on) {
      return on.Open(pair.path, flags, &on == &drive ? pair.drive_file : pair.plain_file);
    });
    if (error == 0 && pair.drive_file >= 0) {
      open.push_back(pair);
    }
  }
  void CloseOne(size_t index) {
    const Pair pair = open[index];
    open.erase(open.begin() + static_cast<std::ptrdiff_t>(index));
    step += " close " + pair.path;
    EXPECT_EQ(drive.Close(pair.drive_file), plain.Close(pair.plain_file)) << step;
  }
  void StepOnOpenFile() {
    const size_t index = Below(open.size());
    const Pair pair = open[index];
    const std::uint64_t offset = Below(Below(2) == 0 ? 5000 : kMaxSize);
    const size_t length = 1 + Below(Below(3) == 0 ? 140'000 : 5000);
    step += " " + pair.path + " " + std::to_string(offset) + "+" + std::to_string(length);
    const size_t what = Below(7);
    std::string of_drive;
    std::string of_plain;
    if (what == 0) {
      CloseOne(index);
    } else if (what == 1) {
      EXPECT_EQ(drive.Sync(pair.drive_file), plain.Sync(pair.plain_file)) << step;
    } else if (what == 2 && plain.Truncate(pair.plain_file, offset) == 0) {
      EXPECT_EQ(drive.Truncate(pair.drive_file, offset), 0) << step;
    } else if (what < 5 && plain.Read(pair.plain_file, offset, length, of_plain) == 0) {
      EXPECT_EQ(drive.Read(pair.drive_file, offset, length, of_drive), 0) << step;
      EXPECT_TRUE(of_drive == of_plain) << step;
    } else {
      const std::string content(length, static_cast<char>('a' + Below(26)));
      const int plain_error = plain.Write(pair.plain_file, offset, content);
      EXPECT_EQ(drive.Write(pair.drive_file, offset, content), plain_error) << step;
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
    const size_t what = Below(8);
    if (what < 2) {
      Both("unlink " + from, [&](Calls& on) { return on.Unlink(from); });
    } else if (what < 5 && from != to) {
      rename(from, to);
      CompareFile(to);
    } else if (what == 5) {
      Both("rmdir " + folder, [&](Calls& on) { return on.RemoveFolder(folder); });
    } else if (what == 6) {
      rename("/one", "/two");
      // Below /two no name of the test's stands for a folder: move it back, or empty it.
      rename("/two/deep", "/one");
    } else {
      Both("mkdir " + folder, [&](Calls& on) { return on.MakeFolder(folder); });
    }
    CompareFile(from);
  }

  Calls& drive;
  Calls& plain;
  std::mt19937 random;
  std::vector<Pair> open;
  std::string step;  // what was done last
};

class RandomTest : public testing::TestWithParam<unsigned> {
 protected:
  void SetUp() override {
    if (GetParam() % 2 == 0) {
      protocol.StopTheClock();
    }
  }

  // What the remote has in the end is what the plain folder has.
  void CompareWithRemote() {
    for (const std::string& path : protocol.Paths()) {
      const auto there = folder.path() / path.substr(1);
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
  {
    Drive drive(protocol);
    RandomOperations(drive, plain, GetParam()).Run(400);
  }
  CompareWithRemote();
  const TempFolder journal;
  Drive drive(protocol, journal.path());
  RandomOperations(drive, plain, GetParam()).Run(400);
  EXPECT_EQ(drive.files->SendAll(kPatience), 0U);
  CompareWithRemote();
}

TEST_P(RandomTest, OnAMountEveryStepIsThatOfAPlainFolder) {
  TARN_SKIP_WITHOUT_FUSE();
  MountedDrive mounted;
  ASSERT_EQ(mounted.result, SUCCESS);
  mounted.drive->AddProtocol(Share(protocol));
  FolderCalls drive(mounted.path);
  RandomOperations(drive, plain, GetParam()).Run(150);
  ASSERT_EQ(::Unmount(mounted.path.c_str()), SUCCESS);
  CompareWithRemote();
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomTest, testing::Range(1U, 25U));

}  // namespace
}  // namespace tarn::test
