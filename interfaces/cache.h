#pragma once

#include "interfaces/aerror.h"
#include "interfaces/iasyncq.h"
#include "interfaces/ilog.h"

// Blocks of remote files, on disk, under a capacity: the object that InitCache hands out, seen by
// the file-system library. Least recently used blocks go first; the capacity is never exceeded. Any
// thread may call it.
struct ICache {
  // 0: Copies block number `block` of the file `key` as it was at `version` into `buffer`, at most
  // `capacity` bytes, and says in *length how many there are. CACHE_BLOCK_EMPTY: not held.
  virtual AERROR ReadBlock(const char* key, const char* version, unsigned long long block,
                           void* buffer, unsigned int capacity, unsigned int* length) = 0;
  // 1: Holds a block. Blocks of the same key with another version are dropped. A full disk is no
  // error of the caller: the cache shrinks, or holds less.
  virtual AERROR WriteBlock(const char* key, const char* version, unsigned long long block,
                            const void* data, unsigned int length) = 0;
  // 2: Forgets every block of `key`.
  virtual void Drop(const char* key) = 0;
  virtual unsigned long long GetUsed() = 0;      // 3: bytes on disk
  virtual unsigned long long GetCapacity() = 0;  // 4: bytes
  // 5: The cache's folder. Work files of its user may stand in it under names that begin with ".";
  // they are not counted.
  virtual const char* GetFolder() = 0;

 protected:
  ~ICache() = default;
};

extern "C" {

// Starts a cache in an existing, empty folder. Returns 0 and an ICache in *cache, else an AERROR.
int InitCache(const char* path, long long capacity_bytes, void** cache);

// Ends the cache in `path` and removes its blocks. Returns 0; non-zero when there is none.
int ReleaseCache(const char* path);

void Cache_BindAsyncQ(IAsyncQ* queue);
void Cache_BindLogger(ILog* logger);
void Cache_UnbindAsyncQ();
void Cache_UnbindLogger();
}
