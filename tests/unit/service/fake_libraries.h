#pragma once

#include <memory>
#include <string>
#include <vector>

#include "interfaces/ifsdrive.h"

namespace tarn::test {

// A mounted drive that remembers what it was given.
class FakeDrive final : public IFSDrive {
 public:
  int AddProtocol(std::shared_ptr<IProtocol_V2> protocol) override {
    protocols.push_back(std::move(protocol));
    return 0;
  }
  void Reserved1() override {}
  void Reserved2() override {}
  void Reserved3() override {}
  void Reserved4() override {}
  void Reserved5() override {}
  int GetProtocolCount() override { return static_cast<int>(protocols.size()); }
  int GetProtocolAt(int index, std::shared_ptr<IProtocol_V2>& protocol) override {
    protocol = protocols.at(static_cast<size_t>(index));
    return 0;
  }
  int SetFeatures(FS_FEATURE wanted) override { return (features = wanted, 0); }
  void Reserved9() override {}
  FS_FEATURE GetFeatures() override { return features; }
  int SetEventSink(std::shared_ptr<IFSEvent> sink) override {
    event_sink = std::move(sink);
    return 0;
  }

  std::vector<std::shared_ptr<IProtocol_V2>> protocols;
  std::shared_ptr<IFSEvent> event_sink;
  FS_FEATURE features = FS_FEATURE_NONE;
};

// What the stand-ins for the cache and file-system libraries were asked, and what they answer. Used
// by one test at a time.
struct FakeLibraries {
  std::string mount_point;
  std::string volume_name;
  int mode = 0;
  int mount_result = 0;
  int unmount_result = 0;
  int unmounts = 0;
  std::unique_ptr<FakeDrive> drive;  // while mounted
};

inline FakeLibraries libraries;

}  // namespace tarn::test
