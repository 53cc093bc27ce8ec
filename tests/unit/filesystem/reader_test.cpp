#include "platform/filesystem/reader.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <thread>

#include "tests/unit/filesystem/lent_libraries.h"

namespace tarn::fs {
namespace {

constexpr size_t kBlock = Reader::kBlockBytes;

std::string Pattern(size_t size, unsigned seed) {
  std::string text(size, '\0');
  for (size_t i = 0; i < size; ++i) {
    seed = seed * 1664525 + 1013904223;
    text[i] = static_cast<char>(seed >> 24);
  }
  return text;
}

// A file that a test can change and that counts what is asked.
class FakeSource : public ReadSource {
 public:
  explicit FakeSource(std::string text) : content(std::move(text)), at_open(content) {}

  int Read(std::uint64_t offset, const std::shared_ptr<Buffer>& buffer, size_t& received) override {
    const size_t length = buffer->size();
    const MutexLock guard(lock);
    ++reads;
    bytes += length;
    if (failure != 0) {
      return failure;
    }
    if (one_version && content != at_open) {
      return ESTALE;
    }
    received = offset >= content.size() ? 0 : std::min<size_t>(length, content.size() - offset);
    std::memcpy(buffer->data(), content.data() + offset, received);
    return 0;
  }
  const Line& GetLine() const override { return line; }
  bool ReadsOneVersion() const override { return one_version; }
  int Confirm() override {
    const MutexLock guard(lock);
    ++confirms;
    return content == at_open ? 0 : ESTALE;
  }
  void Change(std::string text) {
    const MutexLock guard(lock);
    content = std::move(text);
  }

  Line line;
  std::atomic<int> reads = 0;
  std::atomic<int> confirms = 0;
  std::atomic<size_t> bytes = 0;
  std::atomic<int> failure = 0;
  std::atomic<bool> one_version = false;

 private:
  Mutex lock;
  std::string content TARN_GUARDED_BY(lock);
  const std::string at_open;
};

class ReaderTest : public testing::Test {
 protected:
  std::shared_ptr<Reader> Open(const std::string& version = "v1", bool is_fresh = true) {
    return std::make_shared<Reader>(
        source,
        Reader::File{
            .key = "key", .version = version, .size = content.size(), .is_fresh = is_fresh});
  }
  static std::string Read(Reader& reader, std::uint64_t offset, size_t length, int error = 0) {
    std::string part(length, '?');
    size_t received = 0;
    EXPECT_EQ(reader.Read(offset, part.data(), length, received), error) << "at " << offset;
    part.resize(received);
    return part;
  }

