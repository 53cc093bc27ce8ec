#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tarnctl/installation.h"
#include "tests/support/program.h"
#include "tests/support/temp_folder.h"

namespace tarn::test {

namespace fs = std::filesystem;

// A home folder of the test's own, with the folders in it that the service expects. At the end it
// goes with all that is in it; a volume that is still mounted below it is detached first and fails
// the test.
class TempHome : public TempFolder {
 public:
  TempHome();
  ~TempHome();

  [[nodiscard]] fs::path Path() const { return path(); }
  [[nodiscard]] fs::path LogFile() const {  // of the service
    return Path() / "Library/Logs/tarnsvc/tarnsvclog";
  }

  // Makes a folder in the home. Returns its path.
  [[nodiscard]] fs::path MakeFolder(const std::string& folder_name) const;
};

// The mount points at or below a folder, the deepest first.
[[nodiscard]] std::vector<fs::path> MountsBelow(const fs::path& folder);

// Detaches a volume, even one that is in use or dead.
void Detach(const fs::path& mount_point);

// The real service in a temporary home: a copy of the executable with its INI file and its modules,
// in a folder of its own, so that drive processes find what they need from the working directory.
// The destructor ends the service, reaps it, and fails the test when it or one of its drive
// processes does not end, and for a sanitizer's report. One thread.
class ServiceProcess {
 public:
  explicit ServiceProcess(const TempHome& service_home);
  ~ServiceProcess();

  // Starts the service and waits until it has answered an "init". False, after a failed
  // expectation, when it does not. Once at a time; may be started again after it has ended.
  [[nodiscard]] bool Start(const std::string& mode = "-d");

  // Sends a signal to the service alone.
  void Signal(int signal) const;

  // As Program's.
  [[nodiscard]] std::optional<int> WaitForEnd(std::chrono::milliseconds patience = kPatience) {
    return program->WaitForEnd(patience);
  }

  [[nodiscard]] pid_t Pid() const { return program->Pid(); }
  [[nodiscard]] int Port() const { return ReadPort(installation); }
  [[nodiscard]] fs::path InBin(const std::string& name) const { return root / "bin" / name; }
  [[nodiscard]] fs::path ModuleFolder() const { return root / "Frameworks"; }

  // The drive processes that the service has now.
  [[nodiscard]] std::vector<pid_t> DriveProcesses() const;

  // What the service and its drive processes have printed so far.
  [[nodiscard]] std::string Output() const { return program ? program->Output() : ""; }

 private:
  void Stop();

  const TempHome& home;
  const fs::path root;
  Installation installation;
  std::optional<Program> program;
};

}  // namespace tarn::test
