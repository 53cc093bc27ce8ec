#pragma once

// Plain C types that cross between the file-system library and the protocol modules.

inline constexpr int FS_VERSION_BYTES = 256;  // a version text with its terminating zero

struct FS_TIME {
  long long seconds;  // since 1970-01-01T00:00:00Z
  int nanoseconds;    // 0 to 999,999,999
};

// What is known of one file or folder.
struct FS_INFO {
  int is_folder;                   // 1 folder, 0 file
  unsigned long long size;         // bytes; 0 for a folder
  FS_TIME modified;                // last change of the content
  char version[FS_VERSION_BYTES];  // zero-terminated, not empty for a file; differs whenever the
                                   // content does (an ETag; else made of time and size)
};

// Receives one entry of a listing. `name` (UTF-8, without "/") and `info` are valid during the call
// only. Returns 0 to end the listing early, anything else to go on.
using FS_LIST_SINK = int (*)(void* context, const char* name, const FS_INFO* info);

// Progress of an upload, called from the uploading thread: bytes in all, bytes sent so far, the
// context given with it, current bytes per second.
using FS_PROGRESS = void (*)(long long total, long long sent, void* context, double speed);

// The content of a file on its way to the remote, and what is known about its place there.
struct FS_SOURCE {
  void* context;  // passed to read and rewind

  // Puts up to `length` bytes of content at `buffer` and moves on. Returns the number of bytes,
  // 0 at the end, -1 when the content cannot be read (the upload must then fail).
  long long (*read)(void* context, void* buffer, long long length);

  // Back to the first byte, for another attempt. Returns 0 when done.
  int (*rewind)(void* context);

  // The version that this upload replaces. Null: replace whatever is there. Empty: nothing may be
  // there yet. A module with FS_CAN_REPLACE_VERSION answers SHARING_VIOLATION when the remote holds
  // anything else; other modules ignore it.
  const char* replaces;

  const FS_TIME* modified;  // the time to store with the file; null: the time of the upload

  char version[FS_VERSION_BYTES];  // out: the version of what was stored; empty: ask with GetInfo
};

// What a protocol can do beyond the least; answer of IProtocol_V2::GetCapabilities, or-ed.
enum FS_CAPABILITY : unsigned long long {
  FS_CAN_SET_TIME = 0x1,         // SetModifiedTime, and FS_SOURCE::modified is stored
  FS_CAN_REPLACE_VERSION = 0x2,  // honours FS_SOURCE::replaces
  FS_HAS_SIZE = 0x4,             // GetSize answers
  FS_CAN_READ_VERSION = 0x8,     // ReadVersion
};
