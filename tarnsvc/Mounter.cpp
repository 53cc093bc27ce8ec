#include "tarnsvc/Mounter.h"

#include <algorithm>
#include <array>
#include <dirent.h>
#include <dlfcn.h>
#include <regex>
#include <sys/stat.h>
#include <vector>

#include "common/log.h"
#include "common/utils.h"
#include "interfaces/filesystem.h"
#include "interfaces/module.h"
#include "tarnsvc/FSEvent.h"
#include "tarnsvc/Result.h"
#include "tarnsvc/main.h"

namespace {

constexpr int kCurrentPathBytes = 512;
constexpr int kUserNameBytes = 4096;
constexpr int kCredentialBytes = 65536;
constexpr int kOptionMode1 = 0x1;
constexpr int kOptionFeature = 0x400;
constexpr char kTypeWithoutSpeedLimit[] = "ad_ftp";

struct ReleaseRef {
  void operator()(IRefObject* object) const {
    if (object != nullptr) {
      object->Release();
    }
  }
};
using OwnedProtocol = std::unique_ptr<IProtocol_V2, ReleaseRef>;

struct CloseFolder {
  void operator()(DIR* folder) const { ::closedir(folder); }
};
using Folder = std::unique_ptr<DIR, CloseFolder>;

struct UnloadLibrary {
  void operator()(void* library) const { ::dlclose(library); }
};
using Library = std::unique_ptr<void, UnloadLibrary>;

template <typename Function>
Function* FindExport(void* library, const char* name) {
  return reinterpret_cast<Function*>(::dlsym(library, name));
}

// The full paths of what could be a module, in the order of the folder.
std::vector<std::string> ModuleFiles() {
  std::array<char, kCurrentPathBytes> executable_folder = {};
  GetCurrentPath(executable_folder.data(), kCurrentPathBytes);
  const std::string prefix = std::string(executable_folder.data()) + "/../Frameworks/";
  std::vector<std::string> files;
  const Folder folder(executable_folder[0] != '\0' ? ::opendir(prefix.c_str()) : nullptr);
  while (const dirent* entry = folder ? ::readdir(folder.get()) : nullptr) {
    const std::string path = prefix + entry->d_name;
    struct stat status = {};
    if (entry->d_name[0] != '.' && ::stat(path.c_str(), &status) == 0 && !S_ISDIR(status.st_mode) &&
        ends_with(path, ".dylib")) {
      files.push_back(path);
    }
  }
  return files;
}

// Whether a loaded library is a protocol module that serves this type.
bool ServesType(void* library, const std::string& type) {
  auto* const get_types = FindExport<decltype(GetSupportProtocol)>(library, "GetSupportProtocol");
  auto* const give_back = FindExport<decltype(FreeP)>(library, "FreeP");
  if (get_types == nullptr || give_back == nullptr ||
      ::dlsym(library, "GetProtocolVersion") == nullptr) {
    return false;
  }
  char* list = nullptr;
  get_types(&list);
  if (list == nullptr) {
    return false;
  }
  const std::string types = list;
  give_back(list);
  for (const std::string& served : split(types, std::regex(";"))) {
    if (served == type) {
      return true;
    }
  }
  return false;
}

int ConnectResult(AERROR error) {
  switch (error) {
    case SUCCESS:
      return kOk;
    case ACCESS_DENIED:
      return kAccessDenied;
    case PATH_NOT_FOUND:
      return kPathNotFound;
    default:
      return kConnectFailed;
  }
}

}  // namespace

CMounter::CMounter(void* child_pipe)
    : owner(child_pipe), fs_event(std::make_unique<FSEvent>(child_pipe).release(), ReleaseRef{}) {}

CMounter::~CMounter() {
  if (let_go()) {
    unload_module();
  }
}

bool CMounter::let_go() {
  if (mounted) {
    unmount();
  }
  return !mounted && std::all_of(added.begin(), added.end(),
                                 [](const auto& protocol) { return protocol.expired(); });
}

void CMounter::unload_module() {
  if (module != nullptr) {
    ::dlclose(module);
    module = nullptr;
  }
}

void* CMounter::FindModule(const std::string& wanted_type) {
  for (const std::string& file : ModuleFiles()) {
    Library library(::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL));
    if (library && ServesType(library.get(), wanted_type)) {
      return library.release();
    }
  }
  return nullptr;
}

int CMounter::get_protocol(const Json& info, IProtocol_V2** out) {
  const auto watch = watch_service();
  *out = nullptr;
  module = FindModule(info.GetObject("/data/type"));
  if (module == nullptr) {
    return kNoDrive;
  }
  auto* const make_protocol = FindExport<decltype(GetProtocol)>(module, "GetProtocol");
  if (make_protocol == nullptr) {
    return kNoDrive;
  }
  if (auto* const bind_logger = FindExport<decltype(BindLogger)>(module, "BindLogger")) {
    bind_logger(logger);
  }
  std::string connection_id = url;
  if (info.HasObject("/data/cid")) {
    connection_id = static_cast<std::string>(info.GetObject("/data/cid"));
  }
  IProtocol_V2* made = nullptr;
  make_protocol(connection_id.c_str(), nullptr, &made);
  OwnedProtocol protocol(made);
  if (!protocol) {
    return kNoDrive;
  }
  protocol->SetOption("ex_info", info.ToText().c_str());
  if (info.HasObject("/data/key_file")) {
    if (const std::string key_file = info.GetObject("/data/key_file"); !key_file.empty()) {
      protocol->SetKeyFile(key_file.c_str());
    }
  }
  if (quota_callback != nullptr) {
    protocol->SetQuotaCallback(this, &CMounter::request_protocol_quota);
  }
  const int result = ConnectResult(connect(protocol.get()));
  if (result == kOk) {
    *out = protocol.release();
  } else {
    protocol.reset();  // before the code that ends it is unloaded
    unload_module();
  }
  return result;
}

