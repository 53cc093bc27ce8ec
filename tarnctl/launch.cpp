#include "tarnctl/launch.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/posix.h"

namespace tarn {

namespace {

constexpr mode_t kHomeFolderMode = 0700;
constexpr int kMostInheritedFiles = 4096;

// Both ends close-on-exec.
bool OpenPipe(UniqueFd& reader, UniqueFd& writer) {
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) {
    return false;
  }
  reader.reset(ends[0]);
  writer.reset(ends[1]);
  (void)::fcntl(reader.get(), F_SETFD, FD_CLOEXEC);  // cannot fail for an open descriptor
  (void)::fcntl(writer.get(), F_SETFD, FD_CLOEXEC);
  return true;
}

// What the new process does until it is the service: only calls that are safe after fork. The
// reason of a failure goes back through the pipe.
[[noreturn]] void BecomeService(const char* folder, const char* program, int highest_file,
                                int report) {
  (void)::setsid();  // cannot fail in a new process
  sigset_t none;
  (void)::sigemptyset(&none);
  (void)::sigprocmask(SIG_SETMASK, &none, nullptr);
  const int null = ::open("/dev/null", O_RDWR);
  bool is_ready = null >= 0 && ::chdir(folder) == 0;
  for (int standard = 0; is_ready && standard <= 2; ++standard) {
    is_ready = ::dup2(null, standard) >= 0;
  }
  for (int file = 3; is_ready && file < highest_file; ++file) {
    if (file != report) {
      ::close(file);
    }
  }
  if (is_ready) {
    ::execl(program, program, static_cast<char*>(nullptr));
  }
  const int reason = errno;
  (void)!::write(report, &reason, sizeof reason);  // there is nobody else to tell
  ::_exit(127);
}

}  // namespace

bool CreateHomeFolders(const Installation& installation) {
  for (const std::string& folder :
       {installation.LibraryFolder(), installation.SupportFolder(), installation.LogsFolder()}) {
    if (::mkdir(folder.c_str(), kHomeFolderMode) != 0 && errno != EEXIST) {
      return false;
    }
  }
  return true;
}

pid_t StartService(const Installation& installation) {
  const std::string program = installation.program_folder + "/tarnsvc";
  const char* const folder = installation.program_folder.c_str();
  const int highest_file =
      static_cast<int>(std::clamp<long>(::sysconf(_SC_OPEN_MAX), 3, kMostInheritedFiles));
  UniqueFd reader;
  UniqueFd writer;
  if (!OpenPipe(reader, writer)) {
    return -1;
  }
  const pid_t child = ::fork();
  if (child == 0) {
    BecomeService(folder, program.c_str(), highest_file, writer.get());
  }
  writer.reset();
  int reason = 0;
  const bool is_failed = child > 0 && ::read(reader.get(), &reason, sizeof reason) > 0;
  if (is_failed) {
    (void)::waitpid(child, nullptr, 0);  // it has ended; nothing else is of interest
    errno = reason;
  }
  return is_failed ? -1 : child;
}

bool ConnectToService(const Installation& installation, Client& client, bool wants_own_events,
                      Deadline deadline) {
  const int port = ReadPort(installation);
  return port > 0 && client.Connect(port, deadline) &&
         client.Introduce(installation.service_name, wants_own_events, deadline);
}

}  // namespace tarn
