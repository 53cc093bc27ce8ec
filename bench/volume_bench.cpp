// The file-system library over a remote in memory that takes a round trip for every request.
// "ratio" is the time taken by the best that the latency allows: the fewest round trips that must
// follow one another, with as many requests at a time as the library makes, and the time of the
// same calls straight to a remote without latency. Mounted/* compare a mount with a plain folder.

#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <unistd.h>

#include "interfaces/asyncq.h"
#include "interfaces/cache.h"
#include "platform/filesystem/journal.h"
#include "tests/unit/filesystem/direct_calls.h"

namespace {

using tarn::test::Calls;
using Work = std::function<bool()>;  // false: it failed

constexpr int kWorkers = 16;  // as a drive process has
constexpr int kAhead = 14;    // of them may be busy with what nobody waits for
constexpr int kUploads = 8;   // at a time
constexpr size_t kLargeBytes = size_t{128} << 20;
constexpr size_t kAheadBytes = size_t{28} << 20;
constexpr size_t kReadBytes = size_t{128} << 10;  // of one request of the kernel
constexpr int kFolders = 40;
constexpr int kFilesInFolder = 50;
constexpr int kSmallFiles = 200;
constexpr long long kCacheBytes = 1LL << 30;

constexpr int Rounds(size_t requests, size_t at_a_time) {
  return static_cast<int>((requests + at_a_time - 1) / at_a_time);
}

double SecondsOf(benchmark::State& state, const Work& work) {
  const auto start = std::chrono::steady_clock::now();
  if (!work()) {
    state.SkipWithError("a call failed");
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The queue and the cache of a drive process, lent to the library, with nothing in them.
class Libraries {
 public:
  Libraries() {
    void* started = nullptr;
    if (!InitAsyncQ(kWorkers, &queue) ||
        InitCache(folder.path().c_str(), kCacheBytes, &started) != SUCCESS) {
      std::abort();
    }
    FS_BindAsyncQ(queue);
    FS_BindCache(started);
  }
  ~Libraries() {
    FS_UnbindCache();
    FS_UnbindAsyncQ();
    queue->Release();
    (void)ReleaseCache(folder.path().c_str());
  }
  Libraries(const Libraries&) = delete;
  Libraries& operator=(const Libraries&) = delete;

 private:
  tarn::test::TempFolder folder;
  IAsyncQ* queue = nullptr;
};

// A drive that nobody has used yet.
struct Drive {
  explicit Drive(tarn::test::MemoryProtocol& protocol) {
    files->UseJournal(tarn::fs::Journal::Open(journal.path(), "drive"));
    files->AddProtocol(tarn::test::Share(protocol));
  }
  ~Drive() {
    files->CloseAll();
    while (!files->GetRemote().Close()) {
    }
  }
  Drive(const Drive&) = delete;
  Drive& operator=(const Drive&) = delete;

  tarn::test::TempFolder journal;
  Libraries libraries;
  std::shared_ptr<tarn::fs::FileSystem> files = std::make_shared<tarn::fs::FileSystem>();
  tarn::test::DirectCalls calls{*files};
};

// `prepare` is not measured, and comes before the latency. `direct` does without the library.
void Compare(benchmark::State& state, tarn::test::MemoryProtocol& protocol, int round_trips,
             const std::function<bool(Drive&)>& prepare,
             const std::function<bool(Drive&)>& measured, const Work& direct) {
  const int latency_ms = static_cast<int>(state.range(0));
  double seconds = 0;
  double best = 0;
  for ([[maybe_unused]] auto _ : state) {
    best += SecondsOf(state, direct) + round_trips * latency_ms / 1000.0;
    Drive drive(protocol);
    if (!prepare(drive)) {
      state.SkipWithError("a call failed");
    }
    protocol.latency_ms = latency_ms;
    const double taken = SecondsOf(state, [&] { return measured(drive); });
    protocol.latency_ms = 0;
    state.SetIterationTime(taken);
    seconds += taken;
  }
  state.counters["ratio"] = seconds / best;
}

bool ReadOn(Calls& calls, const std::string& path, size_t part_bytes, size_t size) {
  int file = -1;
  std::string part;
  size_t received = 0;
  if (calls.Open(path, O_RDONLY, file) != 0) {
    return false;
  }
  while (calls.Read(file, received, part_bytes, part) == 0 && !part.empty()) {
    received += part.size();
  }
  return calls.Close(file) == 0 && received == size;
}

void ReadingOn(benchmark::State& state) {
  tarn::test::MemoryProtocol protocol;
  protocol.Write("/file", std::string(kLargeBytes, 'x'));
  std::string buffer(kReadBytes, '\0');
  std::vector<std::string> names;
  Compare(
      state, protocol, 1 + Rounds(kLargeBytes, kAheadBytes),
      [&](Drive& drive) { return drive.calls.List("/", names) == 0; },
      [&](Drive& drive) { return ReadOn(drive.calls, "/file", kReadBytes, kLargeBytes); },
      [&] {
        unsigned long long received = 0;
        for (size_t at = 0; at < kLargeBytes; at += received) {
          if (protocol.Read("/file", at, buffer.data(), buffer.size(), &received) != SUCCESS) {
            return false;
          }
        }
        return true;
      });
}

std::string FolderName(int i) {
  return "/tree/" + std::to_string(i);
}

int CountEntry(void* /*context*/, const char* /*name*/, const FS_INFO* /*info*/) {
  return 1;
}

void WalkingATree(benchmark::State& state) {
  tarn::test::MemoryProtocol protocol;
  for (int i = 0; i < kFolders * kFilesInFolder; ++i) {
    protocol.Write(FolderName(i % kFolders) + "/" + std::to_string(i), "x");
  }
  const auto walk = [](Drive& drive) {
    std::vector<std::string> folders;
    std::vector<std::string> names;
    std::uint64_t size = 0;
    bool works = drive.calls.List("/tree", folders) == 0;
    for (const std::string& folder : folders) {
      works = works && drive.calls.List("/tree/" + folder, names) == 0;
      for (const std::string& name : names) {
        works = works && drive.calls.GetSize("/tree/" + folder + "/" + name, size) == 0;
      }
    }
    return works;
  };
  Compare(
      state, protocol, 2 + Rounds(kFolders, kAhead), [](Drive&) { return true; }, walk,
      [&] {
        bool works = protocol.List("/tree", &CountEntry, nullptr) == SUCCESS;
        for (int i = 0; i < kFolders; ++i) {
          works = works && protocol.List(FolderName(i).c_str(), &CountEntry, nullptr) == SUCCESS;
        }
        return works;
      });
}

std::string SmallName(int i) {
  return "/" + std::to_string(1000 + i);
}

const std::string& SmallContent() {
  static const std::string content(4096, 'x');
  return content;
}

void ReadingSmallFiles(benchmark::State& state) {
  tarn::test::MemoryProtocol protocol;
  for (int i = 0; i < kSmallFiles; ++i) {
    protocol.Write(SmallName(i), SmallContent());
  }
  std::vector<std::string> names;
  const auto all = [](const std::function<bool(const std::string&)>& read) {
    bool works = true;
    for (int i = 0; i < kSmallFiles; ++i) {
      works = works && read(SmallName(i));
    }
    return works;
  };
  Compare(
      state, protocol, 2 + Rounds(kSmallFiles - 2, kAhead),
      [&](Drive& drive) { return drive.calls.List("/", names) == 0; },
      [&](Drive& drive) {
        return all([&](const std::string& path) {
          return ReadOn(drive.calls, path, kReadBytes, SmallContent().size());
        });
      },
      [&] {
        return all([&](const std::string& path) { return !protocol.Content(path).empty(); });
      });
}

// Until the remote has them all.
void WritingSmallFiles(benchmark::State& state) {
  tarn::test::MemoryProtocol protocol;
  int round = 0;
  std::string folder;
  Compare(
      state, protocol, Rounds(kSmallFiles, kUploads),
      [&](Drive& drive) {
        folder = "/" + std::to_string(round++);
        return drive.calls.MakeFolder(folder) == 0;
      },
      [&](Drive& drive) {
        bool works = true;
        for (int i = 0; i < kSmallFiles; ++i) {
          works = works && drive.calls.WriteFile(folder + SmallName(i), SmallContent()) == 0;
        }
        return works && drive.files->SendAll(std::chrono::seconds(30)) == 0;
      },
      [&] {
        for (int i = 0; i < kSmallFiles; ++i) {
          protocol.Write("/direct" + SmallName(i), SmallContent());
        }
        protocol.Remove("/direct");
        return true;
      });
}

// What the kernel costs: the same calls on a mount, on a plain folder.
void CompareMounted(benchmark::State& state, const std::function<bool(Calls&)>& work) {
  if (::access("/dev/fuse", R_OK | W_OK) != 0) {
    state.SkipWithError("no /dev/fuse that this user may open");
    return;
  }
  tarn::test::MemoryProtocol protocol;
  tarn::test::TempFolder folder;
  tarn::test::FolderCalls plain(folder.path());
  const std::string content(kLargeBytes, 'x');
  protocol.Write("/file", content);
  if (plain.WriteFile("/file", content) != 0) {
    state.SkipWithError("the plain folder takes no file");
  }
  double seconds = 0;
  double plain_seconds = 0;
  for ([[maybe_unused]] auto _ : state) {
    plain_seconds += SecondsOf(state, [&] { return work(plain); });
    const Libraries libraries;
    tarn::test::MountedDrive mounted;
    if (mounted.result != SUCCESS) {
      state.SkipWithError("it cannot be mounted");
      return;
    }
    (void)mounted.drive->AddProtocol(tarn::test::Share(protocol));
    tarn::test::FolderCalls calls(mounted.path);
    const double taken = SecondsOf(state, [&] { return work(calls); });
    state.SetIterationTime(taken);
    seconds += taken;
  }
  state.counters["ratio"] = seconds / plain_seconds;
}

void MountedReading(benchmark::State& state) {
  CompareMounted(state,
                 [](Calls& calls) { return ReadOn(calls, "/file", size_t{1} << 20, kLargeBytes); });
}

void MountedAttributes(benchmark::State& state) {
  CompareMounted(state, [](Calls& calls) {
    constexpr int kTimes = 5000;
    std::uint64_t size = 0;
    bool works = true;
    for (int i = 0; i < kTimes; ++i) {
      works = works && calls.GetSize("/file", size) == 0;
    }
    return works;
  });
}

constexpr int kRuns = 5;

void AtLatencies(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgName("ms")->Arg(0)->Arg(20)->Arg(50)->Iterations(kRuns)->UseManualTime()->Unit(
      benchmark::kMillisecond);
}

void WithoutLatency(benchmark::internal::Benchmark* benchmark) {
  benchmark->Iterations(kRuns)->UseManualTime()->Unit(benchmark::kMillisecond);
}

BENCHMARK(ReadingOn)->Apply(AtLatencies);
BENCHMARK(WalkingATree)->Apply(AtLatencies);
BENCHMARK(ReadingSmallFiles)->Apply(AtLatencies);
BENCHMARK(WritingSmallFiles)->Apply(AtLatencies);
BENCHMARK(MountedReading)->Name("Mounted/Reading")->Apply(WithoutLatency);
BENCHMARK(MountedAttributes)->Name("Mounted/Attributes")->Apply(WithoutLatency);

}  // namespace
