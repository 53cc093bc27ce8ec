#pragma once

#include "interfaces/aerror.h"
#include "interfaces/fs_types.h"
#include "interfaces/irefobject.h"

// Asks for the drive's total and free bytes: context given to SetQuotaCallback, null, where to put
// the answer. Returns false when there is no valid answer; the values then mean nothing. May block
// for a minute: never to be called while a program waits.
using QUOTA_CALLBACK = bool (*)(void* context, void* reserved, long long* total, long long* free);

// One connection to a remote store, made by a protocol module.
//
// Paths are UTF-8, absolute within the drive, separated by "/"; the root is "/". The operations
// that return AERROR (but Connect and Disconnect) may be called from several threads at once. An
// operation that a module does not have answers NOT_SUPPORTED. Typical failures: FILE_NOT_FOUND,
// PATH_NOT_FOUND (the folder above is missing), ACCESS_DENIED, ALREADY_EXISTS, DIR_NOT_EMPTY,
// INVALID_NAME, DEVICE_NOT_READY (the remote cannot be reached), READ_CANCELED and UPLOAD_CANCELED
// (after Cancel). Buffers with a length: in its capacity, out the bytes of the text without its
// terminating zero; a text that does not fit is INSUFFICIENT_BUFFER.
struct IProtocol_V2 : IRefObject {
  virtual int GetUserName(char* buffer, int* length) = 0;                           // 1
  virtual AERROR GetSize(unsigned long long* total, unsigned long long* free) = 0;  // 2: bytes
  virtual int SetSize(unsigned long long total, unsigned long long used) = 0;       // 3: bytes
  virtual AERROR List(const char* path, FS_LIST_SINK sink, void* context) = 0;      // 4
  virtual AERROR GetInfo(const char* path, FS_INFO* info) = 0;                      // 5
  // 6: up to `length` bytes from `offset`; fewer than asked for only at the end of the file.
  virtual AERROR Read(const char* path, unsigned long long offset, void* buffer,
                      unsigned long long length, unsigned long long* received) = 0;
  // 7: stores `size` bytes of `source` as the file `path`, replacing an older one as a whole or not
  // at all. `progress` may be null.
  virtual AERROR Upload(const char* path, FS_SOURCE* source, unsigned long long size,
                        FS_PROGRESS progress, void* context) = 0;
  virtual AERROR CreateFolder(const char* path) = 0;  // 8
  virtual AERROR DeleteFile(const char* path) = 0;    // 9
  virtual AERROR DeleteFolder(const char* path) = 0;  // 10: empty ones
  // 11: renames; a file at `to` is replaced, a folder at `to` must be empty. NOT_SUPPORTED: the
  // caller copies instead.
  virtual AERROR Move(const char* from, const char* to) = 0;
  virtual AERROR SetModifiedTime(const char* path, const FS_TIME* time) = 0;  // 12
  // 13: names the remote (type, place, user) in a text that stays the same between runs.
  virtual AERROR GetIdentity(char* buffer, int* length) = 0;
  virtual AERROR Cancel() = 0;                       // 14: running transfers fail soon
  virtual unsigned long long GetCapabilities() = 0;  // 15: FS_CAPABILITY bits
  // 16: as Read, but bytes of this version of the file only, a text that GetInfo or List delivered.
  // SHARING_VIOLATION, with nothing received, where the file is another by now. Called only on what
  // has FS_CAN_READ_VERSION.
  virtual AERROR ReadVersion(const char* path, const char* version, unsigned long long offset,
                             void* buffer, unsigned long long length,
                             unsigned long long* received) = 0;
  virtual int SetOption(const char* key, const char* value) = 0;  // 17
  virtual void Reserved18() = 0;
  virtual int GetCredential(char* buffer, int* length) = 0;  // 19
  virtual void SetKeyFile(const char* path) = 0;             // 20
  // 21: may hand out a message for people; the caller gives it back with FreeString.
  virtual AERROR Connect(char** message) = 0;
  virtual AERROR Disconnect() = 0;                                            // 22
  virtual void SetQuotaCallback(void* context, QUOTA_CALLBACK callback) = 0;  // 23
  virtual void FreeString(char* text) = 0;                                    // 24

 protected:
  ~IProtocol_V2() = default;
};
