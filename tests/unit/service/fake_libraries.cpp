#include "tests/unit/service/fake_libraries.h"

#include "interfaces/cache.h"
#include "interfaces/filesystem.h"

tarn::test::FakeLibraries& tarn::test::Libraries() {
  static FakeLibraries libraries;
  return libraries;
}

using tarn::test::Libraries;

int Mount(const char* mount_point, const char* volume_name, int mode, IFSDrive** drive, void*) {
  Libraries().mount_point = mount_point;
  Libraries().volume_name = volume_name;
  Libraries().mode = mode;
  if (Libraries().mount_result == 0) {
    Libraries().drive = std::make_unique<tarn::test::FakeDrive>();
    *drive = Libraries().drive.get();
  }
  return Libraries().mount_result;
}

int Unmount(const char* /*mount_point*/) {
  ++Libraries().unmounts;
  if (Libraries().unmount_result == 0) {
    Libraries().drive.reset();
  }
  return Libraries().unmount_result;
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
