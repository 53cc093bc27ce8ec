#pragma once

#include "interfaces/aerror.h"
#include "interfaces/fs_event.h"
#include "interfaces/irefobject.h"

// Receives what happens on a mounted drive. Called by the file-system library on its own threads,
// several at a time; must not call back into the drive. Texts are UTF-8 and valid during the call.
// `path` is the path within the drive, `origin_path` the path it had before (a move) or the same.
// `protmsg`, the remote's own message, may be null.
struct IFSEvent : IRefObject {
  virtual void BeginUpload(const char* path, const char* origin_path, const char* extra) = 0;  // 1
  // 2: bytes in all, bytes sent, bytes per second
  virtual void Uploading(const char* path, const char* origin_path, long long total, long long sent,
                         double speed) = 0;
  virtual void EndUpload(AERROR error, const char* path, const char* origin_path,
                         const char* protmsg) = 0;  // 3
  virtual void Error(FS_EVENT operation, AERROR error, const char* path, const char* origin_path,
                     const char* protmsg) = 0;  // 4
  virtual bool UserAction(AERROR error, const char* path, const char* origin_path, char* buffer,
                          int size) = 0;         // 5: true: go on
  virtual void Unmounted(const char* path) = 0;  // 6: the mount point of a volume that went away

 protected:
  ~IFSEvent() = default;
};
