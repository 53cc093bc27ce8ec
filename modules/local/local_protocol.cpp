#include "modules/local/local_protocol.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pwd.h>
#include <string_view>
#include <sys/statvfs.h>

#include "common/hand_out.h"
#include "common/json.h"
#include "modules/local/changes.h"
#include "modules/local/connection_id.h"
#include "modules/local/errors.h"
#include "modules/local/upload.h"

namespace tarn::local {

namespace {

std::string AccountName() {
  std::array<char, 16384> strings{};
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(::geteuid(), &entry, strings.data(), strings.size(), &found) != 0 ||
      found == nullptr) {
    return std::to_string(::geteuid());
  }
  return found->pw_name;
}

std::string MountPointOf(const char* mount_request) {
  try {
    const Json request(mount_request);
    return request.HasObject("/data/drive") ? request.GetObject("/data/drive") : std::string();
  } catch (...) {
    return {};
  }
}

AERROR OpenToRead(const Folder& folder, const char* path, UniqueFd& file) {
  Place place;
  const AERROR error = folder.FindExisting(path, place);
  if (error != SUCCESS) {
    return error;
  }
  if (place.kind != Kind::kFile) {
    return ACCESS_DENIED;
  }
  file = OpenFileAt(place);
  return file.valid() ? SUCCESS : ErrorOf(errno);
}

// The times count that a version otherwise need not agree on: only they tell of a file that was
// written and then given its old time of modification.
bool IsExactly(const UniqueFd& file, const char* version) {
  struct stat status {};
  return ::fstat(file.get(), &status) == 0 && std::string_view(InfoOf(status).version) == version;
}

AERROR ReadParts(const UniqueFd& file, unsigned long long offset, char* buffer,
                 unsigned long long length, Throttle& throttle, unsigned long long& received) {
  const Throttle::Ticket ticket = throttle.Begin();
  while (received < length) {
    const auto wanted = std::min<unsigned long long>(
        length - received, static_cast<unsigned long long>(throttle.PartBytes()));
    if (!throttle.Pass(ticket, static_cast<long long>(wanted))) {
      return READ_CANCELED;
    }
    const ssize_t count = ::pread(file.get(), buffer + received, static_cast<size_t>(wanted),
                                  static_cast<off_t>(offset + received));
    if (count == 0) {
      return SUCCESS;
    }
    if (count < 0 && errno != EINTR) {
      return FILE_READ_FAILED;
    }
    received += static_cast<unsigned long long>(std::max<ssize_t>(count, 0));
  }
  return SUCCESS;
}

AERROR SizeOfFileSystem(const Folder& folder, unsigned long long& total, unsigned long long& free) {
  struct statvfs status {};
  if (::fstatvfs(folder.GetRoot(), &status) != 0) {
    return ErrorOf(errno);
  }
  total = static_cast<unsigned long long>(status.f_blocks) * status.f_frsize;
  free = static_cast<unsigned long long>(status.f_bavail) * status.f_frsize;
  return SUCCESS;
}

}  // namespace

LocalProtocol::LocalProtocol(std::string_view connection_id)
    : folder_path(FolderOfConnectionId(connection_id)) {}

void LocalProtocol::Release() {
  (void)Disconnect();
  const std::unique_ptr<LocalProtocol> self(this);  // the other end of GetProtocol
}

std::shared_ptr<const Folder> LocalProtocol::GetFolder() {
  const MutexLock hold(folder_lock);
  return folder;
}

// Runs an operation on the connected folder. Exceptions end here: the caller may have been built
// by another compiler.
template <typename Operation>
AERROR LocalProtocol::WithFolder(Operation operation) {
  try {
    const std::shared_ptr<const Folder> connected = GetFolder();
    return connected == nullptr ? DEVICE_NOT_READY : operation(*connected);
  } catch (...) {
    return FAILED;
  }
}

int LocalProtocol::GetUserName(char* buffer, int* length) {
  try {
    return HandOut(AccountName(), buffer, length);
  } catch (...) {
    return FAILED;
  }
}

AERROR LocalProtocol::GetSize(unsigned long long* total, unsigned long long* free) {
  DriveSize::Bytes size{};
  if (drive_size.Get(size)) {
    *total = size.total;
    *free = size.free;
    return SUCCESS;
  }
  return WithFolder(
      [&](const Folder& connected) { return SizeOfFileSystem(connected, *total, *free); });
}

int LocalProtocol::SetSize(unsigned long long total, unsigned long long used) {
  drive_size.Set({total, total - std::min(used, total)});
  return SUCCESS;
}

AERROR LocalProtocol::List(const char* path, FS_LIST_SINK sink, void* context) {
  return WithFolder([&](const Folder& connected) { return connected.List(path, sink, context); });
}

AERROR LocalProtocol::GetInfo(const char* path, FS_INFO* info) {
  return WithFolder([&](const Folder& connected) {
    Place place;
    const AERROR error = connected.FindExisting(path, place);
    if (error == SUCCESS) {
      *info = InfoOf(place.status);
    }
    return error;
  });
}

