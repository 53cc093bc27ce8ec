// A drive process that is killed at a random moment loses nothing that close or fsync confirmed.
#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <random>
#include <thread>

#include "common/posix.h"
#include "tests/e2e/mounting.h"
#include "tests/support/http/dav_server.h"

namespace tarn::test {
namespace {

using std::chrono::milliseconds;

using Files = std::map<std::string, std::string>;  // names to contents

constexpr const char* kNames[] = {"new", "0", "1", "2", "3", "4", "5"};
constexpr size_t kLargestBytes = 1 << 30;

// The files of a folder: those that are found by their names, and whatever else is listed there.
// What a server writes under hidden names is its own.
Files FilesIn(const fs::path& folder) {
  Files files;
  for (const std::string name : kNames) {
    std::string content;
    if (tarn::ReadFile(folder / name, kLargestBytes, content)) {
      files[name] = std::move(content);
    } else {
      EXPECT_FALSE(fs::exists(folder / name)) << folder / name << " cannot be read";
    }
  }
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    const std::string name = entry.path().filename();
    if (!name.starts_with('.')) {
      files.try_emplace(name, "(listed, but not there)");
    }
  }
  return files;
}

std::string Show(const Files& files) {
  std::string text;
  for (const auto& [name, content] : files) {
    text += "\n  " + name + ": " + std::to_string(content.size()) + " bytes, " +
            std::to_string(std::hash<std::string>()(content));
  }
  return text;
}

// Changes the files of a folder, one after another, and notes what was confirmed.
class Writer {
 public:
  Writer(unsigned seed, const std::string& folder_name)
      : random(seed), own(folder_name), other(folder_name + " renamed") {}

  void MakeFolder(const fs::path& base) const { fs::create_directory(base / own); }

  // Until `killed` is set and a call fails.
  void Run(const fs::path& base, const std::atomic<bool>& killed) {
    folder = base / own;
    while (ChangeSomething()) {
      confirmed = changed;
    }
    EXPECT_TRUE(killed) << last << ": " << std::strerror(errno);
  }

  // The files there are as was confirmed, with the change that was under way or without it; they
  // are then what the next look has to find.
  void ExpectAsConfirmed(const fs::path& base, const char* when) {
    const fs::path place = FolderIn(base);
    EXPECT_NE(fs::exists(base / own), fs::exists(base / other)) << when << ", " << last;
    if (place.filename() != own) {
      std::swap(own, other);
    }
    const Files there = FilesIn(place);
    EXPECT_TRUE(there == changed || there == confirmed)
        << when << ", " << place << Show(there) << "\nconfirmed" << Show(confirmed)
        << "\nwith the last change, " << last << Show(changed);
    changed = there;
    confirmed = there;
  }

  // What fsync confirmed last is at the remote.
  void ExpectSynced(const fs::path& remote) const {
    for (const auto& [name, content] : synced) {
      std::string stored;
      const fs::path file = FolderIn(remote) / name;
      EXPECT_TRUE(tarn::ReadFile(file, kLargestBytes, stored) && stored == content) << file;
    }
  }

 private:
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

  bool ChangeSomething() {
    const std::string name = SomeName();
    const auto found = confirmed.find(name);
    const bool exists = found != confirmed.end();
    const size_t size = exists ? found->second.size() : 0;
    switch (Below(11)) {
      case 0:
      case 1:
        return !exists || RenameOver(name, SomeName());
      case 2:
        return !exists || Remove(name);
      case 3:
        return Write(name, O_APPEND, size);
      case 4:
        return Write(name, 0, exists ? Below(size + 1) : 0);
      case 5:  // as editors do
        return Write("new", O_TRUNC, 0) && RenameOver("new", name);
      case 6:
        return RenameFolder();
      default:
        return Write(name, O_TRUNC, 0);
    }
  }

