#include "platform/filesystem/remote.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <unordered_set>
#include <utility>

#include "platform/filesystem/names.h"

namespace tarn::fs {

namespace {

bool IsNotFound(AERROR error) {
  return error == FILE_NOT_FOUND || error == PATH_NOT_FOUND;
}

Attributes FromInfo(const FS_INFO& info, int protocol) {
  constexpr auto max_size =
      static_cast<unsigned long long>(std::numeric_limits<long long>::max());  // what stat can say
  Attributes attributes;
  attributes.is_folder = info.is_folder != 0;
  attributes.size = attributes.is_folder ? 0 : std::min(info.size, max_size);
  attributes.modified = {info.modified.seconds,
                         std::clamp(info.modified.nanoseconds, 0, 999'999'999)};
  if (!attributes.is_folder) {
    attributes.version.assign(info.version, ::strnlen(info.version, sizeof info.version));
  }
  attributes.protocol = protocol;
  return attributes;
}

// Collects one protocol's listing, on the thread of the call; entries that an earlier one has are
// hidden by it.
struct Collector {
  std::vector<Entry> entries;
  std::unordered_set<std::string> names;
  int protocol;

  static int Add(void* context, const char* name, const FS_INFO* info) {
    auto& self = *static_cast<Collector*>(context);
    if (name != nullptr && info != nullptr && IsValidName(name) && self.names.insert(name).second) {
      self.entries.push_back({name, FromInfo(*info, self.protocol)});
    }
    return 1;
  }
};

}  // namespace

template <typename Operation>
AERROR Remote::Run(int index, Operation operation) {
  std::shared_ptr<LimitedProtocol> protocol;
  {
    const MutexLock guard(lock);
    if (closed) {
      return DEVICE_NOT_READY;
    }
    if (index < 0 || static_cast<size_t>(index) >= protocols.size()) {
      return FILE_NOT_FOUND;
    }
    protocol = protocols[static_cast<size_t>(index)];
    ++running;
  }
  const AERROR error = operation(*protocol);
  protocol.reset();  // before the count falls: Close promises that nothing of the module runs
  const MutexLock guard(lock);
  if (--running == 0) {
    idle.notify_all();
  }
  return error;
}

int Remote::Add(std::shared_ptr<IProtocol_V2> protocol) {
  auto limited = std::make_shared<LimitedProtocol>(
      std::move(protocol), limits, [this](bool is_reachable) { Told(is_reachable); });
  const MutexLock guard(lock);
  protocols.push_back(std::move(limited));
  return static_cast<int>(protocols.size()) - 1;
}

std::string Remote::GetIdentity(int protocol) {
  constexpr int buffer_bytes = 4096;
  const auto text = std::make_shared<std::string>(buffer_bytes, '\0');
  const auto length = std::make_shared<int>(buffer_bytes);
  const AERROR error = Run(protocol, [&](LimitedProtocol& limited) {
    return limited.Ask([text, length](IProtocol_V2& called) {
      return called.GetIdentity(text->data(), length.get());
    });
  });
  const bool is_told = error == SUCCESS && *length > 0 && *length < buffer_bytes;
  return is_told ? text->substr(0, static_cast<size_t>(*length)) : "";
}

void Remote::Told(bool is_reachable) {
  const MutexLock guard(telling);
  const int before = unreachable_protocols;
  const int now = before + (is_reachable ? -1 : 1);
  unreachable_protocols = now;
  if (listener && (before == 0 || now == 0)) {
    listener(is_reachable);
  }
}

Remote::Protocols Remote::GetProtocols() const {
  const MutexLock guard(lock);
  return protocols;
}

std::optional<std::chrono::system_clock::time_point> Remote::UnreachableSince() const {
  std::optional<std::chrono::system_clock::time_point> first;
  for (const auto& protocol : GetProtocols()) {
    const auto since = protocol->GetReachability().UnreachableSince();
    if (since && (!first || *since < *first)) {
      first = since;
    }
  }
  return first;
}

AERROR Remote::WithoutProtocols(AERROR otherwise) const {
  const MutexLock guard(lock);
  return closed ? DEVICE_NOT_READY : otherwise;
}

int Remote::Count() const {
  const MutexLock guard(lock);
  return static_cast<int>(protocols.size());
}

std::shared_ptr<IProtocol_V2> Remote::At(int index) const {
  const MutexLock guard(lock);
  const bool exists = index >= 0 && static_cast<size_t>(index) < protocols.size();
  return exists ? protocols[static_cast<size_t>(index)]->Get() : nullptr;
}

template <typename Operation>
AERROR Remote::RunRead(int index, size_t& received, Operation operation) {
  received = 0;
  const Line::Transfer transfer = line.Begin();
  const AERROR error = Run(index, operation);
  if (error == SUCCESS) {
    line.End(transfer, received);
  }
  return error;
}

AERROR Remote::InfoFrom(int index, const std::string& path, Attributes& attributes) {
  const auto info = std::make_shared<FS_INFO>();
  size_t no_content = 0;
  const AERROR error = RunRead(index, no_content, [&](LimitedProtocol& protocol) {
    return protocol.Ask(
        [info, path](IProtocol_V2& called) { return called.GetInfo(path.c_str(), info.get()); });
  });
  if (error == SUCCESS) {
    attributes = FromInfo(*info, index);
  }
  return error;
}

AERROR Remote::GetInfo(const std::string& path, Attributes& attributes) {
  const int count = Count();
  for (int index = 0; index < count; ++index) {
    const AERROR error = InfoFrom(index, path, attributes);
    if (!IsNotFound(error)) {
      return error;
    }
  }
  return WithoutProtocols(FILE_NOT_FOUND);
}

AERROR Remote::ListFrom(int index, const std::string& path, std::vector<Entry>& entries) {
  const auto collector = std::make_shared<Collector>(Collector{{}, {}, index});
  for (const Entry& entry : entries) {
    collector->names.insert(entry.name);
  }
  const AERROR error = Run(index, [&](LimitedProtocol& protocol) {
    return protocol.Ask([collector, path](IProtocol_V2& called) {
      return called.List(path.c_str(), &Collector::Add, collector.get());
    });
  });
  if (error == SUCCESS) {
    entries.insert(entries.end(), std::make_move_iterator(collector->entries.begin()),
                   std::make_move_iterator(collector->entries.end()));
  }
  return error;
}

AERROR Remote::List(const std::string& path, std::vector<Entry>& entries) {
  entries.clear();
  const int count = Count();
  AERROR result = WithoutProtocols(count == 0 && path == "/" ? SUCCESS : FILE_NOT_FOUND);
  for (int index = 0; index < count; ++index) {
    const AERROR error = ListFrom(index, path, entries);
    // A listing that lacks what one of several could not tell would look like deleted files.
    if (error != SUCCESS && !IsNotFound(error) && !(count > 1 && error == INVALID_DIRECTORY)) {
      return error;
    }
    if (error == SUCCESS || count == 1) {
      result = error;
    }
  }
  return result;
}

AERROR Remote::Read(int protocol, const std::string& path, unsigned long long offset,
                    const std::shared_ptr<Buffer>& buffer, size_t& received) {
  return RunRead(protocol, received, [&](LimitedProtocol& remote) {
    return remote.Read(path, nullptr, offset, buffer, received);
  });
}

bool Remote::ReadsVersions(int protocol) const {
  return Can(protocol, FS_CAN_READ_VERSION);
}

AERROR Remote::ReadVersion(const Attributes& file, const std::string& path,
                           unsigned long long offset, const std::shared_ptr<Buffer>& buffer,
                           size_t& received) {
  return RunRead(file.protocol, received, [&](LimitedProtocol& remote) {
    return remote.Read(path, &file.version, offset, buffer, received);
  });
}

AERROR Remote::FindFolder(const std::string& path, int& protocol) {
  const int count = Count();
  protocol = 0;
  if (count == 1 || (path == "/" && count > 0)) {
    return SUCCESS;  // it will answer for itself when it lacks the folder
  }
  for (int index = 0; index < count; ++index) {
    Attributes attributes;
    const AERROR error = InfoFrom(index, path, attributes);
    if (error == SUCCESS && attributes.is_folder) {
      protocol = index;
      return SUCCESS;
    }
    if (error != SUCCESS && !IsNotFound(error)) {
      return error;
    }
  }
  return WithoutProtocols(PATH_NOT_FOUND);
}

AERROR Remote::FindPlaceFor(const std::string& path, int& protocol) {
  if (Count() > 1) {
    Attributes existing;
    const AERROR error = GetInfo(path, existing);
    protocol = existing.protocol;
    if (!IsNotFound(error)) {
      return error;
    }
  }
  return FindFolder(std::string(FolderOf(path)), protocol);
}

AERROR Remote::Upload(const std::string& path, FS_SOURCE& source, unsigned long long size,
                      FS_PROGRESS progress, void* context, int& protocol) {
  if (const AERROR error = FindPlaceFor(path, protocol); error != SUCCESS) {
    return error;
  }
  return Run(protocol, [&](LimitedProtocol& remote) {
    return remote.Upload(path, source, size, progress, context);
  });
}

AERROR Remote::CreateFolder(const std::string& path) {
  int protocol = 0;
  if (const AERROR error = FindFolder(std::string(FolderOf(path)), protocol); error != SUCCESS) {
    return error;
  }
  return Run(protocol, [&](LimitedProtocol& remote) {
    return remote.Change(
        {path}, [path](IProtocol_V2& called) { return called.CreateFolder(path.c_str()); });
  });
}

AERROR Remote::DeleteFile(const std::string& path) {
  Attributes attributes;
  if (Count() > 1) {
    if (const AERROR error = GetInfo(path, attributes); error != SUCCESS) {
      return error;
    }
  }
  return Run(attributes.protocol, [&](LimitedProtocol& remote) {
    return remote.Change({path},
                         [path](IProtocol_V2& called) { return called.DeleteFile(path.c_str()); });
  });
}

AERROR Remote::DeleteFolder(const std::string& path) {
  const int count = Count();
  if (count > 1) {
    std::vector<Entry> entries;  // of all of them, before one loses its part
    if (const AERROR error = List(path, entries); error != SUCCESS || !entries.empty()) {
      return error != SUCCESS ? error : DIR_NOT_EMPTY;
    }
  }
  AERROR result = WithoutProtocols(FILE_NOT_FOUND);
  for (int index = 0; index < count; ++index) {
    const AERROR error = Run(index, [&](LimitedProtocol& remote) {
      return remote.Change(
          {path}, [path](IProtocol_V2& called) { return called.DeleteFolder(path.c_str()); });
    });
    if (error != SUCCESS && !IsNotFound(error)) {
      return error;
    }
    if (error == SUCCESS) {
      result = SUCCESS;
    }
  }
  return result;
}

AERROR Remote::Move(const std::string& from, const std::string& to) {
  int place = 0;
  if (const int count = Count(); count > 1) {
    int holders = 0;
    for (int index = 0; index < count; ++index) {
      Attributes attributes;
      const AERROR error = InfoFrom(index, from, attributes);
      if (error != SUCCESS && !IsNotFound(error)) {
        return error;
      }
      if (error == SUCCESS && holders++ == 0) {
        place = index;
      }
    }
    int target = 0;
    if (const AERROR error = FindPlaceFor(to, target); error != SUCCESS || holders == 0) {
      return error != SUCCESS ? error : FILE_NOT_FOUND;
    }
    if (holders > 1 || target != place) {
      return NOT_SUPPORTED;
    }
  }
  return Run(place, [&](LimitedProtocol& remote) {
    return remote.Change({from, to}, [from, to](IProtocol_V2& called) {
      return called.Move(from.c_str(), to.c_str());
    });
  });
}

AERROR Remote::SetModifiedTime(const std::string& path, const FS_TIME& time) {
  Attributes attributes;
  if (Count() > 1) {
    if (const AERROR error = GetInfo(path, attributes); error != SUCCESS) {
      return error;
    }
  }
  if (!KeepsTimes(attributes.protocol)) {
    return NOT_SUPPORTED;
  }
  return Run(attributes.protocol, [&](LimitedProtocol& remote) {
    return remote.Change({path}, [path, time](IProtocol_V2& called) {
      return called.SetModifiedTime(path.c_str(), &time);
    });
  });
}

AERROR Remote::GetSize(unsigned long long& total, unsigned long long& free) {
  AERROR result = NOT_SUPPORTED;
  total = free = 0;
  for (int index = 0, count = Count(); index < count; ++index) {
    struct Size {
      unsigned long long total = 0;
      unsigned long long free = 0;
    };
    const auto size = std::make_shared<Size>();
    const AERROR error = Run(index, [&](LimitedProtocol& remote) {
      return remote.Ask(
          [size](IProtocol_V2& called) { return called.GetSize(&size->total, &size->free); });
    });
    if (error == SUCCESS && size->free <= size->total) {
      result = SUCCESS;
      total += size->total;
      free += size->free;
    }
  }
  return result;
}

bool Remote::CanReach(int protocol) const {
  const MutexLock guard(lock);
  const bool exists = protocol >= 0 && static_cast<size_t>(protocol) < protocols.size();
  return exists && protocols[static_cast<size_t>(protocol)]->GetReachability().IsReachable();
}

bool Remote::Can(int protocol, FS_CAPABILITY capability) const {
  const MutexLock guard(lock);
  const bool exists = protocol >= 0 && static_cast<size_t>(protocol) < protocols.size();
  return exists && (protocols[static_cast<size_t>(protocol)]->GetCapabilities() & capability) != 0;
}

bool Remote::KeepsTimes(int protocol) const {
  return Can(protocol, FS_CAN_SET_TIME);
}

void Remote::Cancel() {
  for (const auto& protocol : GetProtocols()) {
    protocol->Cancel();
  }
}

void Remote::Stop() {
  {
    const MutexLock guard(lock);
    closed = true;
  }
  for (const auto& protocol : GetProtocols()) {
    protocol->Close();
  }
}

bool Remote::Close() {
  Stop();
  const auto deadline = Clock::now() + limits.close;
  bool is_idle = true;
  for (const auto& protocol : GetProtocols()) {
    is_idle = protocol->WaitIdle(deadline) && is_idle;
  }
  Protocols done;  // let go of after the lock
  const MutexLock guard(lock);
  while (running > 0 && idle.wait_until(lock, deadline)) {
  }
  if (running > 0 || !is_idle) {
    return false;
  }
  done.swap(protocols);
  return true;
}

}  // namespace tarn::fs
