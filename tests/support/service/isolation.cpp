#include "tests/support/service/isolation.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <string_view>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/posix.h"
#include "tests/support/service/temp_home.h"
#include "tests/support/service/wait.h"

namespace tarn::test {

namespace {

constexpr int kFailedStatus = 1;
constexpr int kNotIsolatedStatus = 125;  // no test has run
constexpr const char* kLockFile = "/tmp/tarn_e2e_tests.lock";
constexpr std::chrono::seconds kTimeForStragglers{10};

// A new /tmp would hide a build that stands below it.
bool MayIsolate() {
  return ::geteuid() == 0 && !std::string_view(TARN_BUILD_FOLDER).starts_with("/tmp/");
}

int NotIsolated(const char* what) {
  (void)std::fprintf(stderr, "tests cannot be isolated: %s: %s\n", what, std::strerror(errno));
  return kNotIsolatedStatus;
}

bool RaiseLoopback() {
  const UniqueFd socket = OpenSocket(AF_INET, SOCK_DGRAM);
  ifreq request{};
  std::strncpy(request.ifr_name, "lo", sizeof request.ifr_name - 1);
  request.ifr_flags = IFF_UP | IFF_RUNNING | IFF_LOOPBACK;
  return ::ioctl(socket.get(), SIOCSIFFLAGS, &request) == 0;
}

bool PrepareWorld() {
  return ::mount("tmpfs", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777") == 0 &&
         ::mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0 &&
         RaiseLoopback();
}

// Reaps everything until `process` has ended; its exit status.
int ReapUntil(pid_t process) {
  for (;;) {
    int status = 0;
    const pid_t ended = ::waitpid(-1, &status, 0);
    if (ended == process) {
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
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
  return !WaitUntil(nobody_is_left, kTimeForStragglers);
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
  const size_t mounts_before = MountsBelow("/tmp").size();  // others may have mounted some
  const pid_t tests = ::fork();
  if (tests == 0) {
    std::exit(test_main(count, texts));
  }
  if (tests < 0) {
    return NotIsolated("fork");
  }
  const int status = ReapUntil(tests);
  const bool is_clean = !HasStragglers() && MountsBelow("/tmp").size() <= mounts_before;
  if (!is_clean) {
    (void)std::fprintf(stderr, "a process or a volume was left behind\n");
  }
  return status == 0 && !is_clean ? kFailedStatus : status;
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
  const pid_t child = MayIsolate() ? ::fork() : -1;
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
