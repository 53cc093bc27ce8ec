#include "interfaces/cache.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "tests/support/http/recording_log.h"
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

struct Answer {
  AERROR error;
  std::string content;
  bool operator==(const Answer&) const = default;
};

Answer Read(ICache* cache, const std::string& key, const std::string& version,
            unsigned long long block) {
  thread_local std::string buffer(kLargestBytes, '?');
  unsigned int length = 0;
  const AERROR error =
      cache->ReadBlock(key.c_str(), version.c_str(), block, buffer.data(), kLargestBytes, &length);
  return {error, error == SUCCESS ? buffer.substr(0, length) : ""};
}

AERROR Write(ICache* cache, const std::string& key, const std::string& version,
             unsigned long long block, const std::string& content) {
  return cache->WriteBlock(key.c_str(), version.c_str(), block, content.data(),
                           static_cast<unsigned int>(content.size()));
}

const Answer kEmpty{CACHE_BLOCK_EMPTY, ""};

class CacheTest : public testing::Test {
 protected:
  CacheTest() { Cache_BindLogger(&log); }
  ~CacheTest() override {
    (void)ReleaseCache(folder.c_str());
    Cache_UnbindLogger();
  }

  ICache* Start(long long capacity_bytes) {
    void* cache = nullptr;
    EXPECT_EQ(InitCache(folder.c_str(), capacity_bytes, &cache), SUCCESS);
    return static_cast<ICache*>(cache);
  }

  [[nodiscard]] unsigned long long DiskBytes() const {
    struct stat found {};
    (void)::stat(file.c_str(), &found);  // nothing when there is no file
    return static_cast<unsigned long long>(found.st_blocks) * 512;
  }

  const tarn::test::TempFolder temp;
  const std::string folder = temp.path();
  const std::string file = folder + "/blocks";
  tarn::test::RecordingLog log;
};

TEST_F(CacheTest, BlocksOfAnySizeComeBackAsWritten) {
  ICache* cache = Start(16LL * kMiB);
  EXPECT_EQ(Read(cache, "/a", "v", 0), kEmpty);
  const unsigned int lengths[] = {0, 1, 63, 64, 65, 65535, 65536, 65537, kMiB, 3 * kMiB + 5};
  for (const unsigned int length : lengths) {
    const std::string content = Content(std::to_string(length), length);
    EXPECT_EQ(Write(cache, "/a", "v", 1ULL * length << 40, content), SUCCESS);
  }
  for (const unsigned int length : lengths) {
    const std::string content = Content(std::to_string(length), length);
    EXPECT_EQ(Read(cache, "/a", "v", 1ULL * length << 40), (Answer{SUCCESS, content})) << length;
  }
  char small = 0;
  unsigned int length = 0;
  EXPECT_EQ(cache->ReadBlock("/a", "v", 65ULL << 40, &small, 1, &length), INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 65U);
  EXPECT_EQ(cache->ReadBlock("/a", nullptr, 0, &small, 1, &length), INVALID_PARAMETER);
}

TEST_F(CacheTest, LeastRecentlyUsedBlocksGoFirst) {
  ICache* cache = Start(4LL * kMiB + 1);
  for (int key = 0; key < 4; ++key) {
    Write(cache, std::to_string(key), "v", 7, Content(std::to_string(key), kMiB));
  }
  EXPECT_EQ(cache->GetUsed(), 4 * kMiB);
  EXPECT_EQ(Read(cache, "0", "v", 7).error, SUCCESS);
  Write(cache, "small", "v", 0, "x");
  EXPECT_EQ(Read(cache, "1", "v", 7), kEmpty);
  for (const char* key : {"0", "2", "3", "small"}) {
    EXPECT_EQ(Read(cache, key, "v", key[0] == 's' ? 0 : 7).error, SUCCESS) << key;
  }
  EXPECT_LE(cache->GetUsed(), cache->GetCapacity());
  EXPECT_EQ(Write(cache, "giant", "v", 0, std::string(5 * kMiB, 'g')), SUCCESS);
  EXPECT_EQ(Read(cache, "0", "v", 7).error, SUCCESS) << "nothing goes for what can't be held";
}

TEST_F(CacheTest, OnlyTheWrittenVersionOfAKeyStays) {
  ICache* cache = Start(16LL * kMiB);
  Write(cache, "k", "v1", 0, "old 0");
  Write(cache, "k", "v1", 1, "old 1");
  Write(cache, "other", "v1", 0, "other");
  for (const char* content : {"new 1", "newer"}) {
    Write(cache, "k", "v2", 1, content);
    EXPECT_EQ(Read(cache, "k", "v2", 1), (Answer{SUCCESS, content}));
  }
  EXPECT_EQ(Read(cache, "k", "v1", 0), kEmpty);
  EXPECT_EQ(Read(cache, "k", "v2", 0), kEmpty);
  EXPECT_EQ(Read(cache, "k", "v1", 1), kEmpty);
  const auto used = cache->GetUsed();
  cache->Drop("k");
  cache->Drop("never held");
  EXPECT_EQ(Read(cache, "k", "v2", 1), kEmpty);
  EXPECT_EQ(Read(cache, "other", "v1", 0), (Answer{SUCCESS, "other"}));
  EXPECT_EQ(cache->GetUsed(), used / 2);
}

