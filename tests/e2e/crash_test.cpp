// A drive process that is killed at a random moment loses nothing that close or fsync confirmed.
#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <thread>

#include "common/unique_fd.h"
#include "tests/e2e/mounting.h"
#include "tests/support/http/dav_server.h"

namespace tarn::test {
namespace {

using std::chrono::milliseconds;

using Content = std::shared_ptr<const std::string>;  // null: no file
using Files = std::map<fs::path, Content>;           // by their names in the writer's folder

bool IsSame(const Content& left, const Content& right) {
  return left == right || (left && right && *left == *right);
}

Content ContentOf(const fs::path& path) {
  std::string content;
  if (!tarn::ReadFile(path, size_t{1} << 30, content)) {
    EXPECT_FALSE(fs::exists(path)) << path << " cannot be read";
    return nullptr;
  }
  return std::make_shared<const std::string>(std::move(content));
}

std::string Show(const Content& content) {
  return !content ? "no file"
                  : std::to_string(content->size()) + " bytes, " +
                        std::to_string(std::hash<std::string>()(*content));
}

// Changes the files of a folder, one after another, and notes what was confirmed.
class Writer {
 public:
  Writer(unsigned seed, std::string folder_name) : random(seed), own(std::move(folder_name)) {}

  void MakeFolder(const fs::path& base) const { fs::create_directory(base / own); }

  // Until `killed` is set and a call fails.
  void Run(const fs::path& base, const std::atomic<bool>& killed) {
    folder = base / own;
    while (ChangeSomething()) {
      Note();
    }
    EXPECT_TRUE(killed) << last << ": " << std::strerror(errno);
  }

  // True when the files there are as was confirmed, with the change that was under way or without
  // it; they are then what the next look has to find.
  bool IsAsConfirmed(const fs::path& base) {
    const fs::path place = base / own;
    Files with = confirmed;
    for (const auto& [name, content] : under_way) {
      with[name] = content;
    }
    Files there;
    for (const auto& [name, content] : with) {
      there[name] = ContentOf(place / name);
    }
    for (Files* expected : {&with, &confirmed}) {
      const auto is_expected = [&](const auto& file) {
        return IsSame(file.second, (*expected)[file.first]);
      };
      if (std::ranges::all_of(there, is_expected)) {
        confirmed = *expected;
        under_way.clear();
        return HasNothingElse(place);
      }
    }
    for (const auto& [name, content] : there) {
      if (under_way.count(name) != 0 || !IsSame(content, confirmed[name])) {
        ADD_FAILURE() << place / name << ": " << Show(content) << ", confirmed "
                      << Show(confirmed[name]) << ", with what was under way " << Show(with[name]);
      }
    }
    ADD_FAILURE() << "under way was: " << last;
    return HasNothingElse(place) && false;
  }

  // What fsync confirmed last is at the remote.
  void ExpectSynced(const fs::path& remote) const {
    for (const auto& [name, content] : synced) {
      EXPECT_TRUE(IsSame(ContentOf(remote / own / name), content)) << remote / own / name;
    }
  }

 private:
  // Confirmed is what was under way.
  void Note() {
    for (const auto& [name, content] : under_way) {
      confirmed[name] = content;
    }
    under_way.clear();
  }

  size_t Below(size_t limit) { return std::uniform_int_distribution<size_t>(0, limit - 1)(random); }
  std::string SomeName() { return std::to_string(Below(6)); }
  std::string SomeBytes() {
    static constexpr size_t kSizes[] = {0, 1, 4096, 5000, 70'000, 200'000, (1 << 20) + 7};
    std::string bytes(kSizes[Below(std::size(kSizes))], '\0');
    const auto first = random();
    for (size_t i = 0; i < bytes.size(); ++i) {
      bytes[i] = static_cast<char>((first + i * 7919) >> 3);
    }
    return bytes;
  }
  void Begin(const std::string& what, Files change) {
    last = what;
    for (const auto& [name, content] : change) {
      synced.erase(name);
    }
    under_way = std::move(change);
  }