  const std::string content = Pattern(9'000'001, 7);
  std::shared_ptr<FakeSource> source = std::make_shared<FakeSource>(content);
};

TEST_F(ReaderTest, ReadingOnAndOnIsRightAndTakesFewRequestsAheadOfTheProgram) {
  const test::LentLibraries libraries;
  const auto reader = Open();
  std::string read;
  while (read.size() < content.size()) {
    const std::string part = Read(*reader, read.size(), 100'000);
    ASSERT_FALSE(part.empty());
    read += part;
  }
  EXPECT_TRUE(read == content);
  EXPECT_LE(source->reads, 12) << "pieces of one MiB";
  EXPECT_EQ(Read(*reader, content.size(), 10), "");
}

TEST_F(ReaderTest, ARandomReadFetchesOneBlockAndNothingAhead) {
  const test::LentLibraries libraries;
  const auto reader = Open();
  for (const std::uint64_t offset : {5000000U, 2500000U, 7900000U}) {
    EXPECT_TRUE(Read(*reader, offset, 4096) == content.substr(offset, 4096));
  }
  EXPECT_EQ(source->reads, 3);
  EXPECT_EQ(source->bytes, 3 * kBlock);
  EXPECT_TRUE(Read(*reader, 5'000'000, 4096) == content.substr(5'000'000, 4096));
  EXPECT_EQ(source->reads, 3) << "it is still there";
}

TEST_F(ReaderTest, RandomReadsBringTheWholeFileOnlyWhereThatDelaysNobody) {
  test::LentLibraries libraries(64 << 20);
  const auto read_at_random = [&](Clock::duration round_trip) {
    source = std::make_shared<FakeSource>(content);
    source->line.End({Clock::now() - round_trip, 0}, 0);
    libraries.cache->Drop("key");
    const auto reader = Open();
    for (std::uint64_t i = 1; i < 40; ++i) {
      const std::uint64_t offset = i * 5'566'771 % content.size();
      EXPECT_TRUE(Read(*reader, offset, 1) == content.substr(offset, 1));
      libraries.WaitIdle();
    }
  };
  read_at_random(std::chrono::minutes(1));  // beside which any read is quick
  EXPECT_GE(source->bytes, content.size() / 2);
  EXPECT_LE(source->bytes, content.size() + 1) << "nothing twice";
  EXPECT_LT(source->reads, 30) << "windows grow";
  read_at_random(std::chrono::nanoseconds(1));
  EXPECT_GE(source->reads, 30);
  EXPECT_LE(source->bytes, 39 * kBlock + 1);
}

TEST_F(ReaderTest, AChangedFileGivesAnErrorAndNeverAMixture) {
  const auto reader = Open();
  const std::string first = Read(*reader, 3'000'000, 4096);
  EXPECT_TRUE(first == content.substr(3'000'000, 4096));
  EXPECT_EQ(source->confirms, 0) << "alone it is no mixture";
  source->Change(Pattern(content.size(), 8));
  (void)Read(*reader, 6'000'000, 4096, ESTALE);
  EXPECT_TRUE(Read(*reader, 3'000'000, 4096) == first) << "what is there stays readable";
  EXPECT_TRUE(reader->HasChanged());

  source->Change(content.substr(0, 1'000'000));
  (void)Read(*Open(), 950'000, 4096, ESTALE);
  (void)Read(*Open("v1", false), 8'990'000, 4096, ESTALE);
  source->Change(content + "more");
  (void)Read(*Open(), content.size() - 100, 100, ESTALE);
}

TEST_F(ReaderTest, ASourceThatReadsOneVersionIsNotAskedAgain) {
  source->one_version = true;
  const auto reader = Open("v1", false);
  for (const std::uint64_t offset : {3000000U, 6000000U}) {
    EXPECT_TRUE(Read(*reader, offset, 4096) == content.substr(offset, 4096));
  }
  EXPECT_EQ(source->confirms, 0);
  source->Change(Pattern(content.size(), 8));
  (void)Read(*reader, 8'000'000, 4096, ESTALE);
  EXPECT_TRUE(Read(*reader, 6'000'000, 4096) == content.substr(6'000'000, 4096));
}

TEST_F(ReaderTest, AFailureOfTheNetworkPasses) {
  const auto reader = Open();
  source->failure = EIO;
  (void)Read(*reader, 3'000'000, 4096, EIO);
  source->failure = 0;
  EXPECT_TRUE(Read(*reader, 3'000'000, 4096) == content.substr(3'000'000, 4096));
}

TEST_F(ReaderTest, ManyThreadsReadTheSameFile) {
  const test::LentLibraries libraries;
  const auto reader = Open();
  std::vector<std::thread> threads;
  for (unsigned seed = 1; seed <= 4; ++seed) {
    threads.emplace_back([&, seed] {
      for (size_t i = 0; i < 60; ++i) {
        const std::uint64_t offset =
            seed % 2 == 0 ? i * 130'000 : (i * seed * 7'919'999) % content.size();
        EXPECT_TRUE(Read(*reader, offset, 70'000) == content.substr(offset, 70'000));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

// Accepts tasks and does none until it is told to.
class StuckQueue : public IAsyncQ {
 public:
  AERROR Push(ASYNCQ_TASK task, void* context, ASYNCQ_LANE /*lane*/) override {
    tasks.emplace_back(task, context);
    return SUCCESS;
  }
  void Release() override {
    for (const auto& [task, context] : tasks) {
      task(context, 1);
    }
  }
  std::vector<std::pair<ASYNCQ_TASK, void*>> tasks;
};

TEST_F(ReaderTest, AProgramDoesNotWaitForAQueueThatIsBusyWithOtherThings) {
  StuckQueue queue;
  FS_BindAsyncQ(&queue);
  const auto reader = Open();
  std::string read;
  for (int i = 0; i < 40; ++i) {
    read += Read(*reader, read.size(), 100'000);
  }
  FS_UnbindAsyncQ();
  EXPECT_TRUE(read == content.substr(0, 4'000'000));
  EXPECT_FALSE(queue.tasks.empty());
  queue.Release();
}

}  // namespace
}  // namespace tarn::fs
