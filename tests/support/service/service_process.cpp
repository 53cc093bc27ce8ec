#include "tests/support/service/service_process.h"

#include <csignal>
#include <cstdio>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <mntent.h>

#include "tarnctl/launch.h"

namespace tarn::test {

namespace {

constexpr std::chrono::seconds kTimeToStart{60};  // a sanitizer's build on a busy machine
constexpr char kReport[] =
    "ERROR: (Address|Leak)Sanitizer|runtime error:|(WARNING|FATAL): ThreadSanitizer";

}  // namespace

std::vector<fs::path> MountsBelow(const fs::path& folder) {
  std::vector<fs::path> mounts;
  const std::unique_ptr<FILE, decltype(&::endmntent)> table(::setmntent("/proc/self/mounts", "re"),
                                                            &::endmntent);
  while (const mntent* entry = table ? ::getmntent(table.get()) : nullptr) {
    const std::string mount_point = entry->mnt_dir;
    if (mount_point == folder || mount_point.starts_with(folder.string() + "/")) {
      mounts.insert(mounts.begin(), mount_point);
    }
  }
  return mounts;
}

void Detach(const fs::path& mount_point) {
  // Whether it is gone is seen in the table.
  (void)Program({"fusermount3", "-u", "-z", mount_point}, "/", "/", "/dev/null").WaitForEnd();
}

TempHome::TempHome() {
  (void)MakeFolder("Library/Application Support");
  (void)MakeFolder("Library/Logs");
}

TempHome::~TempHome() {
  for (const fs::path& mount_point : MountsBelow(Path())) {
    ADD_FAILURE() << "still mounted: " << mount_point;
    Detach(mount_point);
  }
}

fs::path TempHome::MakeFolder(const std::string& folder_name) const {
  fs::create_directories(Path() / folder_name);
  return Path() / folder_name;
}

ServiceProcess::ServiceProcess(const TempHome& service_home)
    : home(service_home), root(service_home.Path() / "installation") {
  const fs::path build = TARN_BUILD_FOLDER;
  fs::create_directories(root / "bin");
  for (const char* name : {"tarnsvc", "tarnctl", "tarnapi.ini"}) {
    fs::copy(build / "bin" / name, InBin(name));
  }
  fs::copy(build / "Frameworks", ModuleFolder());
  installation = InstallationIn(root / "bin", home.Path());
}

ServiceProcess::~ServiceProcess() {
  if (program && program->IsRunning()) {
    Stop();
  }
  const std::string output = Output();
  const bool is_suspicious = testing::Matches(testing::ContainsRegex(kReport))(output);
  EXPECT_FALSE(is_suspicious) << output;
  if (testing::Test::HasFailure() && !is_suspicious) {
    GTEST_LOG_(INFO) << "the service printed:\n"
                     << output << "and logged:\n"
                     << FileContent(home.LogFile());
  }
}

bool ServiceProcess::Start(const std::string& mode) {
  fs::remove(installation.PortRecord());
  program.emplace(std::vector<std::string>{InBin("tarnsvc"), mode}, home.Path(), root / "bin",
                  root / "output");
  const auto answers = [this] {
    Client client;
    return ConnectToService(installation, client, false, After(kTimeToStart));
  };
  const bool has_started =
      WaitUntil([&] { return answers() || !IsAlive(Pid()); }, kTimeToStart) && answers();
  EXPECT_TRUE(has_started) << "the service does not answer\n" << Output();
  return has_started;
}

void ServiceProcess::Signal(int signal) const {
  ASSERT_TRUE(program->IsRunning());
  ASSERT_EQ(::kill(Pid(), signal), 0);
}

// Drive processes end by themselves when the service has gone.
void ServiceProcess::Stop() {
  const std::vector<pid_t> drives = DriveProcesses();
  Signal(SIGTERM);
  EXPECT_TRUE(WaitForEnd()) << "the service does not end";
  for (const pid_t drive : drives) {
    if (!WaitUntil([&] { return !IsAlive(drive); })) {
      ADD_FAILURE() << "drive process " << drive << " does not end";
      (void)::kill(drive, SIGKILL);
    }
  }
}

std::vector<pid_t> ServiceProcess::DriveProcesses() const {
  std::vector<pid_t> drives = program->IsRunning() ? ChildrenOf(Pid()) : std::vector<pid_t>();
  std::erase_if(drives, [](pid_t child) {  // others unmount what a drive has left
    const std::string arguments = FileContent("/proc/" + std::to_string(child) + "/cmdline");
    return arguments.find(std::string("\0-c\0", 4)) == std::string::npos;
  });
  return drives;
}

}  // namespace tarn::test
