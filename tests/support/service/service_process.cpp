#include "tests/support/service/service_process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/posix.h"
#include "tarnctl/launch.h"
#include "tests/support/service/run_program.h"
#include "tests/support/service/wait.h"

namespace tarn::test {

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kTimeToStart{60};  // a sanitizer's build on a busy machine
constexpr std::chrono::seconds kTimeToEnd{30};

std::string FileContent(const fs::path& path) {
  std::string content;  // a process may end while it is looked at: nothing then
  return ReadFile(path, size_t{1} << 24, content) ? content : "";
}

// The parent of a process; 0 when there is no such process.
pid_t ParentOf(pid_t process) {
  const std::string status = FileContent("/proc/" + std::to_string(process) + "/stat");
  const size_t name_end = status.rfind(')');  // a name may hold anything
  if (name_end == std::string::npos || status.size() < name_end + 4 ||
      status[name_end + 2] == 'Z') {
    return 0;
  }
  return std::atoi(status.c_str() + name_end + 4);
}

}  // namespace

bool IsAlive(pid_t process) {
  return ParentOf(process) != 0;
}

std::vector<pid_t> ChildrenOf(pid_t parent) {
  std::vector<pid_t> children;
  for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
    const pid_t process = std::atoi(entry.path().filename().c_str());
    if (process > 0 && ParentOf(process) == parent) {
      children.push_back(process);
    }
  }
  return children;
}

ServiceProcess::ServiceProcess(const TempHome& service_home)
    : home(service_home), root(service_home.Path() / "installation") {
  const fs::path build = TARN_BUILD_FOLDER;
  fs::create_directories(root / "bin");
  for (const char* name : {"tarnsvc", "tarnctl", "tarnapi.ini"}) {
    fs::copy(build / "bin" / name, root / "bin" / name);
  }
  fs::copy(build / "Frameworks", ModuleFolder());
  installation = InstallationIn(root / "bin", home.Path());
}

ServiceProcess::~ServiceProcess() {
  Stop();
  CheckOutput();
}

fs::path ServiceProcess::Program(const std::string& name) const {
  return root / "bin" / name;
}

fs::path ServiceProcess::ModuleFolder() const {
  return root / "Frameworks";
}

bool ServiceProcess::Start(const std::string& mode) {
  fs::remove(installation.PortRecord());
  const UniqueFd output = OpenFile(root / "output", O_WRONLY | O_CREAT | O_APPEND, 0600);
  pid = Spawn({Program("tarnsvc"), mode}, home.Path(), root / "bin", output.get());
  const bool answers =
      WaitUntil([&] { return Answers() || ParentOf(pid) == 0; }, kTimeToStart) && Answers();
  EXPECT_TRUE(answers) << "the service does not answer\n" << Output();
  return answers;
}

bool ServiceProcess::Answers() const {
  Client client;
  return ConnectToService(installation, client, false, After(kTimeToStart));
}

void ServiceProcess::Signal(int signal) const {
  ASSERT_TRUE(IsRunning());
  ASSERT_EQ(::kill(pid, signal), 0);
}

std::optional<int> ServiceProcess::WaitForEnd(std::chrono::milliseconds patience) {
  int status = 0;
  if (!IsRunning() ||
      !WaitUntil([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, patience)) {
    return std::nullopt;
  }
  pid = -1;
  return status;
}

void ServiceProcess::Stop() {
  if (!IsRunning()) {
    return;
  }
  const std::vector<pid_t> drives = DriveProcesses();
  (void)::kill(pid, SIGTERM);  // it may have ended by itself
  if (!WaitForEnd(kTimeToEnd)) {
    ADD_FAILURE() << "the service does not end";
    (void)::kill(pid, SIGKILL);
    (void)WaitForEnd(kTimeToEnd);
  }
  EndDriveProcesses(drives);
}

// Drive processes end by themselves when the service has gone.
void ServiceProcess::EndDriveProcesses(const std::vector<pid_t>& drives) const {
  for (const pid_t drive : drives) {
    if (!WaitUntil([&] { return !IsAlive(drive); }, kTimeToEnd)) {
      ADD_FAILURE() << "drive process " << drive << " does not end";
      (void)::kill(drive, SIGKILL);
    }
  }
}

std::vector<pid_t> ServiceProcess::DriveProcesses() const {
  return IsRunning() ? ChildrenOf(pid) : std::vector<pid_t>();
}

std::string ServiceProcess::Output() const {
  return FileContent(root / "output");
}

void ServiceProcess::CheckOutput() const {
  const std::string output = Output();
  bool is_suspicious = false;
  for (const char* report : {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:",
                             "WARNING: ThreadSanitizer", "FATAL: ThreadSanitizer"}) {
    is_suspicious = is_suspicious || output.find(report) != std::string::npos;
  }
  EXPECT_FALSE(is_suspicious) << output;
  if (testing::Test::HasFailure() && !is_suspicious) {
    GTEST_LOG_(INFO) << "the service printed:\n"
                     << output << "and logged:\n"
                     << FileContent(home.LogFile());
  }
}

}  // namespace tarn::test
