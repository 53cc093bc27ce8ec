#include "tests/unit/service/fake_libraries.h"

#include "interfaces/cache.h"
#include "interfaces/filesystem.h"

using tarn::test::libraries;

int Mount(const char* mount_point, const char* volume_name, int mode, IFSDrive** drive, void*) {
  libraries.mount_point = mount_point;
  libraries.volume_name = volume_name;
  libraries.mode = mode;
  if (libraries.mount_result == 0) {
    libraries.drive = std::make_unique<tarn::test::FakeDrive>();
    *drive = libraries.drive.get();
  }
  return libraries.mount_result;
}

int Unmount(const char* /*mount_point*/) {
  ++libraries.unmounts;
  if (libraries.unmount_result == 0) {
    libraries.drive.reset();
  }
  return libraries.unmount_result;
}

void FS_Initialize(const char*) {}
void FS_BindAsyncQ(IAsyncQ*) {}
void FS_BindCache(void*) {}
void FS_BindLogger(int, ILog*) {}
void FS_UnbindAsyncQ() {}
void FS_UnbindCache() {}
void FS_UnbindLogger() {}
int InitCache(const char*, long long, void**) {
  return CACHE_INVALID_PATH;
}
int ReleaseCache(const char*) {
  return 0;
}
void Cache_BindAsyncQ(IAsyncQ*) {}
void Cache_BindLogger(ILog*) {}
void Cache_UnbindAsyncQ() {}
void Cache_UnbindLogger() {}
