#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "common/sync.h"
#include "interfaces/ifsdrive.h"
#include "platform/filesystem/file_system.h"
#include "platform/filesystem/fuse_loop.h"
#include "platform/filesystem/mount_point.h"

namespace tarn::fs {

// One mounted drive: a file system, the session that serves it, and the folder where it is mounted.
//
// A thread of its own, the keeper, waits for the end of the session, whoever ends it, and then
// stores what is left, lets go of the protocols and tells that the volume is gone.
//
// Owns:    all of it. Shared by the registry of mounted volumes and its keeper.
// Threads: any.
class Volume final : public IFSDrive, public std::enable_shared_from_this<Volume> {
 public:
  explicit Volume(std::string given_mount_point, const Limits& limits = {});

  // Mounts; 0 when the volume answers. On failure nothing is left.
  [[nodiscard]] AERROR Start(const std::string& label);
  // Stores what was written, then takes the volume away. 0: it is gone. Ends within a bounded time
  // after the last progress of an upload.
  [[nodiscard]] AERROR Stop();

  [[nodiscard]] bool IsAt(const std::string& path) const;
  [[nodiscard]] bool IsGone() const;

  int AddProtocol(std::shared_ptr<IProtocol_V2> protocol) override;
  void Reserved1() override {}
  void Reserved2() override {}
  void Reserved3() override {}
  void Reserved4() override {}
  void Reserved5() override {}
  int GetProtocolCount() override;
  int GetProtocolAt(int index, std::shared_ptr<IProtocol_V2>& protocol) override;
  int SetFeatures(FS_FEATURE new_features) override;
  void Reserved9() override {}
  FS_FEATURE GetFeatures() override;
  int SetEventSink(std::shared_ptr<IFSEvent> event_sink) override;

 private:
  // Gives up when nothing moves any more; what is left stays in the journal.
  void SendWhatIsLeft();
  void Keep();
  [[nodiscard]] bool TakeAway();

  const std::string given_path;
  const std::shared_ptr<FileSystem> files;
  const std::shared_ptr<FuseLoop> loop;
  MountPoint mount_point;

  std::atomic<bool> gave_up = false;  // to send what is left
  Mutex stopping;                     // one Stop at a time; comes before `lock`
  mutable Mutex lock;
  CondVar ended;
  bool gone TARN_GUARDED_BY(lock) = false;
  FS_FEATURE features TARN_GUARDED_BY(lock) = FS_FEATURE_NONE;
};

}  // namespace tarn::fs
