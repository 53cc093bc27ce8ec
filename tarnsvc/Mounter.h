#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/json.h"
#include "common/sync.h"
#include "interfaces/ifsdrive.h"
#include "interfaces/ifsevent.h"
#include "interfaces/iprotocol_v2.h"
#include "tarnsvc/ServiceWatch.h"

// Finds and loads the protocol module of the drive's type, connects its protocol object, mounts the
// drive through the file-system library, and passes the service's settings on to every protocol of
// the drive.
//
// Owned by: the child pipe. The protocols belong to the mounted drive, which lets go of them when
//           it is unmounted; only then may their module be unloaded.
// Threads:  mount() and empty_mount() on the main thread, before the receive thread starts, which
//           runs the rest; request_protocol_quota() on threads of the protocols.
// Locks:    `lock` serialises add_protocol().
// Errors:   result codes. Throws an AERROR for information that lacks a member it needs, and
//           std::range_error for text that is not UTF-8.
class CMounter {
 public:
  using QuotaProvider = bool (*)(void* owner, char* drive, long long* total, long long* free);

  explicit CMounter(void* child_pipe);
  // Unmounts a drive that is still mounted and unloads the module, unless somebody still uses it.
  ~CMounter();
  CMounter(const CMounter&) = delete;
  CMounter& operator=(const CMounter&) = delete;

  // Connects the protocol and mounts the drive with it. 0; -1 no module, 10, 11 or 12 the protocol
  // did not connect, -5 the volume could not be mounted. `reserved` is not used.
  [[nodiscard]] int mount(const Json& info, void* reserved);

  // Mounts the drive without a protocol: 0 or -5.
  [[nodiscard]] int empty_mount(const Json& info, void* reserved);

  // Makes and connects the protocol object that `info` asks for. On 0 it is the caller's to
  // release.
  [[nodiscard]] int get_protocol(const Json& info, IProtocol_V2** out);

  // Loads the first module in the Frameworks folder that serves `type`. Null when there is none.
  [[nodiscard]] void* FindModule(const std::string& wanted_type);

  [[nodiscard]] AERROR connect(IProtocol_V2* protocol);

  // Gives a connected protocol to the mounted drive.
  void add_protocol(IProtocol_V2* protocol);
  [[nodiscard]] int get_add_protocol(const Json& message);

  // Not supported: -1.
  [[nodiscard]] int remove_protocol(const Json& message);

  // The file-system library's result: 0 when the volume is gone.
  int unmount();
  int unmount(const std::string& mount_point);

  // Unmounts a drive that is still mounted. True: nothing uses this object or the module any more.
  [[nodiscard]] bool let_go();

  void set_size(unsigned long long total, unsigned long long free);  // bytes
  void set_move_folder(int flag);                                    // 1: folders may be moved
  void set_speedlimit(long long speed);                              // bytes per second, 0 no limit

  // Of the last protocol of the drive; empty when it has none.
  [[nodiscard]] std::string get_credential();
  [[nodiscard]] std::wstring get_username();

  // A QUOTA_CALLBACK; `context` is a CMounter.
  static bool request_protocol_quota(void* context, void* reserved, long long* total,
                                     long long* free);

  void tarnmap_mount(const std::string& icon_path);
  void tarnmap_unmount(const std::string& mount_point);

  std::string connect_message;
  std::string drive;
  std::string url;
  std::string label;
  std::string type;
  std::atomic<bool> unmounting{false};
  int option = 0;
  std::atomic<bool> size_callback_enabled{false};
  std::atomic<bool> mounted{false};
  void* const owner;
  QuotaProvider quota_callback = nullptr;

 private:
  void for_each_protocol(const std::function<void(IProtocol_V2&)>& operation);
  void unload_module();
  [[nodiscard]] std::unique_ptr<tarn::ServiceWatch> watch_service();

  IFSDrive* fs_drive = nullptr;
  tarn::Mutex lock;
  void* module = nullptr;
  std::shared_ptr<IFSEvent> fs_event;
  std::vector<std::weak_ptr<IProtocol_V2>> added;  // those that somebody still holds can be called
};