  bool RenameOver(const std::string& name, const std::string& new_name) {
    confirmed = changed;  // with the file that is renamed
    last = "rename " + name + " over " + new_name;
    if (name != new_name) {
      synced.erase(name);
      synced.erase(new_name);
      changed[new_name] = std::move(changed[name]);
      changed.erase(name);
    }
    return ::rename((folder / name).c_str(), (folder / new_name).c_str()) == 0;
  }

  bool RenameFolder() {
    confirmed = changed;
    last = "rename the folder to " + other;
    std::swap(own, other);
    const fs::path old_folder = std::exchange(folder, folder.parent_path() / own);
    return ::rename(old_folder.c_str(), folder.c_str()) == 0;
  }

  // Under its name, or the one that it had before the change that was under way.
  [[nodiscard]] fs::path FolderIn(const fs::path& base) const {
    return base / (fs::exists(base / own) ? own : other);
  }

  bool Remove(const std::string& name) {
    last = "remove " + name;
    synced.erase(name);
    changed.erase(name);
    return ::unlink((folder / name).c_str()) == 0;
  }

  // Writes there once or twice, with fsync or without.
  bool Write(const std::string& name, int flags, size_t offset) {
    last = "write " + name + " at " + std::to_string(offset);
    std::string& made = changed[name];  // empty, if it is new
    std::string content = (flags & O_TRUNC) != 0 ? "" : made;
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
      made = content;
      if (Below(8) == 0) {
        last += " fsync";
        if (::fsync(file.get()) != 0) {
          return false;
        }
        confirmed = changed;
        synced[name] = content;
      }
    }
    last += " close";
    return file.valid() && ::close(file.release()) == 0;
  }

  std::mt19937 random;
  std::string own;    // the name of its folder
  std::string other;  // the one that it takes next
  fs::path folder;    // where it writes
  Files confirmed;
  Files changed;  // with the call that was made last
  Files synced;   // what is at the remote
  std::string last;
};

class CrashTest : public MountingTest {
 protected:
  static constexpr int kWriters = 4;
  static constexpr const char* kJournals = "Library/Application Support/tarnsvc/_unsent_";

  static unsigned Setting(const char* name, unsigned otherwise) {
    const char* const set = std::getenv(name);
    return set == nullptr ? otherwise : static_cast<unsigned>(std::atoi(set));
  }

  void Run(const std::function<int()>& mount_remote, const fs::path& root,
           const std::function<std::vector<pid_t>()>& server) {
    mount = mount_remote;
    remote = root;
    random.seed(Setting("TARN_CRASH_SEED", std::random_device()()));
    ASSERT_EQ(mount(), 0);
    for (int i = 0; i < kWriters; ++i) {
      writers.emplace_back(random(), std::to_string(i)).MakeFolder(volume);
    }
    EXPECT_EQ(Unmount(volume), 0);
    // Those count in which something was unsent; for a short look 3.
    const unsigned rounds = Setting("TARN_CRASH_ROUNDS", 3);
    unsigned counted = 0;
    unsigned all = 0;
    for (; counted < rounds && all < 3 * rounds + 10 && !HasFailure(); ++all) {
      counted += Round(server()) ? 1 : 0;
    }
    EXPECT_GE(counted, rounds) << "of " << all;
    RecordProperty("rounds", static_cast<int>(all));
  }

  void RunAgainst(DavServer::Kind kind) {
    const DavServer server(kind);
    const auto processes = [&] {
      std::vector<pid_t> running = ChildrenOf(server.Pid());
      running.insert(running.begin(), server.Pid());
      return running;
    };
    Run([&] { return Mount(server.Url(), volume, "Web", "webdav"); }, server.Root(), processes);
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
      writer.ExpectAsConfirmed(base, when);
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
  RunAgainst(DavServer::Kind::kApache);
}

// It ignores the versions that uploads are to replace.
TEST_F(CrashTest, LosesNothingOfAServerWithoutConditions) {
  RunAgainst(DavServer::Kind::kNginx);
}

}  // namespace
}  // namespace tarn::test
