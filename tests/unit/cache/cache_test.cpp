#include "interfaces/cache.h"

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <random>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "tests/support/temp_folder.h"

namespace {

constexpr unsigned long kMiB = 1024UL * 1024;
constexpr unsigned int kLargestBytes = 4 * kMiB;

// Content that differs for every block and version, so that a mix-up shows.
std::string Content(const std::string& seed, size_t length) {
  size_t random = std::hash<std::string>()(seed);
  std::string content(length, '\0');
  for (size_t i = 0; i < content.size(); i += 512) {
    random = random * 6364136223846793005 + 1;
    content[i] = static_cast<char>(random >> 56);
  }
  return content;
}

class CacheTest : public testing::Test {
 protected:
  ~CacheTest() override { (void)ReleaseCache(folder.c_str()); }

  void Start(long long capacity_bytes) {
    void* started = nullptr;
    ASSERT_EQ(InitCache(folder.c_str(), capacity_bytes, &started), SUCCESS);
    cache = static_cast<ICache*>(started);
  }
  // The content of a block, unless the cache has none.
  std::optional<std::string> Read(const std::string& key, const std::string& version,
                                  unsigned long long block) {
    thread_local std::string buffer(kLargestBytes, '?');
    unsigned int length = 0;
    const AERROR error = cache->ReadBlock(key.c_str(), version.c_str(), block, buffer.data(),
                                          kLargestBytes, &length);
    EXPECT_TRUE(error == SUCCESS || error == CACHE_BLOCK_EMPTY) << error;
    return error == SUCCESS ? std::optional(buffer.substr(0, length)) : std::nullopt;
  }
  void Write(const std::string& key, const std::string& version, unsigned long long block,
             const std::string& content) {
    EXPECT_EQ(cache->WriteBlock(key.c_str(), version.c_str(), block, content.data(),
                                static_cast<unsigned int>(content.size())),
              SUCCESS);
  }

