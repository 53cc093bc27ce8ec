#include "modules/local/errors.h"

#include <cerrno>

namespace tarn::local {

AERROR ErrorOf(int error_number) {
  switch (error_number) {
    case ENOENT:
      return FILE_NOT_FOUND;
    case ENOTDIR:
    case ELOOP:
      return PATH_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EISDIR:
      return ACCESS_DENIED;
    case EROFS:
      return WRITE_PROTECT;
    case EEXIST:
      return ALREADY_EXISTS;
    case ENOTEMPTY:
      return DIR_NOT_EMPTY;
    case ENAMETOOLONG:
    case EILSEQ:
      return INVALID_NAME;
    case EINVAL:
      return INVALID_PARAMETER;
    case EXDEV:
    case ENOTSUP:
    case EMLINK:
      return NOT_SUPPORTED;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return FILE_WRITE_FAILED;
    case EIO:
    case ENODEV:
    case ENXIO:
    case ESTALE:
    case ETIMEDOUT:
      return DEVICE_NOT_READY;
    default:
      return FAILED;
  }
}

}  // namespace tarn::local
