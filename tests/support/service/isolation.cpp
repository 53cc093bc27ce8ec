#include "tests/support/service/isolation.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <net/if.h>
#include <sched.h>
#include <string>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "common/posix.h"
#include "tests/support/service/temp_home.h"
#include "tests/support/service/wait.h"

namespace tarn::test {

namespace {

namespace fs = std::filesystem;

constexpr int kFailedStatus = 1;
constexpr int kNotIsolatedStatus = 125;  // no test has run
constexpr const char* kLockFile = "/tmp/tarn_e2e_tests.lock";
constexpr std::chrono::seconds kTimeForStragglers{10};

int NotIsolated(const char* what) {
  (void)std::fprintf(stderr, "tests cannot be isolated: %s: %s\n", what, std::strerror(errno));
  return kNotIsolatedStatus;
}

// What stands below /tmp and must stay visible when a new /tmp covers the old one.
struct Kept {
  fs::path path;
  UniqueFd folder;
};

std::vector<Kept> OpenKept() {
  std::vector<Kept> kept;
  for (const fs::path& path : {fs::path(TARN_SOURCE_FOLDER), fs::path(TARN_BUILD_FOLDER)}) {
    if (path.string().starts_with("/tmp/")) {
      kept.push_back({path, OpenFile(path, O_RDONLY | O_DIRECTORY)});
    }
  }
  return kept;
}

bool ShowAgain(const Kept& kept) {
  std::error_code failed;
  fs::create_directories(kept.path, failed);
  const std::string source = "/proc/self/fd/" + std::to_string(kept.folder.get());
  return !failed &&
         ::mount(source.c_str(), kept.path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
}

bool CoverTmp() {
  const std::vector<Kept> kept = OpenKept();
  std::error_code failed;
  const fs::path working_folder = fs::current_path(failed);
  if (::mount("tmpfs", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777") != 0) {
    return false;
  }
  for (const Kept& folder : kept) {
    if (!ShowAgain(folder)) {
      return false;
    }
  }
  if (!failed) {
    fs::current_path(working_folder, failed);  // it may have been below the old /tmp
  }
  return true;
}

bool RaiseLoopback() {
  const UniqueFd socket = OpenSocket(AF_INET, SOCK_DGRAM);
  ifreq request{};
  std::strncpy(request.ifr_name, "lo", sizeof request.ifr_name - 1);
  if (::ioctl(socket.get(), SIOCGIFFLAGS, &request) != 0) {
    return false;
  }
  request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP | IFF_RUNNING);
  return ::ioctl(socket.get(), SIOCSIFFLAGS, &request) == 0;
}

int StatusOf(int wait_status) {
  return WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : 128 + WTERMSIG(wait_status);
}

// Reaps everything until `process` has ended; its exit status.
int ReapUntil(pid_t process) {
  for (;;) {
    int status = 0;
    const pid_t ended = ::waitpid(-1, &status, 0);
    if (ended == process) {
      return StatusOf(status);
    }
    if (ended < 0 && errno != EINTR) {
      return kFailedStatus;
    }
  }
}

// What the tests started has become a child of ours, and should be ending.
bool HasStragglers() {
  const auto nobody_is_left = [] {
    pid_t ended = 1;
    while (ended > 0) {
      ended = ::waitpid(-1, nullptr, WNOHANG);
    }
    return ended < 0 && errno == ECHILD;
  };
  if (WaitUntil(nobody_is_left, kTimeForStragglers)) {
    return false;
  }
  (void)std::fprintf(stderr, "a process was left behind\n");
  return true;
}

// More volumes than there were before the tests, which others may have mounted.
bool HasVolumes(size_t expected) {
  const std::vector<fs::path> mounts = MountsBelow("/tmp");
  if (mounts.size() <= expected) {
    return false;
  }
  (void)std::fprintf(stderr, "a volume was left behind: %s\n", mounts.front().c_str());
  return true;
}

bool PrepareWorld() {
  return CoverTmp() &&
         ::mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0 &&
         RaiseLoopback();
}

void EndWithParent() {
  (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);  // cannot fail
}

// The first process of the new world; everything in it ends with this one.
int RunWorld(int (*test_main)(int, char**), int count, char** texts) {
  EndWithParent();
  if (!PrepareWorld()) {
    return NotIsolated("/tmp, /proc or loopback");
  }
  const size_t mounts_before = MountsBelow("/tmp").size();
  const pid_t tests = ::fork();
  if (tests == 0) {
    std::exit(test_main(count, texts));
  }
  if (tests < 0) {
    return NotIsolated("fork");
  }
  const int status = ReapUntil(tests);
  const bool has_stragglers = HasStragglers();
  const bool has_volumes = HasVolumes(mounts_before);
  return status == 0 && (has_stragglers || has_volumes) ? kFailedStatus : status;
}

// Makes the world and waits for it.
int EnterWorld(int (*test_main)(int, char**), int count, char** texts) {
  EndWithParent();
  if (::unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID) != 0 ||
      ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return NotIsolated("namespaces");
  }
  const pid_t world = ::fork();
  if (world == 0) {
    const int status = RunWorld(test_main, count, texts);
    (void)std::fflush(nullptr);
    ::_exit(status);
  }
  return world > 0 ? ReapUntil(world) : NotIsolated("fork");
}

int RunInPlace(int (*test_main)(int, char**), int count, char** texts) {
  UniqueFd lock = OpenFile(kLockFile, O_RDONLY);  // may be another user's
  if (!lock.valid()) {
    lock = OpenFile(kLockFile, O_RDONLY | O_CREAT, 0644);
  }
  while (::flock(lock.get(), LOCK_EX) != 0 && errno == EINTR) {
  }
  return test_main(count, texts);
}

}  // namespace

// Three processes: this one stays as it is, so that it can still run the tests in place; its child
// leaves for the new world, of which the third is the first inhabitant. The first two end without
// clean-up, and so without a second leak check.
void RunIsolated(int (*test_main)(int, char**), int count, char** texts) {
  const pid_t child = ::geteuid() == 0 ? ::fork() : -1;
  if (child == 0) {
    ::_exit(EnterWorld(test_main, count, texts));
  }
  const int status = child > 0 ? ReapUntil(child) : kNotIsolatedStatus;
  if (status != kNotIsolatedStatus) {
    ::_exit(status);
  }
  std::exit(RunInPlace(test_main, count, texts));
}

}  // namespace tarn::test
