#include "tarnsvc/DriveProcess.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "common/log.h"
#include "common/posix.h"
#include "tarnsvc/main.h"

extern char** environ;

namespace tarn {

namespace {

constexpr size_t kProgramPathBytes = 256;
constexpr size_t kUnmountCommandBytes = 1024;
constexpr auto kEndLimit = std::chrono::seconds(2);
constexpr auto kEndPoll = std::chrono::milliseconds(50);

void LogFailedStart(const char* path, int error) {
  __LOG__A(logger, LOGLEVEL_ERROR, "%s:: failed to exec %s. errno %d [%s:%d]", "operator()", path,
           error, TARN_SOURCE);
}

// The program path; empty where it does not fit.
std::string ProgramPath() {
  std::array<char, kProgramPathBytes> folder = {};
  const std::string path = ::getcwd(folder.data(), folder.size()) != nullptr
                               ? folder.data() + std::string("/tarnsvc")
                               : "";
  if (!path.empty() && path.size() < kProgramPathBytes) {
    return path;
  }
  LogFailedStart(path.c_str(), path.empty() ? errno : ENAMETOOLONG);
  return "";
}

// This process's environment with the service's process id added; valid while `added` is.
std::vector<char*> DriveEnvironment(std::string& added) {
  added = std::string(kServicePidVariable) + "=" + std::to_string(::getpid());
  const std::string prefix = std::string(kServicePidVariable) + "=";
  std::vector<char*> variables;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    if (std::string_view(*variable).substr(0, prefix.size()) != prefix) {
      variables.push_back(*variable);
    }
  }
  variables.push_back(added.data());
  variables.push_back(nullptr);
  return variables;
}

// Runs in the forked process, so nothing here may lock or allocate but the one message, after which
// nothing follows.
[[noreturn]] void Execute(const char* path, const char* id, const char* label, char** variables) {
#if defined(CLOSE_RANGE_CLOEXEC)
  // Also what the service itself inherited, or a library opened.
  (void)::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
#endif
  (void)::setpgid(0, 0);  // a Ctrl-C for the service must not end drives before they are unmounted
  ::execle(path, path, "-c", id, label, static_cast<char*>(nullptr), variables);
  LogFailedStart(path, errno);
  ::_exit(1);
}

// Runs a program found in PATH with /dev/null as its standard streams; true when it exited with 0.
bool RunProgram(std::vector<const char*> arguments) {
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  if (::posix_spawn_file_actions_init(&actions) != 0) {
    return false;
  }
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    (void)::posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_RDWR, 0);
  }
  pid_t pid = -1;
  const int failure = ::posix_spawnp(&pid, arguments[0], &actions, nullptr,
                                     const_cast<char* const*>(arguments.data()), environ);
  (void)::posix_spawn_file_actions_destroy(&actions);
  if (failure != 0) {
    return false;
  }
  int status = 0;
  return RetryOnInterrupt([&] { return ::waitpid(pid, &status, 0); }) == pid && WIFEXITED(status) &&
         WEXITSTATUS(status) == 0;
}

}  // namespace

pid_t DriveProcess::start(const std::string& id, const std::string& label) {
  const std::string path = ProgramPath();
  std::string added;
  std::vector<char*> variables = DriveEnvironment(added);
  pid_t child = -1;
  if (!path.empty()) {
    MutexLock held(lock);
    child = ::fork();
    if (child == 0) {
      Execute(path.c_str(), id.c_str(), label.c_str(), variables.data());
    }
    pid = child;
  }
  if (child < 1) {
    set_ended();
    return -1;
  }
  return child;
}

void DriveProcess::wait_for_end() {
  pid_t child = -1;
  {
    MutexLock held(lock);
    child = pid;
  }
  siginfo_t end = {};
  (void)RetryOnInterrupt(
      [&] { return ::waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOWAIT); });
  {
    // Reaped under the lock, so that no signal goes to a number that is free again.
    MutexLock held(lock);
    // Its exit status means nothing.
    (void)RetryOnInterrupt([&] { return ::waitpid(child, nullptr, 0); });
    pid = -1;
  }
  set_ended();
}

void DriveProcess::end() {
  for (const int signal_number : {SIGTERM, SIGKILL}) {
    if (ends_within(kEndLimit)) {
      return;
    }
    send_signal(signal_number);
  }
  (void)ends_within(kEndLimit);  // a process in uninterruptible sleep ends when its call does
}

void DriveProcess::set_ended() {
  MutexLock held(lock);
  ended = true;
  changed.notify_all();
}

// True when the process has ended or need not be waited for any more.
bool DriveProcess::ends_within(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  MutexLock held(lock);
  while (!ended && ProcessStarted) {
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline) {
      return false;
    }
    (void)changed.wait_until(
        lock, std::min<std::chrono::steady_clock::time_point>(deadline, now + kEndPoll));
  }
  return true;
}

void DriveProcess::send_signal(int signal_number) {
  MutexLock held(lock);
  if (pid > 0) {
    (void)::kill(pid, signal_number);  // not reaped yet, so the number is still its own
  }
}

void ForceUnmount(const std::string& drive) {
  // A relative path must look like one: "LABEL=x" and "-a" mean something else to umount.
  const std::string path = drive.starts_with('/') ? drive : "./" + drive;
  if (drive.empty() || ("umount -f " + path).size() >= kUnmountCommandBytes) {
    return;
  }
  if (!RunProgram({"umount", "-f", "--", path.c_str()})) {
    (void)RunProgram({"fusermount3", "-u", "-z", "--", path.c_str()});  // not mounted: all is well
  }
}

bool IsDeadVolume(const std::string& drive) {
  struct statvfs status = {};
  return ::statvfs(drive.c_str(), &status) != 0 && errno != ENOENT && errno != ENOTDIR &&
         errno != EACCES;
}

}  // namespace tarn