  bool ChangeSomething() {
    const std::string name = SomeName();
    const bool exists = confirmed[name] != nullptr;
    switch (Below(10)) {
      case 0:
      case 1:
        return !exists || RenameOver(name, SomeName());
      case 2:
        return !exists || Remove(name);
      case 3:
        return Write(name, O_APPEND, exists ? confirmed[name]->size() : 0);
      case 4:
        return Write(name, 0, exists ? Below(confirmed[name]->size() + 1) : 0);
      case 5:  // as editors do
        return Write("new", O_TRUNC, 0) && (Note(), RenameOver("new", name));
      default:
        return Write(name, O_TRUNC, 0);
    }
  }

  bool RenameOver(const std::string& name, const std::string& new_name) {
    if (name != new_name) {
      Begin("rename " + name + " over " + new_name, {{name, nullptr}, {new_name, confirmed[name]}});
    }
    return ::rename((folder / name).c_str(), (folder / new_name).c_str()) == 0;
  }

  bool Remove(const std::string& name) {
    Begin("remove " + name, {{name, nullptr}});
    return ::unlink((folder / name).c_str()) == 0;
  }

  // Writes there once or twice, with fsync or without.
  bool Write(const std::string& name, int flags, size_t offset) {
    const bool truncates = (flags & O_TRUNC) != 0;
    std::string content = truncates || !confirmed[name] ? "" : *confirmed[name];
    Begin("write " + name + " at " + std::to_string(offset), {});
    if (!confirmed[name]) {
      under_way = {{name, std::make_shared<const std::string>()}};
    }
    const std::string path = folder / name;
    UniqueFd file(::open(path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC | flags, 0644));
    for (size_t left = 1 + Below(2); file.valid() && left > 0; --left) {
      const std::string bytes = SomeBytes();
      synced.erase(name);
      content.replace(offset, std::min(bytes.size(), content.size() - offset), bytes);
      if (::lseek(file.get(), static_cast<off_t>(offset), SEEK_SET) < 0 ||
          !WriteAll(file.get(), bytes.data(), bytes.size())) {
        return false;
      }
      offset += bytes.size();
      under_way = {{name, std::make_shared<const std::string>(content)}};
      if (Below(8) == 0) {
        last += " fsync";
        if (::fsync(file.get()) != 0) {
          return false;
        }
        Note();
        synced[name] = confirmed[name];
      }
    }
    last += " close";
    return file.valid() && ::close(file.release()) == 0;
  }

  // No copies beside the files. What a server writes under hidden names is its own.
  bool HasNothingElse(const fs::path& place) {
    for (const fs::directory_entry& entry : fs::directory_iterator(place)) {
      const fs::path name = entry.path().filename();
      if (!name.string().starts_with('.') && !confirmed[name]) {
        ADD_FAILURE() << entry.path() << " is not known; under way was: " << last;
        return false;
      }
    }
    return true;
  }

  std::mt19937 random;
  const std::string own;  // the name of its folder
  fs::path folder;        // where it writes
  Files confirmed;
  Files under_way;  // what changes with the call that was made last
  Files synced;     // what is at the remote
  std::string last;
};

class CrashTest : public MountingTest {
 protected:
  static constexpr int kWriters = 4;
  static constexpr const char* kJournals = "Library/Application Support/tarnsvc/_unsent_";

  // Rounds in which something was unsent; as many as TARN_CRASH_ROUNDS says, for a short look 3.
  static int Rounds() {
    const char* const rounds = std::getenv("TARN_CRASH_ROUNDS");
    return rounds == nullptr ? 3 : std::atoi(rounds);
  }

  void Run(const std::function<int()>& mount_remote, const fs::path& root,
           const std::function<std::vector<pid_t>()>& server) {
    mount = mount_remote;
    remote = root;
    const char* const seed = std::getenv("TARN_CRASH_SEED");
    random.seed(seed == nullptr ? std::random_device()() : static_cast<unsigned>(std::atoi(seed)));
    ASSERT_EQ(mount(), 0);
    for (int i = 0; i < kWriters; ++i) {
      writers.emplace_back(random(), std::to_string(i)).MakeFolder(volume);
    }
    EXPECT_EQ(Unmount(volume), 0);
    int counted = 0;
    int all = 0;
    for (; counted < Rounds() && all < 3 * Rounds() + 10 && !HasFailure(); ++all) {
      counted += Round(server()) ? 1 : 0;
    }
    EXPECT_GE(counted, Rounds()) << "of " << all;
    RecordProperty("rounds", all);
  }

