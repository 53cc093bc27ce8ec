#include "platform/filesystem/reader.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <latch>
#include <thread>

#include "tests/unit/filesystem/lent_libraries.h"

namespace tarn::fs {
namespace {

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
    ++confirms;
    return content == at_open ? 0 : ESTALE;
  }

  std::string content;  // to be changed while nobody reads
  const std::string at_open;
  Line line;
  std::atomic<int> reads = 0;
  std::atomic<int> confirms = 0;
  std::atomic<size_t> bytes = 0;
  std::atomic<int> failure = 0;
  std::atomic<bool> one_version = false;
};

class ReaderTest : public testing::Test {
 protected:
  std::shared_ptr<Reader> Open(bool is_fresh = true) {
    return std::make_shared<Reader>(source, Reader::File{"key", "v1", content.size(), is_fresh});
  }
  static std::string Read(Reader& reader, std::uint64_t offset, size_t length, int error = 0) {
    std::string part(length, '?');
    size_t received = 0;
    EXPECT_EQ(reader.Read(offset, part.data(), length, received), error) << "at " << offset;
    part.resize(received);
    return part;
  }
  static std::string ReadOn(Reader& reader, size_t length) {
    std::string read;
    for (std::string part = "?"; read.size() < length && !part.empty(); read += part) {
      part = Read(reader, read.size(), 100'000);
    }
    return read;
  }

  const std::string content = Pattern(9'000'001, 7);
  std::shared_ptr<FakeSource> source = std::make_shared<FakeSource>(content);
};

TEST_F(ReaderTest, ReadingOnAndOnIsRightAndTakesFewRequestsAheadOfTheProgram) {
  const test::LentLibraries libraries;
  const auto reader = Open();
  EXPECT_TRUE(ReadOn(*reader, content.size()) == content);
  EXPECT_LE(source->reads, 12) << "pieces of one MiB";
  EXPECT_EQ(Read(*reader, content.size(), 10), "");
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
  EXPECT_LE(source->bytes, 39 * Reader::kBlockBytes + 1);
}

TEST_F(ReaderTest, AFailureOfTheNetworkPasses) {
  const auto reader = Open();
  source->failure = EIO;
  (void)Read(*reader, 3'000'000, 4096, EIO);
  source->failure = 0;
  EXPECT_TRUE(Read(*reader, 3'000'000, 4096) == content.substr(3'000'000, 4096));
}

TEST_F(ReaderTest, AChangedFileGivesAnErrorAndNeverAMixture) {
  const auto reader = Open();
  const std::string first = Read(*reader, 3'000'000, 4096);
  EXPECT_TRUE(first == content.substr(3'000'000, 4096));
  EXPECT_EQ(source->confirms, 0) << "alone it is no mixture";
  source->content = Pattern(content.size(), 8);
  (void)Read(*reader, 6'000'000, 4096, ESTALE);
  EXPECT_TRUE(Read(*reader, 3'000'000, 4096) == first) << "what is there stays readable";
  EXPECT_TRUE(reader->HasChanged());

  source->content = content.substr(0, 1'000'000);
  (void)Read(*Open(), 950'000, 4096, ESTALE);
  (void)Read(*Open(false), 8'990'000, 4096, ESTALE);
  source->content = content + "more";
  (void)Read(*Open(), content.size() - 100, 100, ESTALE);
}

TEST_F(ReaderTest, ASourceThatReadsOneVersionIsNotAskedAgain) {
  source->one_version = true;
  const auto reader = Open(false);
  for (const std::uint64_t offset : {3000000U, 6000000U}) {
    EXPECT_TRUE(Read(*reader, offset, 4096) == content.substr(offset, 4096));
  }
  EXPECT_EQ(source->confirms, 0);
  source->content = Pattern(content.size(), 8);
  (void)Read(*reader, 8'000'000, 4096, ESTALE);
  EXPECT_TRUE(Read(*reader, 6'000'000, 4096) == content.substr(6'000'000, 4096));
}

TEST_F(ReaderTest, ManyThreadsReadTheSameFile) {
  const test::LentLibraries libraries;
  const auto reader = Open();
  std::vector<std::jthread> threads;
  for (unsigned seed = 1; seed <= 4; ++seed) {
    threads.emplace_back([&, seed] {
      for (size_t i = 0; i < 60; ++i) {
        const std::uint64_t offset =
            seed % 2 == 0 ? i * 130'000 : (i * seed * 7'919'999) % content.size();
        EXPECT_TRUE(Read(*reader, offset, 70'000) == content.substr(offset, 70'000));
      }
    });
  }
}

TEST_F(ReaderTest, AProgramDoesNotWaitForAQueueThatIsBusyWithOtherThings) {
  std::latch free(1);
  const test::LentLibraries libraries;
  for (int i = 0; i < test::LentLibraries::kWorkers; ++i) {
    const auto wait = [](void* latch, int) { static_cast<std::latch*>(latch)->wait(); };
    ASSERT_EQ(libraries.queue->Push(wait, &free, ASYNCQ_URGENT), SUCCESS);
  }
  EXPECT_TRUE(ReadOn(*Open(), 4'000'000) == content.substr(0, 4'000'000));
  free.count_down();
}

}  // namespace
}  // namespace tarn::fs
