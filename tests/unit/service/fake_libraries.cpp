#include "tests/unit/service/fake_libraries.h"

#include "interfaces/cache.h"
#include "interfaces/filesystem.h"

namespace tarn::test {

int FakeDrive::AddProtocol(std::shared_ptr<IProtocol_V2> protocol) {
  protocols.push_back(std::move(protocol));
  return 0;
}

int FakeDrive::GetProtocolAt(int index, std::shared_ptr<IProtocol_V2>& protocol) {
  protocol = protocols.at(static_cast<size_t>(index));
  return 0;
}

int FakeDrive::SetFeatures(FS_FEATURE wanted) {
  features = wanted;
  return 0;
}

int FakeDrive::SetEventSink(std::shared_ptr<IFSEvent> sink) {
  event_sink = std::move(sink);
  return 0;
}

FakeLibraries& Libraries() {
  static FakeLibraries libraries;
  return libraries;
}

}  // namespace tarn::test

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
