#include "platform/filesystem/volume.h"

#include <system_error>
#include <utility>

#include "common/folders.h"
#include "platform/filesystem/bindings.h"

namespace tarn::fs {

namespace {

using std::chrono::seconds;

constexpr seconds kNoProgress{30};      // an upload that does not move for so long is given up
constexpr seconds kAfterCancel{15};     // a cancelled call should have ended by then
constexpr seconds kServingThreads{30};  // calls that programs still wait for when the session ends
constexpr seconds kGone{120};           // all of what the keeper does, at worst

// Where files that are closed but not sent outlive this process. Null without a service's name.
std::unique_ptr<Journal> OpenJournal(const std::string& label) {
  const std::string service = Bindings::Get().GetServiceName();
  const std::string home = HomeFolder();
  if (service.empty() || home.empty()) {
    return nullptr;
  }
  const std::string name = FolderName(service);
  return Journal::Open(home + "/Library/Application Support/" + name + "/_unsent_",
                       label.empty() ? name : label);
}

}  // namespace

Volume::Volume(std::string given_mount_point, const Limits& limits)
    : given_path(std::move(given_mount_point)),
      files(std::make_shared<FileSystem>(FileSystem::kAttributeTimeOut, limits)),
      loop(std::make_shared<FuseLoop>(files, limits.signal_grace)) {}

AERROR Volume::Start(const std::string& label) {
  if (const AERROR error = mount_point.Take(given_path); error != SUCCESS) {
    return error;
  }
  files->UseJournal(OpenJournal(label));
  const bool serves = loop->Start(mount_point.GetPath(), label);
  if (mount_point.Confirm() && serves) {
    try {
      std::thread([self = shared_from_this()] { self->Keep(); }).detach();
      return SUCCESS;
    } catch (const std::system_error&) {  // undone below
    }
  }
  (void)mount_point.Unmount(true);
  loop->Stop();
  (void)loop->WaitIdle(kServingThreads);
  loop->Abort();
  mount_point.GiveBack();
  return FS_MOUNT_ERROR;
}

void Volume::SendWhatIsLeft() {
  const size_t left = files->SendAll(gave_up ? seconds::zero() : kNoProgress);
  if (left > 0) {
    files->GetRemote().Cancel();
    if (!gave_up.exchange(true)) {
      const size_t lost = std::min(left, files->CountLost());
      files->GetEvents().LeftUnsent(given_path, left - lost, lost);
    }
  }
}

bool Volume::TakeAway() {
  if (mount_point.IsMounted() && mount_point.Unmount(false)) {
    return true;
  }
  if (!mount_point.Unmount(true)) {
    return false;
  }
  // Detached, by this or from outside: while programs have files open, the kernel does not end the
  // connection.
  loop->Stop();
  return true;
}

AERROR Volume::Stop() {
  const MutexLock one_at_a_time(stopping);
  if (!IsGone()) {
    SendWhatIsLeft();
    if (!TakeAway()) {
      gave_up = false;
      return FS_UNMOUNT_FAILED;
    }
  }
  const auto deadline = Clock::now() + kGone;
  const MutexLock guard(lock);
  while (!gone && ended.wait_until(lock, deadline)) {
  }
  return SUCCESS;
}

void Volume::Keep() {
  loop->WaitEnded();
  if (!loop->WaitIdle(kServingThreads)) {
    files->GetRemote().Cancel();
    (void)loop->WaitIdle(kAfterCancel);
  }
  loop->Abort();
  SendWhatIsLeft();
  if (!files->GetRemote().Close()) {
    Log(LOGLEVEL_ERROR, "a protocol of %s does not come back", given_path.c_str());
  }
  files->CloseAll();
  mount_point.GiveBack();
  files->GetEvents().Unmounted(given_path);
  files->GetEvents().SetSink(nullptr);
  const MutexLock guard(lock);
  gone = true;
  ended.notify_all();
}

bool Volume::IsAt(const std::string& path) const {
  return path == given_path || path == mount_point.GetPath();
}

bool Volume::IsGone() const {
  const MutexLock guard(lock);
  return gone;
}

int Volume::AddProtocol(std::shared_ptr<IProtocol_V2> protocol) {
  if (!protocol) {
    return INVALID_PARAMETER;
  }
  files->AddProtocol(std::move(protocol));
  loop->ForgetFolder(kRootIno);
  return SUCCESS;
}

int Volume::GetProtocolCount() {
  return files->GetRemote().Count();
}

int Volume::GetProtocolAt(int index, std::shared_ptr<IProtocol_V2>& protocol) {
  protocol = files->GetRemote().At(index);
  return protocol ? SUCCESS : INVALID_PARAMETER;
}

int Volume::SetFeatures(FS_FEATURE new_features) {
  const MutexLock guard(lock);
  features = new_features;
  return SUCCESS;
}

FS_FEATURE Volume::GetFeatures() {
  const MutexLock guard(lock);
  return features;
}

int Volume::SetEventSink(std::shared_ptr<IFSEvent> event_sink) {
  files->GetEvents().SetSink(std::move(event_sink));
  return SUCCESS;
}

}  // namespace tarn::fs