// A module may take its time, and the service may go away meanwhile.
std::unique_ptr<tarn::ServiceWatch> CMounter::watch_service() {
  return std::make_unique<tarn::ServiceWatch>([this] {
    if (mounted) {
      unmount();
    }
  });
}

AERROR CMounter::connect(IProtocol_V2* protocol) {
  char* message = nullptr;
  const AERROR result = protocol->Connect(&message);
  if (message != nullptr) {
    connect_message = message;
    protocol->FreeString(message);
  }
  return result;
}

int CMounter::empty_mount(const Json& info, void* /*reserved*/) {
  const int mode = (option & kOptionMode1) != 0 ? 1 : 2;
  const std::string volume_name = ws2s(s2ws(label));
  if (Mount(drive.c_str(), volume_name.c_str(), mode, &fs_drive, nullptr) != 0) {
    return kMountFailed;
  }
  mounted = true;
  if ((option & kOptionFeature) != 0 && fs_drive != nullptr) {
    fs_drive->SetFeatures(fs_drive->GetFeatures() | FS_FEATURE_CLIENT);
  }
  if (info.HasObject("/data/icon_path")) {
    tarnmap_mount(info.GetObject("/data/icon_path"));
  }
  return kOk;
}

int CMounter::mount(const Json& info, void* reserved) {
  IProtocol_V2* made = nullptr;
  if (const int result = get_protocol(info, &made); result != kOk) {
    return result;
  }
  OwnedProtocol protocol(made);
  if (const int result = empty_mount(info, reserved); result != kOk) {
    return result;
  }
  add_protocol(protocol.release());
  return kOk;
}

void CMounter::add_protocol(IProtocol_V2* protocol) {
  tarn::MutexLock held(lock);
  const std::shared_ptr<IProtocol_V2> shared(protocol, ReleaseRef{});
  if (fs_drive != nullptr) {
    fs_drive->SetEventSink(fs_event);
    fs_drive->AddProtocol(shared);
    added.push_back(shared);
  }
}

int CMounter::get_add_protocol(const Json& message) {
  IProtocol_V2* protocol = nullptr;
  const int result = get_protocol(message, &protocol);
  if (result == kOk) {
    add_protocol(protocol);
  }
  return result;
}

int CMounter::remove_protocol(const Json& /*message*/) {
  return kNoDrive;
}

int CMounter::unmount() {
  unmounting = true;
  const int result = unmount(drive);
  if (result == 0) {
    mounted = false;
    fs_drive = nullptr;
  }
  tarnmap_unmount(drive);
  unmounting = false;
  return result;
}

int CMounter::unmount(const std::string& mount_point) {
  return Unmount(mount_point.c_str());
}

void CMounter::for_each_protocol(const std::function<void(IProtocol_V2&)>& operation) {
  const auto watch = watch_service();
  const int count = fs_drive != nullptr ? fs_drive->GetProtocolCount() : 0;
  for (int i = 0; i < count; ++i) {
    std::shared_ptr<IProtocol_V2> protocol;
    fs_drive->GetProtocolAt(i, protocol);
    if (protocol) {
      operation(*protocol);
    }
  }
}

void CMounter::set_size(unsigned long long total, unsigned long long free) {
  const unsigned long long used = total > free ? total - free : 0;
  for_each_protocol([&](IProtocol_V2& protocol) { protocol.SetSize(total, used); });
}

void CMounter::set_move_folder(int flag) {
  for_each_protocol([&](IProtocol_V2& protocol) {
    protocol.SetOption("allow_move", flag == 1 ? "true" : "false");
  });
}

void CMounter::set_speedlimit(long long speed) {
  const std::string limit = std::to_string(type == kTypeWithoutSpeedLimit ? 0 : speed);
  for_each_protocol(
      [&](IProtocol_V2& protocol) { protocol.SetOption("speedlimit", limit.c_str()); });
}

std::string CMounter::get_credential() {
  std::string credential;
  for_each_protocol([&](IProtocol_V2& protocol) {
    std::vector<char> buffer(kCredentialBytes + 1);
    int length = kCredentialBytes;
    protocol.GetCredential(buffer.data(), &length);
    credential = buffer.data();
  });
  return credential;
}

std::wstring CMounter::get_username() {
  std::wstring name;
  for_each_protocol([&](IProtocol_V2& protocol) {
    std::vector<char> buffer(kUserNameBytes + 1);
    int length = kUserNameBytes;
    protocol.GetUserName(buffer.data(), &length);
    name = s2ws(buffer.data());
  });
  return name;
}

bool CMounter::request_protocol_quota(void* context, void* /*reserved*/, long long* total,
                                      long long* free) {
  auto* const mounter = static_cast<CMounter*>(context);
  if (!mounter->size_callback_enabled || mounter->quota_callback == nullptr) {
    return false;
  }
  return mounter->quota_callback(mounter->owner, mounter->drive.data(), total, free);
}

// This platform shows no icons of volumes.
void CMounter::tarnmap_mount(const std::string& /*icon_path*/) {}
void CMounter::tarnmap_unmount(const std::string& /*mount_point*/) {}
