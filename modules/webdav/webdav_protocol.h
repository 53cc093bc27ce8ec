#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "common/drive_size.h"
#include "common/sync.h"
#include "common/throttle.h"
#include "interfaces/iprotocol_v2.h"
#include "modules/webdav/remote.h"

namespace tarn::webdav {

// A folder on a WebDAV server as the remote store of a drive. Made by GetProtocol and owned by the
// caller until Release. The operations may be called from several threads; Connect, Disconnect and
// Release from one, the last with no operation under way. Nothing throws.
class WebdavProtocol final : public IProtocol_V2 {
 public:
  explicit WebdavProtocol(std::string server_url) : connection_id(std::move(server_url)) {}
  ~WebdavProtocol() = default;

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
  [[nodiscard]] std::shared_ptr<Remote> GetRemote();
  template <typename Operation>
  [[nodiscard]] AERROR WithRemote(Operation operation);
  template <typename Operation>
  [[nodiscard]] AERROR At(const char* path, Operation operation);
  [[nodiscard]] AERROR ConnectTo(std::string& message);

  const std::string connection_id;
  std::string mount_request;  // as JSON text; set before Connect
  std::atomic<bool> may_move_folders{true};
  Throttle throttle;
  DriveSize drive_size;

  Mutex remote_lock;
  std::shared_ptr<Remote> remote TARN_GUARDED_BY(remote_lock);  // null: not connected
};

}  // namespace tarn::webdav
