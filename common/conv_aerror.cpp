#include "common/conv_aerror.h"

#include <algorithm>
#include <array>
#include <cerrno>

namespace {

struct Entry {
  AERROR value;
  const char* name;
  const char* message;
};

constexpr const char* kNoName = "Unknown";
constexpr const char* kNoMessage = "error";

// Every code there is. Some are of no interest to people, one is never seen by programs.
constexpr auto kEntries = std::to_array<Entry>({
    {SUCCESS, "SUCCESS", "success"},
    {FAILED, "FAILED", "failed"},
    {ACCESS_VIOLATION, "ACCESS_VIOLATION", "access violation"},
    {INSUFFICIENT_BUFFER, "INSUFFICIENT_BUFFER", "insufficient buffer"},
    {INVALID_PARAMETER, "INVALID_PARAMETER", "invalid parameter"},
    {FOLDER_CREATION_FAILED, "FOLDER_CREATION_FAILED", "folder creation failed"},
    {NOT_SUPPORTED, "NOT_SUPPORTED", "not supported"},
    {FILE_OPEN_FAILED, "FILE_OPEN_FAILED", "file open failed"},
    {FILE_READ_FAILED, "FILE_READ_FAILED", kNoMessage},
    {FILE_WRITE_FAILED, "FILE_WRITE_FAILED", "file write failed"},
    {FILE_SEEK_FAILED, "FILE_SEEK_FAILED", "file seek failed"},
    {AUTH_FAILED, "AUTH_FAILED", "auth failed"},
    {READ_CANCELED, "READ_CANCELED", kNoMessage},
    {UPLOAD_CANCELED, "UPLOAD_CANCELED", kNoMessage},
    {RETRY_UPLOAD, "RETRY_UPLOAD", kNoMessage},
    {SAVE_TO_LOCAL, "SAVE_TO_LOCAL", kNoMessage},
    {SAVE_FAILED, "SAVE_FAILED", kNoMessage},
    {DEVICE_NOT_READY, "DEVICE_NOT_READY", "device not ready"},
    {FILE_NOT_FOUND, "FILE_NOT_FOUND", "file not found"},
    {PATH_NOT_FOUND, "PATH_NOT_FOUND", "path not found"},
    {CAN_NOT_MAKE, "CAN_NOT_MAKE", "cannot make"},
    {FILE_EXISTS, "FILE_EXISTS", "file exists"},
    {ALREADY_EXISTS, "ALREADY_EXISTS", "already exists"},
    {ACCESS_DENIED, "ACCESS_DENIED", "access denied"},
    {INVALID_NAME, "INVALID_NAME", "invalid name"},
    {OPEN_FAILED, "OPEN_FAILED", "open failed"},
    {NO_ACCESS, "NO_ACCESS", "no access"},
    {INVALID_USER_BUFFER, "INVALID_USER_BUFFER", "invalid user buffer"},
    {INVALID_HANDLE, "INVALID_HANDLE", "invalid handle"},
    {INVALID_DIRECTORY, "INVALID_DIRECTORY", "invalid directory"},
    {DELETE_PENDING, "DELETE_PENDING", "delete pending"},
    {PENDING, "PENDING", "pending"},
    {NO_PRIVILEGE, "NO_PRIVILEGE", "no privilege"},
    {NET_WRITE_FAILED, "NET_WRITE_FAILED", "net write failed"},
    {HANDLE_EOF, "HANDLE_EOF", "handle eof"},
    {DIR_NOT_EMPTY, "DIR_NOT_EMPTY", "dir not empty"},
    {SHARING_VIOLATION, "SHARING_VIOLATION", "sharing violation"},
    {INVALID_FUNCTION, "INVALID_FUNCTION", "invalid function"},
    {READ_ONLY_FILE, "READ_ONLY_FILE", "read only file"},
    {WRITE_PROTECT, "WRITE_PROTECT", "write protect"},
    {BAD_ARGUMENTS, "BAD_ARGUMENTS", "bad arguments"},
    {ASYNCQ_STOPPED, "ASYNCQ_STOPPED", kNoMessage},
    {ASYNCQ_NULLOBJECT, "ASYNCQ_NULLOBJECT", kNoMessage},
    {ASYNCQ_THREADCREATIONFAILED, "ASYNCQ_THREADCREATIONFAILED", kNoMessage},
    {FS_UNKNOWN_ERROR, "FS_UNKNOWN_ERROR", kNoMessage},
    {FS_ALREADY_AUTHORIZED, "FS_ALREADY_AUTHORIZED", kNoMessage},
    {FS_ALREADY_MOUNTED, "FS_ALREADY_MOUNTED", kNoMessage},
    {FS_INVALID_LETTER, "FS_INVALID_LETTER", kNoMessage},
    {FS_UNKNOWN_MOUNT_TYPE, "FS_UNKNOWN_MOUNT_TYPE", kNoMessage},
    {FS_DRIVER_ERROR, "FS_DRIVER_ERROR", kNoMessage},
    {FS_START_ERROR, "FS_START_ERROR", kNoMessage},
    {FS_MOUNT_ERROR, "FS_MOUNT_ERROR", kNoMessage},
    {FS_MOUNT_POINT_ERROR, "FS_MOUNT_POINT_ERROR", kNoMessage},
    {FS_UNMOUNT_FAILED, "FS_UNMOUNT_FAILED", kNoMessage},
    {FS_INITIALIZE_FIRST, "FS_INITIALIZE_FIRST", kNoMessage},
    {FS_NEED_REFRESH, "FS_NEED_REFRESH", kNoMessage},
    {FS_NEED_AUTHORIZE, "FS_NEED_AUTHORIZE", kNoMessage},
    {CACHE_TOO_SMALL, "CACHE_TOO_SMALL", kNoMessage},
    {CACHE_INVALID_OPEN_MODE, "CACHE_INVALID_OPEN_MODE", kNoMessage},
    {CACHE_INVALID_PATH, "CACHE_INVALID_PATH", kNoMessage},
    {CACHE_CREATE_FAILED, "CACHE_CREATE_FAILED", kNoMessage},
    {CACHE_NOT_OPENED, "CACHE_NOT_OPENED", kNoMessage},
    {CACHE_OFFSET_NOT_ALIGNED, "CACHE_OFFSET_NOT_ALIGNED", kNoMessage},
    {CACHE_WRITE_FAILED, "CACHE_WRITE_FAILED", kNoMessage},
    {CACHE_READ_FAILED, "CACHE_READ_FAILED", kNoMessage},
    {CACHE_BLOCK_RESERVED, "CACHE_BLOCK_RESERVED", kNoMessage},
    {CACHE_BLOCK_EMPTY, "CACHE_BLOCK_EMPTY", kNoMessage},
    {CACHE_NO_NEED_READAHEAD, "CACHE_NO_NEED_READAHEAD", kNoMessage},
    {CACHE_NEED_READAHEAD, "CACHE_NEED_READAHEAD", kNoMessage},
    {CACHE_READAHEAD, "CACHE_READAHEAD", kNoMessage},
    {CACHE_NO_RESERVED_BLOCKS, "CACHE_NO_RESERVED_BLOCKS", kNoMessage},
    {JSON_PARSE_FAILED, kNoName, kNoMessage},
});

constexpr Entry kUnlisted = {FAILED, kNoName, kNoMessage};

const Entry& Find(AERROR value) {
  const auto* found = std::find_if(kEntries.begin(), kEntries.end(),
                                   [value](const Entry& entry) { return entry.value == value; });
  return found != kEntries.end() ? *found : kUnlisted;
}

}  // namespace

const char* GetAERRORA(AERROR value) {
  return Find(value).name;
}

int ConvertAERROR(AERROR value) {
  switch (value) {
    case SUCCESS:
      return 0;
    case FILE_NOT_FOUND:
      return -ENOENT;
    default:
      return -EIO;
  }
}

const char* tarn::AERRORMessage(AERROR value) {
  return Find(value).message;
}