AERROR LocalProtocol::Read(const char* path, unsigned long long offset, void* buffer,
                           unsigned long long length, unsigned long long* received) {
  *received = 0;
  return WithFolder([&](const Folder& connected) {
    UniqueFd file;
    const AERROR error = OpenToRead(connected, path, file);
    return error != SUCCESS
               ? error
               : ReadParts(file, offset, static_cast<char*>(buffer), length, throttle, *received);
  });
}

AERROR LocalProtocol::ReadVersion(const char* path, const char* version, unsigned long long offset,
                                  void* buffer, unsigned long long length,
                                  unsigned long long* received) {
  *received = 0;
  return WithFolder([&](const Folder& connected) {
    UniqueFd file;
    AERROR error = OpenToRead(connected, path, file);
    if (error == SUCCESS && !IsExactly(file, version)) {
      error = SHARING_VIOLATION;
    }
    if (error == SUCCESS) {
      error = ReadParts(file, offset, static_cast<char*>(buffer), length, throttle, *received);
    }
    if (error == SUCCESS && !IsExactly(file, version)) {  // written to meanwhile
      error = SHARING_VIOLATION;
    }
    *received = error == SUCCESS ? *received : 0;
    return error;
  });
}

AERROR LocalProtocol::Upload(const char* path, FS_SOURCE* source, unsigned long long size,
                             FS_PROGRESS progress, void* context) {
  source->version[0] = '\0';
  return WithFolder([&](const Folder& connected) {
    return StoreFile(connected, path, *source, size, throttle, {progress, context}, commit_lock);
  });
}

AERROR LocalProtocol::CreateFolder(const char* path) {
  return WithFolder([&](const Folder& connected) { return MakeFolder(connected, path); });
}

AERROR LocalProtocol::DeleteFile(const char* path) {
  return WithFolder([&](const Folder& connected) { return RemoveFile(connected, path); });
}

AERROR LocalProtocol::DeleteFolder(const char* path) {
  return WithFolder([&](const Folder& connected) { return RemoveFolder(connected, path); });
}

AERROR LocalProtocol::Move(const char* from, const char* to) {
  return WithFolder(
      [&](const Folder& connected) { return MoveEntry(connected, from, to, may_move_folders); });
}

AERROR LocalProtocol::SetModifiedTime(const char* path, const FS_TIME* time) {
  return WithFolder([&](const Folder& connected) { return SetTime(connected, path, *time); });
}

AERROR LocalProtocol::GetIdentity(char* buffer, int* length) {
  return WithFolder([&](const Folder& connected) {
    return HandOut("local:" + AccountName() + ":" + connected.GetPath(), buffer, length);
  });
}

AERROR LocalProtocol::Cancel() {
  throttle.CancelAll();
  return SUCCESS;
}

unsigned long long LocalProtocol::GetCapabilities() {
  return FS_CAN_SET_TIME | FS_CAN_REPLACE_VERSION | FS_HAS_SIZE | FS_CAN_READ_VERSION;
}

// "ex_info" is the whole mount request as JSON text. A module with settings of its own finds them
// there; this one only needs to know where the drive will be.
int LocalProtocol::SetOption(const char* key, const char* value) {
  if (key == nullptr || value == nullptr) {
    return INVALID_PARAMETER;
  }
  const std::string_view name = key;
  if (name == "speedlimit") {
    throttle.SetLimit(std::strtoll(value, nullptr, 10));
    return SUCCESS;
  }
  if (name == "allow_move") {
    may_move_folders = std::string_view(value) != "false";
    return SUCCESS;
  }
  if (name == "ex_info") {
    mount_point = MountPointOf(value);
    return SUCCESS;
  }
  return NOT_SUPPORTED;
}

int LocalProtocol::GetCredential(char* buffer, int* length) {
  (void)HandOut("", buffer, length);
  return NOT_SUPPORTED;
}

void LocalProtocol::SetKeyFile(const char* /*path*/) {}

AERROR LocalProtocol::Connect(char** message) {
  try {
    auto opened = std::make_shared<Folder>();
    const AERROR error =
        folder_path.empty() ? PATH_NOT_FOUND : opened->Open(folder_path, mount_point);
    if (error != SUCCESS) {
      const std::string text = "The folder \"" + folder_path + "\" " +
                               (error == PATH_NOT_FOUND ? "does not exist." : "cannot be read.");
      *message = ::strdup(text.c_str());
      return error;
    }
    {
      const MutexLock hold(folder_lock);
      folder = std::move(opened);
    }
    drive_size.Start();
    return SUCCESS;
  } catch (...) {
    return FAILED;
  }
}

AERROR LocalProtocol::Disconnect() {
  throttle.CancelAll();
  drive_size.Stop();
  const MutexLock hold(folder_lock);
  folder.reset();
  return SUCCESS;
}

void LocalProtocol::SetQuotaCallback(void* context, QUOTA_CALLBACK callback) {
  drive_size.SetCallback(context, callback);
}

void LocalProtocol::FreeString(char* text) {
  std::free(text);
}

}  // namespace tarn::local