  const tarn::test::TempFolder temp;
  const std::string folder = temp.path();
  const std::string file = folder + "/blocks";
  ICache* cache = nullptr;
};

TEST_F(CacheTest, BlocksOfAnySizeComeBackAsWritten) {
  Start(16LL * kMiB);
  EXPECT_EQ(Read("/a", "v", 0), std::nullopt);
  const unsigned int lengths[] = {0, 1, 63, 64, 65, 65535, 65536, 65537, kMiB, 3 * kMiB + 5};
  for (const unsigned int length : lengths) {
    Write("/a", "v", 1ULL * length << 40, Content(std::to_string(length), length));
  }
  for (const unsigned int length : lengths) {
    EXPECT_EQ(Read("/a", "v", 1ULL * length << 40), Content(std::to_string(length), length));
  }
  char small = 0;
  unsigned int length = 0;
  EXPECT_EQ(cache->ReadBlock("/a", "v", 65ULL << 40, &small, 1, &length), INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 65U);
}

TEST_F(CacheTest, LeastRecentlyUsedBlocksGoFirst) {
  Start(4LL * kMiB + 1);
  for (int key = 0; key < 4; ++key) {
    Write(std::to_string(key), "v", 7, Content(std::to_string(key), kMiB));
  }
  EXPECT_TRUE(Read("0", "v", 7));
  Write("small", "v", 7, "x");
  EXPECT_EQ(Read("1", "v", 7), std::nullopt);
  for (const char* key : {"0", "2", "3", "small"}) {
    EXPECT_TRUE(Read(key, "v", 7)) << key;
  }
}

TEST_F(CacheTest, OnlyTheWrittenVersionOfAKeyStays) {
  Start(16LL * kMiB);
  Write("k", "v1", 0, "old 0");
  Write("k", "v1", 1, "old 1");
  Write("other", "v1", 0, "other");
  for (const char* content : {"new 1", "newer"}) {
    Write("k", "v2", 1, content);
    EXPECT_EQ(Read("k", "v2", 1), content);
  }
  EXPECT_FALSE(Read("k", "v1", 0) || Read("k", "v2", 0) || Read("k", "v1", 1));
  cache->Drop("k");
  EXPECT_EQ(Read("k", "v2", 1), std::nullopt);
  EXPECT_EQ(Read("other", "v1", 0), "other");
}

TEST_F(CacheTest, DamagedContentIsNeverHandedOut) {
  Start(4LL * kMiB);
  const std::string content = Content("c", kMiB / 8 - 3);
  Write("k", "v", 0, content);
  Write("k", "v", 1, content);
  std::fstream(file, std::ios::in | std::ios::out | std::ios::binary).seekp(kMiB / 8 - 4).put('!');
  EXPECT_EQ(Read("k", "v", 0), std::nullopt);
  EXPECT_EQ(Read("k", "v", 1), content);
  EXPECT_EQ(cache->GetUsed(), kMiB / 8);
  Write("k", "v", 0, content);
  EXPECT_EQ(Read("k", "v", 0), content);
}

TEST_F(CacheTest, ManyThreadsGetWhatWasWrittenWithinTheCapacity) {
  Start(4LL * kMiB);
  std::atomic<int> hits = 0;
  std::vector<std::jthread> threads;
  for (unsigned int seed_of_thread = 0; seed_of_thread < 16; ++seed_of_thread) {
    threads.emplace_back([&, random = std::mt19937(seed_of_thread)]() mutable {
      for (int i = 0; i < 150; ++i) {
        const std::string key = std::to_string(random() % 12);
        const std::string version = random() % 20 == 0 ? "v2" : "v1";
        const unsigned long long block = random() % 4;
        const std::string seed = key + version + std::to_string(block);
        const std::string content = Content(seed, (block + 1) * 70000);
        if (random() % 2 == 0) {
          Write(key, version, block, content);
        } else if (const auto read = Read(key, version, block)) {
          ++hits;
          EXPECT_TRUE(*read == content) << seed;
        }
        EXPECT_LE(cache->GetUsed(), 4 * kMiB);
        struct stat found {};
        EXPECT_EQ(::stat(file.c_str(), &found), 0);
        EXPECT_LE(found.st_blocks * 512LL, 4LL * kMiB);
      }
    });
  }
  threads.clear();
  EXPECT_GT(hits.load(), 0);
}

// A limit on the size of files stands for the full disk.
TEST_F(CacheTest, FullDiskMakesTheCacheSmallerAndItGoesOnWorking) {
  Start(8LL * kMiB);
  rlimit before{};
  ::getrlimit(RLIMIT_FSIZE, &before);
  const rlimit full{2 * kMiB, before.rlim_max};
  const auto signal_before = ::signal(SIGXFSZ, SIG_IGN);
  ::setrlimit(RLIMIT_FSIZE, &full);
  for (unsigned int block = 0; block < 200; ++block) {
    const std::string content = Content(std::to_string(block), kMiB / 8);
    Write("k", "v", block, content);
    EXPECT_EQ(Read("k", "v", block), content) << block;
  }
  EXPECT_LE(cache->GetUsed(), 2 * kMiB);
  ::setrlimit(RLIMIT_FSIZE, &before);
  ::signal(SIGXFSZ, signal_before);
}

TEST_F(CacheTest, StartAndEndCheckTheirFolder) {
  void* none = nullptr;
  for (const char* path : {"/tmp/missing/folder", "/dev/null", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(InitCache(path, kMiB, &none), CACHE_INVALID_PATH);
  }
  Start(kMiB);
  EXPECT_EQ(InitCache(folder.c_str(), kMiB, &none), CACHE_CREATE_FAILED);
  EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0600));
  const std::string of_the_user = temp.Write(".work", "");
  EXPECT_NE(ReleaseCache("/tmp"), 0);
  EXPECT_EQ(ReleaseCache(folder.c_str()), 0);
  EXPECT_FALSE(std::filesystem::exists(file));
  EXPECT_TRUE(std::filesystem::exists(of_the_user));
}

}  // namespace