TEST_F(CacheTest, DamagedContentIsNeverHandedOut) {
  ICache* cache = Start(4LL * kMiB);
  const std::string content = Content("c", kMiB / 8 - 3);
  for (int block = 0; block < 3; ++block) {
    Write(cache, "k", "v", static_cast<unsigned long long>(block), content);
  }
  std::fstream(file, std::ios::in | std::ios::out | std::ios::binary).seekp(kMiB / 8 - 4).put('!');
  std::filesystem::resize_file(file, 300000);  // in the middle of the last one
  EXPECT_EQ(Read(cache, "k", "v", 0), kEmpty);
  EXPECT_EQ(Read(cache, "k", "v", 1), (Answer{SUCCESS, content}));
  EXPECT_EQ(Read(cache, "k", "v", 2), kEmpty);
  EXPECT_EQ(cache->GetUsed(), kMiB / 8);
  EXPECT_EQ(std::ranges::count(log.Text(), '\n'), 2);
  Write(cache, "k", "v", 0, content);
  EXPECT_EQ(Read(cache, "k", "v", 0), (Answer{SUCCESS, content}));
}

TEST_F(CacheTest, ManyThreadsGetWhatWasWrittenWithinTheCapacity) {
  ICache* cache = Start(4LL * kMiB);
  std::atomic<int> wrong = 0;
  std::atomic<int> hits = 0;
  std::vector<std::jthread> threads;
  for (unsigned int seed_of_thread = 0; seed_of_thread < 16; ++seed_of_thread) {
    threads.emplace_back([&, random = std::mt19937(seed_of_thread)]() mutable {
      for (int i = 0; i < 150; ++i) {
        const std::string key = std::to_string(random() % 12);
        const std::string version = random() % 20 == 0 ? "v2" : "v1";
        const unsigned long long block = random() % 4;
        const std::string seed = key + version + std::to_string(block);
        const auto length = static_cast<size_t>(seed.back() - '0' + 1) * 70000;
        if (random() % 2 == 0) {
          wrong += Write(cache, key, version, block, Content(seed, length)) != SUCCESS;
        } else if (const Answer answer = Read(cache, key, version, block); answer != kEmpty) {
          ++hits;
          wrong += answer != Answer{SUCCESS, Content(seed, length)};
        }
        wrong += cache->GetUsed() > 4 * kMiB || DiskBytes() > 4 * kMiB;
      }
    });
  }
  threads.clear();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_GT(hits.load(), 0);
  EXPECT_EQ(log.Text(), "") << "what is replaced while it is read is not damaged";
}

// A limit on the size of files stands for the full disk.
TEST_F(CacheTest, FullDiskMakesTheCacheSmallerAndItGoesOnWorking) {
  ICache* cache = Start(8LL * kMiB);
  rlimit before{};
  ::getrlimit(RLIMIT_FSIZE, &before);
  const rlimit full{2 * kMiB, before.rlim_max};
  const auto signal_before = ::signal(SIGXFSZ, SIG_IGN);
  ::setrlimit(RLIMIT_FSIZE, &full);
  for (unsigned int block = 0; block < 200; ++block) {
    const std::string content = Content(std::to_string(block), kMiB / 8);
    EXPECT_EQ(Write(cache, "k", "v", block, content), SUCCESS);
    EXPECT_EQ(Read(cache, "k", "v", block), (Answer{SUCCESS, content})) << block;
    if (block == 2 * kMiB / content.size()) {  // the first that met the full disk
      EXPECT_LT(DiskBytes(), 2 * kMiB) << "others get some of the space";
    }
  }
  EXPECT_LE(cache->GetUsed(), 2 * kMiB);
  ::setrlimit(RLIMIT_FSIZE, &before);
  ::signal(SIGXFSZ, signal_before);
  for (unsigned int block = 0; block < 200; ++block) {
    Write(cache, "k", "v", block, Content(std::to_string(block), kMiB / 8));
  }
  EXPECT_GT(cache->GetUsed(), 4 * kMiB) << "grows back";
}

TEST_F(CacheTest, StartAndEndCheckTheirFolder) {
  void* cache = nullptr;
  for (const char* path : {"/tmp/missing/folder", "/dev/null", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(InitCache(path, kMiB, &cache), CACHE_INVALID_PATH);
  }
  for (const long long capacity : {0LL, -1LL, 1048575LL}) {
    EXPECT_EQ(InitCache(folder.c_str(), capacity, &cache), CACHE_TOO_SMALL);
  }
  EXPECT_EQ(cache, nullptr);
  ICache* started = Start(kMiB);
  EXPECT_EQ(started->GetFolder(), folder);
  EXPECT_EQ(started->GetCapacity(), kMiB);
  EXPECT_EQ(InitCache(folder.c_str(), kMiB, &cache), CACHE_CREATE_FAILED);
  EXPECT_EQ(Write(started, "k", "v", 0, "x"), SUCCESS);
  EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0600));
  const std::string of_the_user = temp.Write(".work", "");
  EXPECT_NE(ReleaseCache("/tmp"), 0);
  EXPECT_NE(ReleaseCache(""), 0);
  EXPECT_EQ(ReleaseCache(folder.c_str()), 0);
  EXPECT_NE(ReleaseCache(folder.c_str()), 0);
  EXPECT_FALSE(std::filesystem::exists(file));
  EXPECT_TRUE(std::filesystem::exists(of_the_user));
}

}  // namespace
