#include "platform/filesystem/limited_protocol.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/filesystem/errors.h"
#include "platform/filesystem/path_locks.h"

namespace tarn::fs {

namespace {

constexpr int kMaxThreads = 128;      // who comes then waits for one of them, within its limit
constexpr int kMaxLeftBehind = 64;    // with more, nothing new is begun
constexpr size_t kMaxLeftProbes = 3;  // a module that returns from none of so many never will

constexpr auto kNoLonger = Clock::time_point::min();

template <typename T>
size_t CountLiving(std::vector<std::weak_ptr<T>>& list) {
  std::erase_if(list, [](const auto& item) { return item.expired(); });
  return list.size();
}

}  // namespace

LimitedProtocol::LimitedProtocol(std::shared_ptr<IProtocol_V2> limited, const Limits& times,
                                 Reachability::Listener told)
    : protocol(std::move(limited)),
      limits(times),
      listener(std::move(told)),
      helpers(std::make_shared<HelperThreads>(kMaxThreads)),
      askers(std::make_shared<HelperThreads>(static_cast<int>(kMaxLeftProbes) + 3)),
      suspension(times.asleep),
      reachability(
          times.pauses, [this] { return Probe(); }, [this](bool is_up) { Changed(is_up); }) {
  (void)Ask([](IProtocol_V2&) { return SUCCESS; });  // brings the capabilities
}

LimitedProtocol::~LimitedProtocol() {
  Close();
}

void LimitedProtocol::NoticeResume() {
  if (suspension.HasResumed()) {
    ++resumes;
    Cancel();
  }
}

Clock::time_point LimitedProtocol::NextLook(Clock::time_point begun, Clock::time_point deadline) {
  NoticeResume();
  const auto now = Clock::now();
  if (!reachability.IsReachable() || now >= deadline) {
    return kNoLonger;
  }
  if (now < begun + limits.doubt) {
    return std::min(begun + limits.doubt, deadline);
  }
  reachability.Doubt();
  return std::min(now + limits.doubt, deadline);
}

AERROR LimitedProtocol::Run(HelperThreads& threads, Operation operation, const Patience& patience) {
  const auto begun = Clock::now();
  const auto error = std::make_shared<AERROR>(DEVICE_NOT_READY);
  const auto ending = threads.Run(
      [called = protocol, operation = std::move(operation), error, abilities = capabilities] {
        *error = operation(*called);
        *abilities = called->GetCapabilities();
      },
      [&] { return closed ? kNoLonger : patience(begun); });
  if (ending == HelperThreads::Ending::kDone) {
    return *error == PENDING ? FAILED : *error;
  }
  return ending == HelperThreads::Ending::kLeftBehind ? PENDING : DEVICE_NOT_READY;
}

void LimitedProtocol::Note(AERROR error) {
  if (IsUnreachable(error) || error == PENDING) {
    reachability.Doubt();
  } else if (!IsCancelled(error)) {
    reachability.Answered();
  }
}

AERROR LimitedProtocol::RunLimited(Operation operation, const Patience& patience) {
  if (!reachability.IsReachable() || helpers->CountLeftBehind() >= kMaxLeftBehind) {
    return DEVICE_NOT_READY;
  }
  const AERROR error = Run(*helpers, std::move(operation), patience);
  Note(error);
  return error;
}

AERROR LimitedProtocol::RunReading(const Operation& operation, const Patience& patience) {
  NoticeResume();
  const int resumes_before = resumes;
  AERROR error = RunLimited(operation, patience);
  if (IsCancelled(error) && resumes != resumes_before) {
    error = RunLimited(operation, patience);
  }
  return error == PENDING ? DEVICE_NOT_READY : error;
}

AERROR LimitedProtocol::Ask(const Operation& operation) {
  return RunReading(operation, [this](Clock::time_point begun) {
    return NextLook(begun, begun + limits.metadata);
  });
}

bool LimitedProtocol::MeetsOneLeftBehind(const Paths& paths) {
  const MutexLock guard(lock);
  if (CountLiving(left_changes) == 0) {
    return false;
  }
  return std::any_of(left_changes.begin(), left_changes.end(), [&](const auto& change) {
    const auto others = change.lock();
    return others && Meet(paths, *others);
  });
}

AERROR LimitedProtocol::RunChange(Paths paths, Operation operation, const Patience& patience) {
  NoticeResume();
  if (MeetsOneLeftBehind(paths)) {
    return DEVICE_NOT_READY;
  }
  const auto shared = std::make_shared<const Paths>(std::move(paths));  // until the call has ended
  const std::weak_ptr<const Paths> changed = shared;
  const AERROR error = RunLimited([shared, operation = std::move(operation)](
                                      IProtocol_V2& called) { return operation(called); },
                                  patience);
  if (error != PENDING) {
    return error;
  }
  const MutexLock guard(lock);
  left_changes.push_back(changed);
  return DEVICE_NOT_READY;
}

AERROR LimitedProtocol::Change(Paths paths, Operation operation) {
  return RunChange(std::move(paths), std::move(operation), [this](Clock::time_point begun) {
    return NextLook(begun, begun + limits.metadata);
  });
}

AERROR LimitedProtocol::Read(const std::string& path, const std::string* version,
                             unsigned long long offset, const std::shared_ptr<Buffer>& buffer,
                             size_t& received) {
  const auto count = std::make_shared<unsigned long long>(0);
  const AERROR error = RunReading(
      [buffer, count, path, wanted = version != nullptr ? std::optional(*version) : std::nullopt,
       offset](IProtocol_V2& called) {
        return wanted
                   ? called.ReadVersion(path.c_str(), wanted->c_str(), offset, buffer->data(),
                                        buffer->size(), count.get())
                   : called.Read(path.c_str(), offset, buffer->data(), buffer->size(), count.get());
      },
      [this](Clock::time_point begun) { return NextLook(begun, begun + limits.read); });
  received = 0;
  if (error == SUCCESS && *count > buffer->size()) {
    return FAILED;
  }
  if (error == SUCCESS) {
    received = static_cast<size_t>(*count);
  }
  return error;
}

// Stands between a module and the source, which may go while the module still works.
class LimitedProtocol::UploadCall {
 public:
  UploadCall(FS_SOURCE& content, FS_PROGRESS told, void* context_of_told, Reachability& noted)
      : replaces(content.replaces != nullptr ? content.replaces : ""),
        modified(content.modified != nullptr ? *content.modified : FS_TIME{}),
        source(&content),
        progress(told),
        context(context_of_told),
        reachability(noted) {
    own.context = this;
    own.read = &UploadCall::Read;
    own.rewind = &UploadCall::Rewind;
    own.replaces = content.replaces != nullptr ? replaces.c_str() : nullptr;
    own.modified = content.modified != nullptr ? &modified : nullptr;
  }

