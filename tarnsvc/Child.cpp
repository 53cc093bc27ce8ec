#include "tarnsvc/Child.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "common/log.h"
#include "interfaces/asyncq.h"
#include "interfaces/cache.h"
#include "interfaces/filesystem.h"
#include "interfaces/logger.h"
#include "tarnsvc/CacheFolder.h"
#include "tarnsvc/ChildPipe.h"
#include "tarnsvc/LogSettings.h"
#include "tarnsvc/ServiceWatch.h"
#include "tarnsvc/main.h"

namespace {

constexpr LOGLEVEL kDebug = LOGLEVEL_DEBUG | LOGLEVEL_SERVICE;
constexpr LOGLEVEL kError = LOGLEVEL_ERROR | LOGLEVEL_SERVICE;
constexpr useconds_t kRunningPollMicroseconds = 50000;
constexpr int kQueueWorkers = 16;
constexpr long long kGiB = 1LL << 30;
constexpr int kMostLoggerNames = 1000;

ILog* ajlogger = nullptr;  // a second channel that stays empty
std::string logger_name;
std::string path_cache;
void* cache = nullptr;
std::shared_ptr<IAsyncQ> async;
tarn::UniqueFd cache_folder_lock;

// A line of the console trace, out before the step that it announces.
__attribute__((format(printf, 1, 2))) void Trace(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  (void)std::vprintf(format, arguments);  // nobody reads it: no reason to stop
  va_end(arguments);
  (void)std::fflush(stdout);
}

bool ConnectChannels(CChildPipe& session, const std::string& name) {
  const std::wstring wide_name(name.begin(), name.end());
  Trace("client connect\r\n");
  if (!session.connect(wide_name, nullptr)) {
    Trace("client connect failed\n");
    __LOG__A(logger, LOGLEVEL_ERROR, "%s:: failed to connect to pipe %s [%s:%d]", "StartChild",
             name.c_str(), TARN_SOURCE);
    return false;
  }
  __LOG__A(logger, LOGLEVEL_DEBUG, "%s:: connected to pipe %s [%s:%d]", "StartChild", name.c_str(),
           TARN_SOURCE);
  Trace("client create\r\n");
  if (!session.create(wide_name, nullptr)) {
    __LOG__A(logger, LOGLEVEL_ERROR, "%s:: failed to create client pipe of %s [%s:%d]",
             "StartChild", name.c_str(), TARN_SOURCE);
    Trace("client create failed\n");
    tarn::RemoveFifos(tarn::EventChannel(wide_name));
    return false;
  }
  __LOG__A(logger, LOGLEVEL_DEBUG, "%s:: created to client pipe of %s [%s:%d]", "StartChild",
           name.c_str(), TARN_SOURCE);
  return true;
}

void StartLibraries(char* label) {
  const std::string service_name = tarn::ServiceName();
  Trace("FS_Initialize\r\n");
  FS_Initialize(service_name.c_str());
  __LOG__A(logger, LOGLEVEL_DEBUG, "%s:: FS_Initialize %s [%s:%d]", "StartChild",
           service_name.c_str(), TARN_SOURCE);
  Trace("StartCache\r\n");
  StartCache(label);
}

void MountAndWait(CChildPipe& session) {
  Trace("session->request_info\r\n");
  (void)session.request_info();  // mounting tells the service what is missing
  Trace("session->mount\r\n");
  const int result = session.mount();
  Trace("session->mount returned %d\r\n", result);
  while (result == 0 && ProcessStarted) {
    ::usleep(kRunningPollMicroseconds);
  }
}

void ReleaseLibraries() {
  Trace("FS_UnbindCache\r\n");
  FS_UnbindCache();
  Trace("FS_UnbindAsyncQ\r\n");
  FS_UnbindAsyncQ();
  Trace("FS_UnbindLogger\r\n");
  FS_UnbindLogger();
  Trace("ReleaseCache\r\n");
  (void)ReleaseCache(path_cache.c_str());
  Trace("Cache_UnbindAsyncQ\r\n");
  Cache_UnbindAsyncQ();
  Trace("Cache_UnbindLogger\r\n");
  Cache_UnbindLogger();
  Trace("ReleaseLogger\r\n");
  (void)ReleaseLogger(logger_name.c_str());
}

struct CacheSettings {
  std::string base;
  long long capacity_bytes = 0;
};

CacheSettings ReadCacheSettings() {
  std::array<char, kPathBytes> path = {};
  std::array<char, kPathBytes> size = {'4'};
  const std::string file = tarn::DataPath("/tarncache.ini").value_or("");
  const std::string default_folder = tarn::DataPath("/_cache_").value_or("");
  (void)GetPrivateProfileString("CACHE", "path", "", path.data(), kPathBytes, file.c_str());
  (void)GetPrivateProfileString("CACHE", "size", "4", size.data(), kPathBytes, file.c_str());
  return {path[0] != '\0' ? path.data() : default_folder, std::atoi(size.data()) * kGiB};
}

void StartQueue() {
  IAsyncQ* queue = nullptr;
  if (!InitAsyncQ(kQueueWorkers, &queue)) {
    return;
  }
  async = std::shared_ptr<IAsyncQ>(queue, [](IAsyncQ* ended) { ended->Release(); });
  FS_BindAsyncQ(queue);
  Cache_BindAsyncQ(queue);
}

}  // namespace

