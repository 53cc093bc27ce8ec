#include "tests/e2e/mounting.h"

#include <random>
#include <utility>
#include <vector>

namespace tarn::test {

namespace {

std::string RandomBytes(size_t count, unsigned seed) {
  std::mt19937_64 random(seed);
  std::string bytes(count, '\0');
  for (size_t i = 0; i + 8 <= count; i += 8) {
    const auto word = random();
    bytes.replace(i, 8, reinterpret_cast<const char*>(&word), 8);
  }
  return bytes;
}

}  // namespace

void MountingTest::PutTreeThrough(const std::function<int()>& mount, const fs::path& remote,
                                  size_t largest_bytes) {
  ASSERT_EQ(mount(), 0);
  EXPECT_EQ(client->WaitForEvent("connected").GetObject("/data/drive").operator std::string(),
            volume.string());
  const std::string large = RandomBytes(largest_bytes, 1);
  const std::vector<std::pair<fs::path, std::string>> files = {
      {"plain", "x"},
      {"empty", ""},
      {"with space/and another/a file.txt", "deep"},
      {"Übergröße/名前/é.bin", RandomBytes(70000, 2)},
      {"quote\"s'$(x);&|#%?*", "shell?"},
      {"large.bin", large}};
  for (const auto& [name, content] : files) {
    fs::create_directories((volume / name).parent_path());
    WriteFile(volume / name, content);
  }
  for (const auto& file : files) {
    EXPECT_TRUE(ReadFile(volume / file.first) == file.second) << file.first;
    EXPECT_TRUE(WaitUntil([&] { return FileContent(remote / file.first) == file.second; }))
        << file.first;
  }
  fs::rename(volume / "with space", volume / "moved");
  EXPECT_EQ(ReadFile(volume / "moved/and another/a file.txt"), "deep");
  fs::remove_all(volume / "moved");
  fs::remove(volume / "plain");
  EXPECT_FALSE(fs::exists(remote / "moved"));
  EXPECT_EQ(Unmount(volume), 0);
  EXPECT_FALSE(IsMounted(volume));
  EXPECT_TRUE(fs::is_empty(volume));

  ASSERT_EQ(mount(), 0);
  EXPECT_TRUE(ReadFile(volume / "large.bin") == large);
  EXPECT_FALSE(fs::exists(volume / "plain"));
}

void MountingTest::ExpectDriveEndsWithService(int signal) {
  const std::vector<pid_t> drives = service.DriveProcesses();
  ASSERT_EQ(drives.size(), 1U);
  service.Signal(signal);
  (void)service.WaitForEnd(kPatience);
  EXPECT_TRUE(WaitUntil([&] { return !IsAlive(drives[0]); }));
}

}  // namespace tarn::test