 private:
  [[nodiscard]] bool HasUnsent() const {
    std::error_code ignored;  // a folder may go while it is looked at
    for (fs::recursive_directory_iterator entry(home.Path() / kJournals, ignored), end;
         !ignored && entry != end; entry.increment(ignored)) {
      if (entry->path().extension() == ".record") {
        return true;
      }
    }
    return false;
  }

  void ExpectAsConfirmed(const fs::path& base, const char* when) {
    for (Writer& writer : writers) {
      EXPECT_TRUE(writer.IsAsConfirmed(base)) << when;
    }
  }

  static void Signal(const std::vector<pid_t>& processes, int signal) {
    for (const pid_t process : processes) {
      (void)::kill(process, signal);  // one of many may have ended
    }
  }

  // True when something was unsent. The server's processes stand still now and then, and at the
  // end every other time.
  bool Round(const std::vector<pid_t>& server) {
    EXPECT_EQ(mount(), 0);
    // The process of the round before may still be on its way out.
    EXPECT_TRUE(WaitUntil([&] { return service.DriveProcesses().size() == 1; }));
    ExpectAsConfirmed(volume, "mounted");
    if (random() % 2 == 0) {
      EXPECT_EQ(client->AskForResult(DriveMessage("set_speedlimit", volume, R"(,"speed":8388608)")),
                0);
    }
    WriteUntilKilled(server);
    const bool counts = HasUnsent();
    for (const Writer& writer : writers) {
      writer.ExpectSynced(remote);
    }
    Signal(server, SIGCONT);
    ReadUntilTheDeathIsTold();
    EXPECT_TRUE(WaitUntil([&] { return !IsMounted(volume); }));
    EXPECT_EQ(mount(), 0);
    ExpectAsConfirmed(volume, "mounted again");
    EXPECT_TRUE(WaitUntil([&] { return !HasUnsent(); }));
    ExpectAsConfirmed(remote, "at the remote");
    EXPECT_EQ(Unmount(volume), 0);
    return counts;
  }

  // All that came before it is read, too: a client that does not read holds up its own drives.
  void ReadUntilTheDeathIsTold() {
    Json event;
    do {
      event = client->WaitForEvent("disconnected");
    } while (!HasFailure() && (!event.HasObject("/data/state") ||
                               std::string(event.GetObject("/data/state")) != "unexpected"));
  }

  void WriteUntilKilled(const std::vector<pid_t>& server) {
    std::atomic<bool> killed = false;
    std::vector<std::jthread> threads;
    for (Writer& writer : writers) {
      threads.emplace_back([&] { writer.Run(volume, killed); });
    }
    const auto end = std::chrono::steady_clock::now() + milliseconds(random() % 400);
    bool stands = false;
    while (std::chrono::steady_clock::now() < end) {
      stands = !stands;
      Signal(server, stands ? SIGSTOP : SIGCONT);
      std::this_thread::sleep_for(milliseconds(random() % 60));
    }
    Signal(server, random() % 2 == 0 ? SIGSTOP : SIGCONT);
    (void)WaitUntil([&] { return HasUnsent(); }, milliseconds(200));
    killed = true;
    EXPECT_EQ(::kill(service.DriveProcesses().at(0), SIGKILL), 0);
  }

  std::function<int()> mount;
  fs::path remote;
  std::mt19937 random;
  std::vector<Writer> writers;
};

TEST_F(CrashTest, LosesNothingOfALocalFolder) {
  Run([&] { return Mount(backing, volume, "L"); }, backing, [] { return std::vector<pid_t>(); });
}

TEST_F(CrashTest, LosesNothingOfAWebdavServer) {
  const DavServer server(DavServer::Kind::kApache);
  const auto processes = [&] {
    std::vector<pid_t> all = ChildrenOf(server.Pid());
    all.insert(all.begin(), server.Pid());
    return all;
  };
  Run([&] { return Mount(server.Url(), volume, "Web", "webdav"); }, server.Root(), processes);
}

}  // namespace
}  // namespace tarn::test