void StartChild(char* pipe_id, char* label) {
  Trace("it's child tarnsvc\r\n");
  if (pipe_id == nullptr || pipe_id[0] == '\0' || label == nullptr || label[0] == '\0') {
    return;
  }
  tarn::RememberService();
  Trace("init log\r\n");
  InitLog_Child(label);
  const std::string name = tarn::NarrowName(tarn::PipeName(L"")) + pipe_id;
  Trace("pipename : %s\r\n", name.c_str());
  const auto session = std::make_shared<CChildPipe>();
  if (!ConnectChannels(*session, name)) {
    return;
  }
  StartLibraries(label);
  MountAndWait(*session);
  ReleaseLibraries();
  if (!session->let_go()) {
    ::_exit(1);  // a call into a module never came back: nothing may be destroyed under it
  }
}

void StartCache(char* label) {
  __LOG__A(logger, kDebug, "%s:: %s [%s:%d]", "StartCache", label, TARN_SOURCE);
  const CacheSettings settings = ReadCacheSettings();
  (void)CreateDirectory(settings.base.c_str(), nullptr);  // claiming the drive's folder tells
  tarn::CacheFolder folder = tarn::OpenCacheFolder(settings.base, label);
  __LOG__A(logger, kDebug, " CACHE PATH : %s [%s:%d]", folder.path.c_str(), TARN_SOURCE);
  if (folder.lock.valid()) {
    __LOG__A(logger, kDebug, " : checked cache path. [%s:%d]", TARN_SOURCE);
    path_cache = folder.path;
    cache_folder_lock = std::move(folder.lock);
    void* started = nullptr;
    if (InitCache(path_cache.c_str(), settings.capacity_bytes, &started) == 0) {
      cache = started;
      FS_BindCache(cache);
    }
  } else {
    __LOG__A(logger, kError, " Failed to check cache path : %s [%s:%d]", folder.path.c_str(),
             TARN_SOURCE);
  }
  StartQueue();
}

void InitLog_Child(char* label) {
  const tarn::LogSettings settings = tarn::ReadLogSettings();
  if (settings.log_file.empty() || InitLogger(settings.log_file.c_str()) != 0) {
    return;
  }
  const std::string base_name = std::string("tarnsvc_") + label;
  logger_name = base_name;
  int failures = 0;
  while (GetLogger(2, logger_name.c_str(), settings.threshold, &logger) != 0) {
    if (failures == kMostLoggerNames) {
      return;
    }
    logger_name = base_name + std::to_string(failures++);
  }
  __LOG__A(logger, LOGLEVEL_ERROR | LOGLEVEL_SERVICE,
           "[ tarn sdk version - child tarnsvc : %s ] [%s:%d]", tarn::kVersion, TARN_SOURCE);
  FS_BindLogger(1, logger);
  FS_BindLogger(2, ajlogger);
  Cache_BindLogger(logger);
}
