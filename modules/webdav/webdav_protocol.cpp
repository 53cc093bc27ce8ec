#include "modules/webdav/webdav_protocol.h"

#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "common/hand_out.h"
#include "common/log.h"
#include "modules/webdav/changes.h"
#include "modules/webdav/download.h"
#include "modules/webdav/lookup.h"
#include "modules/webdav/settings.h"
#include "modules/webdav/upload.h"

namespace tarn::webdav {

void WebdavProtocol::Release() {
  (void)Disconnect();
  const std::unique_ptr<WebdavProtocol> self(this);  // the other end of GetProtocol
}

std::shared_ptr<Remote> WebdavProtocol::GetRemote() {
  const MutexLock hold(remote_lock);
  return remote;
}

// Runs an operation on the connected remote. Exceptions end here: the caller may have been built by
// another compiler.
template <typename Operation>
AERROR WebdavProtocol::WithRemote(Operation operation) {
  try {
    const std::shared_ptr<Remote> connected = GetRemote();
    return connected == nullptr ? DEVICE_NOT_READY : operation(*connected);
  } catch (...) {
    return FAILED;
  }
}

// The same, on a path of the drive.
template <typename Operation>
AERROR WebdavProtocol::At(const char* path, Operation operation) {
  if (!IsDrivePath(path)) {
    return INVALID_NAME;
  }
  return WithRemote(operation);
}

int WebdavProtocol::GetUserName(char* buffer, int* length) {
  return WithRemote([&](const Remote& connected) {
    return HandOut(connected.GetSettings().user, buffer, length);
  });
}

AERROR WebdavProtocol::GetSize(unsigned long long* total, unsigned long long* free) {
  DriveSize::Bytes size{};
  if (drive_size.Get(size)) {
    *total = size.total;
    *free = size.free;
    return SUCCESS;
  }
  return WithRemote([&](Remote& connected) { return GetQuota(connected, *total, *free); });
}

int WebdavProtocol::SetSize(unsigned long long total, unsigned long long used) {
  drive_size.Set({total, total - std::min(used, total)});
  return SUCCESS;
}

AERROR WebdavProtocol::List(const char* path, FS_LIST_SINK sink, void* context) {
  return At(path, [&](Remote& connected) { return webdav::List(connected, path, sink, context); });
}

AERROR WebdavProtocol::GetInfo(const char* path, FS_INFO* info) {
  return At(path, [&](Remote& connected) { return webdav::GetInfo(connected, path, *info); });
}

AERROR WebdavProtocol::Read(const char* path, unsigned long long offset, void* buffer,
                            unsigned long long length, unsigned long long* received) {
  *received = 0;
  return At(path, [&](Remote& connected) {
    return webdav::Read(connected, path, {offset, static_cast<char*>(buffer), length}, *received);
  });
}

AERROR WebdavProtocol::ReadVersion(const char* path, const char* version, unsigned long long offset,
                                   void* buffer, unsigned long long length,
                                   unsigned long long* received) {
  *received = 0;
  return At(path, [&](Remote& connected) {
    return webdav::ReadVersion(connected, path, version,
                               {offset, static_cast<char*>(buffer), length}, *received);
  });
}

AERROR WebdavProtocol::Upload(const char* path, FS_SOURCE* source, unsigned long long size,
                              FS_PROGRESS progress, void* context) {
  source->version[0] = '\0';
  return At(path, [&](Remote& connected) {
    Content content{.source = *source, .size = size, .progress = progress, .context = context};
    return webdav::Upload(connected, path, content);
  });
}

AERROR WebdavProtocol::CreateFolder(const char* path) {
  return At(path, [&](Remote& connected) { return webdav::CreateFolder(connected, path); });
}

AERROR WebdavProtocol::DeleteFile(const char* path) {
  return At(path, [&](Remote& connected) { return webdav::DeleteFile(connected, path); });
}

AERROR WebdavProtocol::DeleteFolder(const char* path) {
  return At(path, [&](Remote& connected) { return webdav::DeleteFolder(connected, path); });
}

AERROR WebdavProtocol::Move(const char* from, const char* to) {
  if (!IsDrivePath(to)) {
    return INVALID_NAME;
  }
  return At(from,
            [&](Remote& connected) { return webdav::Move(connected, from, to, may_move_folders); });
}

// There is no portable way: the server says when a file was changed.
AERROR WebdavProtocol::SetModifiedTime(const char* /*path*/, const FS_TIME* /*time*/) {
  return NOT_SUPPORTED;
}

AERROR WebdavProtocol::GetIdentity(char* buffer, int* length) {
  return WithRemote(
      [&](const Remote& connected) { return HandOut(connected.GetIdentity(), buffer, length); });
}

AERROR WebdavProtocol::Cancel() {
  throttle.CancelAll();
  return WithRemote([](Remote& connected) {
    connected.Wake();
    return SUCCESS;
  });
}

unsigned long long WebdavProtocol::GetCapabilities() {
  const std::shared_ptr<Remote> connected = GetRemote();
  const bool tells_quota = connected != nullptr && connected->TellsQuota();
  return FS_CAN_REPLACE_VERSION | FS_CAN_READ_VERSION | (tells_quota ? FS_HAS_SIZE : 0ULL);
}

int WebdavProtocol::SetOption(const char* key, const char* value) {
  if (key == nullptr || value == nullptr) {
    return INVALID_PARAMETER;
  }
  const std::string_view name = key;
  if (name == "speedlimit") {
    throttle.SetLimit(std::strtoll(value, nullptr, 10));
  } else if (name == "allow_move") {
    may_move_folders = std::string_view(value) != "false";
  } else if (name == "ex_info") {
    mount_request = value;
  } else {
    return NOT_SUPPORTED;
  }
  return SUCCESS;
}

int WebdavProtocol::GetCredential(char* buffer, int* length) {
  return WithRemote([&](const Remote& connected) {
    const Settings& settings = connected.GetSettings();
    const bool has_user = !settings.user.empty() || !settings.password.empty();
    const std::string login = has_user ? settings.user + ":" + settings.password : std::string();
    return HandOut(settings.token.empty() ? login : settings.token, buffer, length);
  });
}

void WebdavProtocol::SetKeyFile(const char* /*path*/) {}

AERROR WebdavProtocol::ConnectTo(std::string& message) {
  Settings settings;
  AERROR error = ReadSettings(connection_id, mount_request, settings, message);
  if (error != SUCCESS) {
    return error;
  }
  auto connecting = std::make_shared<Remote>(std::move(settings), throttle);
  error = connecting->Connect(message);
  if (error == SUCCESS) {
    const MutexLock hold(remote_lock);
    remote = std::move(connecting);
  }
  return error;
}

AERROR WebdavProtocol::Connect(char** message) {
  try {
    std::string text;
    const AERROR error = ConnectTo(text);
    if (error != SUCCESS) {
      *message = ::strdup(text.c_str());
      return error;
    }
    drive_size.Start();
    return SUCCESS;
  } catch (...) {
    return FAILED;
  }
}

AERROR WebdavProtocol::Disconnect() {
  (void)Cancel();
  drive_size.Stop();
  const MutexLock hold(remote_lock);
  remote.reset();
  return SUCCESS;
}

void WebdavProtocol::SetQuotaCallback(void* context, QUOTA_CALLBACK callback) {
  drive_size.SetCallback(context, callback);
}

void WebdavProtocol::FreeString(char* text) {
  std::free(text);
}

}  // namespace tarn::webdav
