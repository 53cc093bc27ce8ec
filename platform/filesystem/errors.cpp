#include "platform/filesystem/errors.h"

#include <cerrno>

namespace tarn::fs {

int ErrnoOf(AERROR error) {
  switch (error) {  // no default: the compiler finds a code that is left out
    case SUCCESS:
      return 0;
    case FILE_NOT_FOUND:
    case PATH_NOT_FOUND:
    case DELETE_PENDING:
      return ENOENT;
    case FILE_EXISTS:
    case ALREADY_EXISTS:
    case FS_ALREADY_MOUNTED:
    case FS_ALREADY_AUTHORIZED:
      return EEXIST;
    case ACCESS_DENIED:
    case NO_ACCESS:
    case NO_PRIVILEGE:
    case AUTH_FAILED:
    case FS_NEED_AUTHORIZE:
    case READ_ONLY_FILE:
      return EACCES;
    case WRITE_PROTECT:
      return EROFS;
    case DIR_NOT_EMPTY:
      return ENOTEMPTY;
    case INVALID_DIRECTORY:
      return ENOTDIR;
    case SHARING_VIOLATION:
      return EBUSY;
    case NOT_SUPPORTED:
    case INVALID_FUNCTION:
      return ENOTSUP;
    case INVALID_NAME:
    case INVALID_PARAMETER:
    case BAD_ARGUMENTS:
      return EINVAL;
    case INVALID_HANDLE:
      return EBADF;
    case INVALID_USER_BUFFER:
    case INSUFFICIENT_BUFFER:
    case ACCESS_VIOLATION:
    case FAILED:
    case FOLDER_CREATION_FAILED:
    case FILE_OPEN_FAILED:
    case FILE_READ_FAILED:
    case FILE_WRITE_FAILED:
    case FILE_SEEK_FAILED:
    case READ_CANCELED:
    case UPLOAD_CANCELED:
    case RETRY_UPLOAD:
    case SAVE_TO_LOCAL:
    case SAVE_FAILED:
    case DEVICE_NOT_READY:
    case CAN_NOT_MAKE:
    case OPEN_FAILED:
    case PENDING:
    case NET_WRITE_FAILED:
    case HANDLE_EOF:
    case ASYNCQ_STOPPED:
    case ASYNCQ_NULLOBJECT:
    case ASYNCQ_THREADCREATIONFAILED:
    case FS_UNKNOWN_ERROR:
    case FS_INVALID_LETTER:
    case FS_UNKNOWN_MOUNT_TYPE:
    case FS_DRIVER_ERROR:
    case FS_START_ERROR:
    case FS_MOUNT_ERROR:
    case FS_MOUNT_POINT_ERROR:
    case FS_UNMOUNT_FAILED:
    case FS_INITIALIZE_FIRST:
    case FS_NEED_REFRESH:
    case CACHE_TOO_SMALL:
    case CACHE_INVALID_OPEN_MODE:
    case CACHE_INVALID_PATH:
    case CACHE_CREATE_FAILED:
    case CACHE_NOT_OPENED:
    case CACHE_OFFSET_NOT_ALIGNED:
    case CACHE_WRITE_FAILED:
    case CACHE_READ_FAILED:
    case CACHE_BLOCK_RESERVED:
    case CACHE_BLOCK_EMPTY:
    case CACHE_NO_NEED_READAHEAD:
    case CACHE_NEED_READAHEAD:
    case CACHE_READAHEAD:
    case CACHE_NO_RESERVED_BLOCKS:
    case JSON_PARSE_FAILED:
      return EIO;
  }
  return EIO;
}

bool MattersToPeople(AERROR error) {
  switch (ErrnoOf(error)) {
    case 0:
    case ENOENT:
    case EEXIST:
    case ENOTEMPTY:
    case ENOTDIR:
    case ENOTSUP:
      return false;
    default:
      return true;
  }
}

bool IsUnreachable(AERROR error) {
  return error == DEVICE_NOT_READY || error == NET_WRITE_FAILED;
}

bool IsCancelled(AERROR error) {
  return error == READ_CANCELED || error == UPLOAD_CANCELED;
}

}  // namespace tarn::fs
