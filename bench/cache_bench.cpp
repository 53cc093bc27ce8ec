// The cache beside plain pread and pwrite of the same blocks in one file. Each round does both, so
// that a busy machine slows both. "ratio" is the time of the cache by the time of the plain calls,
// "GB_per_s" what the cache moves with all threads together.

#include <array>
#include <atomic>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "common/posix.h"
#include "interfaces/cache.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kBlocksARound = 64;  // of each thread
constexpr size_t kLargestBytes = 1024UL * 1024;
constexpr long long kHeldBytes = 128LL * 1024 * 1024;  // small enough for the page cache

// A cache and a plain file, both full of the same blocks of the same size.
struct Setup {
  explicit Setup(size_t block_size) : block_bytes(block_size), content(block_size, 'x') {
    std::array<char, 32> name{"/tmp/tarn_benchXXXXXX"};
    folder = ::mkdtemp(name.data());
    plain = tarn::OpenFile(folder + "/.plain", O_RDWR | O_CREAT, 0600);
    void* object = nullptr;
    if (!plain.valid() || InitCache(folder.c_str(), kHeldBytes, &object) != 0) {
      std::abort();
    }
    cache = static_cast<ICache*>(object);
    for (size_t block = 0; block < blocks(); ++block) {
      WriteCached(block);
      WritePlain(block);
    }
  }
  ~Setup() {
    (void)ReleaseCache(folder.c_str());
    std::filesystem::remove_all(folder);
  }
  Setup(const Setup&) = delete;
  Setup& operator=(const Setup&) = delete;

  [[nodiscard]] size_t blocks() const { return kHeldBytes / block_bytes; }

  bool ReadCached(size_t block, char* buffer) const {
    unsigned int length = 0;
    return cache->ReadBlock("/file", "version", block, buffer,
                            static_cast<unsigned int>(block_bytes), &length) == SUCCESS;
  }
  bool ReadPlain(size_t block, char* buffer) const {
    return ::pread(plain.get(), buffer, block_bytes, Offset(block)) ==
           static_cast<ssize_t>(block_bytes);
  }
  bool WriteCached(size_t block) const {
    return cache->WriteBlock("/file", "version", block, content.data(),
                             static_cast<unsigned int>(block_bytes)) == SUCCESS;
  }
  bool WritePlain(size_t block) const {
    return ::pwrite(plain.get(), content.data(), block_bytes, Offset(block)) ==
           static_cast<ssize_t>(block_bytes);
  }
  [[nodiscard]] off_t Offset(size_t block) const {
    return static_cast<off_t>(block % blocks() * block_bytes);
  }

  size_t block_bytes;
  std::string content;
  std::string folder;
  tarn::UniqueFd plain;
  ICache* cache = nullptr;
};

// Seconds until `thread_count` threads have each called call(number, buffer) for kBlocksARound
// numbers, which are scattered and go on from round to round.
template <typename Call>
double SecondsOf(benchmark::State& state, int thread_count, size_t round, Call call) {
  std::atomic<bool> failed = false;
  std::vector<std::thread> threads;
  threads.reserve(static_cast<size_t>(thread_count));
  const auto start = Clock::now();
  for (int thread = 0; thread < thread_count; ++thread) {
    threads.emplace_back([&, thread] {
      std::vector<char> buffer(kLargestBytes);
      for (size_t i = 0; i < kBlocksARound; ++i) {
        const size_t number = (round * kBlocksARound + i) * 31 + static_cast<size_t>(thread) * 7919;
        if (!call(number, buffer.data())) {
          failed = true;
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  if (failed) {
    state.SkipWithError("a block could not be read or written");
  }
  return std::chrono::duration<double>(Clock::now() - start).count();
}

template <typename Plain, typename Cached>
void Compare(benchmark::State& state, const Setup& setup, Plain plain, Cached cached) {
  const int thread_count = static_cast<int>(state.range(1));
  double plain_seconds = 0;
  double cached_seconds = 0;
  size_t round = 0;
  for ([[maybe_unused]] auto _ : state) {
    plain_seconds += SecondsOf(state, thread_count, round, plain);
    const double seconds = SecondsOf(state, thread_count, round++, cached);
    state.SetIterationTime(seconds);
    cached_seconds += seconds;
  }
  const double bytes = static_cast<double>(state.iterations()) * thread_count *
                       static_cast<double>(kBlocksARound * setup.block_bytes);
  state.counters["ratio"] = cached_seconds / plain_seconds;
  state.counters["GB_per_s"] = bytes / cached_seconds / 1e9;
}

void Reading(benchmark::State& state) {
  const Setup setup(static_cast<size_t>(state.range(0)) * 1024);
  Compare(
      state, setup,
      [&](size_t n, char* buffer) { return setup.ReadPlain(n % setup.blocks(), buffer); },
      [&](size_t n, char* buffer) { return setup.ReadCached(n % setup.blocks(), buffer); });
}

// Each written block is new to the cache, which is full: another one has to go.
void Writing(benchmark::State& state) {
  const Setup setup(static_cast<size_t>(state.range(0)) * 1024);
  std::atomic<size_t> next = setup.blocks();
  Compare(
      state, setup, [&](size_t n, char* /*buffer*/) { return setup.WritePlain(n); },
      [&](size_t /*n*/, char* /*buffer*/) { return setup.WriteCached(next++); });
}

void Settings(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"KiB", "threads"})->ArgsProduct({{128, 1024}, {1, 16}})->UseManualTime();
}

BENCHMARK(Reading)->Apply(Settings);
BENCHMARK(Writing)->Apply(Settings);

}  // namespace
