#pragma once

#include <memory>

#include "interfaces/fs_feature.h"
#include "interfaces/ifsevent.h"
#include "interfaces/iprotocol_v2.h"

// A mounted drive, made by Mount of interfaces/filesystem.h. It belongs to the file-system library
// and is valid until Unmount of its mount point has returned 0. Any thread may call it.
struct IFSDrive {
  virtual int AddProtocol(std::shared_ptr<IProtocol_V2> protocol) = 0;  // 0
  virtual void Reserved1() = 0;
  virtual void Reserved2() = 0;
  virtual void Reserved3() = 0;
  virtual void Reserved4() = 0;
  virtual void Reserved5() = 0;
  virtual int GetProtocolCount() = 0;  // 6
  // 7: `protocol` stays empty when there is no such index. Returns 0 when it was found.
  virtual int GetProtocolAt(int index, std::shared_ptr<IProtocol_V2>& protocol) = 0;
  virtual int SetFeatures(FS_FEATURE features) = 0;  // 8
  virtual void Reserved9() = 0;
  virtual FS_FEATURE GetFeatures() = 0;  // 10
  virtual int SetEventSink(
      std::shared_ptr<IFSEvent> event_sink) = 0;  // 11: replaces the one before

 protected:
  ~IFSDrive() = default;
};
