#pragma once

#include "interfaces/aerror.h"
#include "interfaces/iasyncq.h"
#include "interfaces/ilog.h"

// Blocks of remote files, on disk, under a capacity: the object that InitCache hands out, seen by
// the file-system library. Least recently used blocks go first; the capacity is never exceeded. Any
// thread may call it. Keys and versions are any texts; both are compared byte by byte.
//
// What is counted: blocks held or being written, each in units of 64 KiB. The one file that holds
// them all never becomes larger than the capacity; it keeps the disk space of forgotten blocks for
// new ones.
struct ICache {
  // 0: Copies block number `block` of the file `key` as it was at `version` into `buffer` and says
  // in *length how many bytes it has. CACHE_BLOCK_EMPTY: not held, or found damaged; the buffer's
  // content means nothing then. INSUFFICIENT_BUFFER: it has *length bytes, more than `capacity`.
  virtual AERROR ReadBlock(const char* key, const char* version, unsigned long long block,
                           void* buffer, unsigned int capacity, unsigned int* length) = 0;
  // 1: Holds a block, in place of one that is held under the same number. Blocks of the same key
  // with another version are dropped. SUCCESS also when there is no room for it: a full disk is no
  // error of the caller, the cache shrinks, or holds less. CACHE_WRITE_FAILED: the disk is broken.
  virtual AERROR WriteBlock(const char* key, const char* version, unsigned long long block,
                            const void* data, unsigned int length) = 0;
  // 2: Forgets every block of `key`.
  virtual void Drop(const char* key) = 0;
  virtual unsigned long long GetUsed() = 0;      // 3: bytes, as counted above
  virtual unsigned long long GetCapacity() = 0;  // 4: bytes
  // 5: The cache's folder. Work files of its user may stand in it under names that begin with ".";
  // they are not counted.
  virtual const char* GetFolder() = 0;

 protected:
  ~ICache() = default;
};

extern "C" {

// Starts a cache in an existing, empty folder. Returns 0 and an ICache in *cache, else an AERROR:
// CACHE_INVALID_PATH when there is no such folder, CACHE_TOO_SMALL for less than 1 MiB,
// CACHE_CREATE_FAILED when the folder cannot be written or has a cache already.
int InitCache(const char* path, long long capacity_bytes, void** cache);

// Ends the cache in `path`, named as at InitCache, and removes its blocks; nobody may use it any
// more. Returns 0; non-zero when there is none.
int ReleaseCache(const char* path);

// Lend the caches of this process a queue and a logger, which must live until the matching Unbind
// has returned. Errors go to the logger.
void Cache_BindAsyncQ(IAsyncQ* queue);
void Cache_BindLogger(ILog* logger);
void Cache_UnbindAsyncQ();
void Cache_UnbindLogger();
}
