#pragma once

#include "interfaces/fs_types.h"
#include "interfaces/iasyncq.h"
#include "interfaces/ifsdrive.h"
#include "interfaces/ilog.h"

// An open transfer as the HTTP helpers see it: where to report the progress of an upload.
struct _FS_HANDLE {
  FS_PROGRESS upload_progress;  // null: nobody wants to know
  void* upload_context;
};

extern "C" {

// Names the service, under whose data folder the library keeps what outlives a drive process.
void FS_Initialize(const char* service_name);

// Lend the library a queue, a cache (an ICache, interfaces/cache.h) and loggers: channel 1 is the
// process's, channel 2 may be empty. What was lent must live until the matching Unbind has
// returned.
void FS_BindAsyncQ(IAsyncQ* queue);
void FS_BindCache(void* cache);
void FS_BindLogger(int channel, ILog* logger);
void FS_UnbindAsyncQ();
void FS_UnbindCache();
void FS_UnbindLogger();

// Mounts an empty volume at a folder. Returns 0 when the volume answers, with the drive in *drive;
// otherwise an AERROR, with nothing left behind. Mode and the reserved pointer change nothing here.
int Mount(const char* mount_point, const char* volume_name, int mode, IFSDrive** drive,
          void* reserved);

// Takes a volume away once what was written to it is stored. Returns 0 when it is gone, also when
// it was gone already; otherwise an AERROR, the volume still in use.
int Unmount(const char* mount_point);
}
