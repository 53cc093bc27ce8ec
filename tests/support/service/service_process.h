#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "tarnctl/installation.h"
#include "tests/support/service/temp_home.h"

namespace tarn::test {

// The real service in a temporary home: a copy of the executable with its INI file and its modules,
// in a folder of its own, so that drive processes find what they need from the working directory.
// The destructor ends the service and its drive processes by their ids, reaps it, and fails the
// test for a process that does not end and for a sanitizer's report. One thread.
class ServiceProcess {
 public:
  explicit ServiceProcess(const TempHome& service_home);
  ~ServiceProcess();
  ServiceProcess(const ServiceProcess&) = delete;
  ServiceProcess& operator=(const ServiceProcess&) = delete;

  // Starts the service and waits until it has answered an "init". False, after a failed
  // expectation, when it does not. Once at a time; may be started again after it has ended.
  [[nodiscard]] bool Start(const std::string& mode = "-d");

  // Sends a signal to the service alone.
  void Signal(int signal) const;

  // Waits for the service's own end, and reaps it. Nothing: it has not ended in time.
  [[nodiscard]] std::optional<int> WaitForEnd(std::chrono::milliseconds patience);

  // Ends the service with SIGTERM and waits for it and its drive processes.
  void Stop();

  [[nodiscard]] pid_t Pid() const { return pid; }
  [[nodiscard]] int Port() const { return ReadPort(installation); }
  [[nodiscard]] std::filesystem::path Program(const std::string& name) const;  // in bin
  [[nodiscard]] std::filesystem::path ModuleFolder() const;

  // The drive processes that the service has now.
  [[nodiscard]] std::vector<pid_t> DriveProcesses() const;

  // What the service and its drive processes have printed so far.
  [[nodiscard]] std::string Output() const;

 private:
  [[nodiscard]] bool IsRunning() const { return pid > 0; }
  [[nodiscard]] bool Answers() const;
  void EndDriveProcesses(const std::vector<pid_t>& drives) const;
  void CheckOutput() const;

  const TempHome& home;
  std::filesystem::path root;
  Installation installation;
  pid_t pid = -1;
};

// Not for one that has ended but was not reaped.
[[nodiscard]] bool IsAlive(pid_t process);

// Ids of the direct children of a process.
[[nodiscard]] std::vector<pid_t> ChildrenOf(pid_t parent);

}  // namespace tarn::test