  AERROR Send(IProtocol_V2& called, const std::string& path, unsigned long long size) {
    return called.Upload(path.c_str(), &own, size, &UploadCall::OnProgress, this);
  }
  // Nothing of the source is used any more after this.
  void Leave() {
    const MutexLock guard(lock);
    source = nullptr;
  }
  void GetVersion(FS_SOURCE& content) const {  // once the call has ended
    std::memcpy(content.version, own.version, sizeof content.version);
    content.version[sizeof content.version - 1] = '\0';
  }
  [[nodiscard]] Clock::time_point LastMove() const { return last_move; }

 private:
  static long long Read(void* call, void* buffer, long long length) {
    auto& self = *static_cast<UploadCall*>(call);
    const MutexLock guard(self.lock);
    self.last_move = Clock::now();
    return self.source == nullptr ? -1 : self.source->read(self.source->context, buffer, length);
  }
  static int Rewind(void* call) {
    auto& self = *static_cast<UploadCall*>(call);
    const MutexLock guard(self.lock);
    return self.source == nullptr ? -1 : self.source->rewind(self.source->context);
  }
  static void OnProgress(long long total, long long sent, void* call, double speed) {
    auto& self = *static_cast<UploadCall*>(call);
    const MutexLock guard(self.lock);
    if (self.source == nullptr) {
      return;
    }
    if (sent > self.last_sent) {
      self.last_sent = sent;
      self.last_move = Clock::now();
      self.reachability.Answered();
    }
    if (self.progress != nullptr) {
      self.progress(total, sent, self.context, speed);
    }
  }

  const std::string replaces;
  const FS_TIME modified;
  FS_SOURCE own = {};
  std::atomic<Clock::time_point> last_move = Clock::now();
  Mutex lock;
  FS_SOURCE* source TARN_GUARDED_BY(lock);  // null: nobody waits any more
  const FS_PROGRESS progress;
  void* const context;
  Reachability& reachability;  // lives while `source` is set
  long long last_sent TARN_GUARDED_BY(lock) = 0;
};

AERROR LimitedProtocol::Upload(const std::string& path, FS_SOURCE& source, unsigned long long size,
                               FS_PROGRESS progress, void* context) {
  const auto call = std::make_shared<UploadCall>(source, progress, context, reachability);
  const AERROR error = RunChange(
      {path}, [call, path, size](IProtocol_V2& called) { return call->Send(called, path, size); },
      [this, &call](Clock::time_point /*begun*/) {
        const auto moved = call->LastMove();
        return NextLook(moved, moved + limits.upload_stall);
      });
  call->Leave();
  if (error == SUCCESS) {
    call->GetVersion(source);
  }
  return error;
}

bool LimitedProtocol::Probe() {
  {
    const MutexLock guard(lock);
    if (CountLiving(left_probes) >= kMaxLeftProbes) {
      return false;
    }
  }
  AERROR error = READ_CANCELED;
  for (int attempt = 0; attempt < 2 && IsCancelled(error); ++attempt) {
    const auto shared = std::make_shared<const bool>();
    error = Run(
        *askers,
        [shared](IProtocol_V2& called) {
          FS_INFO info = {};
          return called.GetInfo("/", &info);
        },
        [this](Clock::time_point begun) {
          const auto deadline = begun + limits.probe;
          return Clock::now() < deadline ? deadline : kNoLonger;
        });
    if (error == PENDING) {
      const MutexLock guard(lock);
      left_probes.push_back(shared);
    }
  }
  if (error == PENDING && !reachability.IsReachable()) {
    Cancel();  // or no later probe has a chance with a module that serves one call at a time
  }
  return !IsUnreachable(error) && !IsCancelled(error) && error != PENDING;
}

void LimitedProtocol::Changed(bool is_reachable) {
  listener(is_reachable);
  if (!is_reachable) {
    helpers->WakeAll();
    Cancel();
  }
}

void LimitedProtocol::Cancel() {
  const auto deadline = Clock::now() + limits.cancel;
  (void)askers->Run([called = protocol] { (void)called->Cancel(); },  // one that cannot is left
                    [&] { return Clock::now() < deadline ? deadline : kNoLonger; });
}

void LimitedProtocol::Close() {
  if (closed.exchange(true)) {
    return;
  }
  helpers->WakeAll();
  askers->WakeAll();
  Cancel();
  reachability.Stop();
  helpers->Stop();
  askers->Stop();
}

}  // namespace tarn::fs
