#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

#include "common/drive_size.h"
#include "common/sync.h"
#include "common/throttle.h"
#include "interfaces/iprotocol_v2.h"
#include "modules/local/folder.h"

namespace tarn::local {

// A folder of this machine as the remote store of a drive. Made by GetProtocol and owned by the
// caller until Release. The operations may be called from several threads; Connect, Disconnect and
// Release from one, the last with no operation under way. Nothing throws.
class LocalProtocol final : public IProtocol_V2 {
 public:
  explicit LocalProtocol(std::string_view connection_id);
  ~LocalProtocol() = default;

  void Release() override;
  int GetUserName(char* buffer, int* length) override;
  AERROR GetSize(unsigned long long* total, unsigned long long* free) override;
  int SetSize(unsigned long long total, unsigned long long used) override;
  AERROR List(const char* path, FS_LIST_SINK sink, void* context) override;
  AERROR GetInfo(const char* path, FS_INFO* info) override;
  AERROR Read(const char* path, unsigned long long offset, void* buffer, unsigned long long length,
              unsigned long long* received) override;
  AERROR Upload(const char* path, FS_SOURCE* source, unsigned long long size, FS_PROGRESS progress,
                void* context) override;
  AERROR CreateFolder(const char* path) override;
  AERROR DeleteFile(const char* path) override;
  AERROR DeleteFolder(const char* path) override;
  AERROR Move(const char* from, const char* to) override;
  AERROR SetModifiedTime(const char* path, const FS_TIME* time) override;
  AERROR GetIdentity(char* buffer, int* length) override;
  AERROR Cancel() override;
  unsigned long long GetCapabilities() override;
  AERROR ReadVersion(const char* path, const char* version, unsigned long long offset, void* buffer,
                     unsigned long long length, unsigned long long* received) override;
  int SetOption(const char* key, const char* value) override;
  void Reserved18() override {}
  int GetCredential(char* buffer, int* length) override;
  void SetKeyFile(const char* path) override;
  AERROR Connect(char** message) override;
  AERROR Disconnect() override;
  void SetQuotaCallback(void* context, QUOTA_CALLBACK callback) override;
  void FreeString(char* text) override;

 private:
  [[nodiscard]] std::shared_ptr<const Folder> GetFolder();
  template <typename Operation>
  [[nodiscard]] AERROR WithFolder(Operation operation);

  std::string mount_point;  // of the drive; set before Connect
  std::string folder_path;  // set before Connect; empty: the connection id names no folder
  std::atomic<bool> may_move_folders{true};
  Throttle throttle;
  DriveSize drive_size;
  Mutex commit_lock;  // held while an upload takes its place; no other lock is taken inside

  Mutex folder_lock;
  std::shared_ptr<const Folder> folder TARN_GUARDED_BY(folder_lock);  // null: not connected
};

}  // namespace tarn::local
