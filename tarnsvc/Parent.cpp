#include "tarnsvc/Parent.h"

#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/log.h"
#include "common/posix.h"
#include "interfaces/logger.h"
#include "tarnsvc/DriveList.h"
#include "tarnsvc/LogSettings.h"
#include "tarnsvc/TCPServer.h"
#include "tarnsvc/main.h"

namespace {

constexpr useconds_t kRunningPollMicroseconds = 50000;
constexpr mode_t kFileMode = 0644;

bool WriteWholeFile(const std::string& path, const std::string& content) {
  const tarn::UniqueFd file = tarn::OpenFile(path, O_WRONLY | O_CREAT | O_TRUNC, kFileMode);
  return file.valid() && tarn::WriteAll(file.get(), content.data(), content.size());
}

// Every client and every drive takes descriptors; the usual soft limit of 1024 is soon reached.
void RaiseDescriptorLimit() {
  rlimit limit = {};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    (void)::setrlimit(RLIMIT_NOFILE, &limit);  // the old limit stays where this is refused
  }
}

}  // namespace

void StartParent(void* /*reserved*/) {
  RaiseDescriptorLimit();
  Init();
  InitLog();
  (void)std::signal(SIGTERM, sigterm_handler);
  (void)StartServer();  // without a port the service waits for its end all the same
  while (ProcessStarted) {
    ::usleep(kRunningPollMicroseconds);
  }
  StopServer();
}

void Init() {
  if (const auto data_folder = tarn::DataPath("")) {
    (void)CreateDirectory(data_folder->c_str(), nullptr);
  }
  const auto settings = tarn::DataPath("/tarncache.ini");
  const auto cache_folder = tarn::DataPath("/_cache_");
  struct stat status = {};
  if (!settings || !cache_folder || ::stat(settings->c_str(), &status) == 0) {
    return;
  }
  (void)CreateDirectory(cache_folder->c_str(), nullptr);
  (void)WriteWholeFile(*settings, "[CACHE]\r\npath = " + *cache_folder + "\r\nsize = 4");
}

void InitLog() {
  const tarn::LogSettings settings = tarn::ReadLogSettings();
  if (settings.log_file.empty() || InitLogger(settings.log_file.c_str()) != 0) {
    return;
  }
  (void)GetLogger(2, "_tarnsvc_PARENT", settings.threshold, &logger);  // fails: no log
  __LOG__A(logger, LOGLEVEL_ERROR | LOGLEVEL_SERVICE, "[ tarn sdk version : %s ] [%s:%d]",
           tarn::kVersion, TARN_SOURCE);
}

bool StartServer() {
  const int port = api_server.start(kBasePort);
  if (port == -1) {
    __LOG__A(logger, LOGLEVEL_ERROR, "%s:: failed to listen socket [%s:%d]", "StartServer",
             TARN_SOURCE);
    return false;
  }
  __LOG__A(logger, LOGLEVEL_DEBUG, "%s:: start to listen socket with port %d [%s:%d]",
           "StartServer", port, TARN_SOURCE);
  write_port(port);
  return true;
}

void StopServer() {
  api_server.stop();
  tarn::RemoveListedFifos();
}

void write_port(int port) {
  const auto path = tarn::DataPath("/tarnsvc.ini");
  if (!path || !WriteWholeFile(*path, "[NET]\r\nPORT=" + std::to_string(port))) {
    return;
  }
  __LOG__A(logger, LOGLEVEL_DEBUG, "%s:: %d to %s [%s:%d]", "write_port", port, path->c_str(),
           TARN_SOURCE);
}

void sigterm_handler(int signal_number) {
  if (signal_number == SIGTERM) {
    ProcessStarted = false;
  }
}
