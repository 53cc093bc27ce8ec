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

// Collects one protocol's listing; entries that an earlier one has are hidden by it.
struct Collector {
  std::vector<Entry>* entries;
  std::unordered_set<std::string> names;
  int protocol;

  static int Add(void* context, const char* name, const FS_INFO* info) {
    auto& self = *static_cast<Collector*>(context);
    if (name != nullptr && info != nullptr && IsValidName(name) && self.names.insert(name).second) {
      self.entries->push_back({name, FromInfo(*info, self.protocol)});
    }
    return 1;
  }
};

}  // namespace

template <typename Operation>
AERROR Remote::Run(int index, Operation operation) {
  std::shared_ptr<IProtocol_V2> protocol;
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

void Remote::Add(std::shared_ptr<IProtocol_V2> protocol) {
  const MutexLock guard(lock);
  protocols.push_back(std::move(protocol));
}

int Remote::Count() const {
  const MutexLock guard(lock);
  return static_cast<int>(protocols.size());
}

std::shared_ptr<IProtocol_V2> Remote::At(int index) const {
  const MutexLock guard(lock);
  const bool exists = index >= 0 && static_cast<size_t>(index) < protocols.size();
  return exists ? protocols[static_cast<size_t>(index)] : nullptr;
}

AERROR Remote::InfoFrom(int index, const std::string& path, Attributes& attributes) {
  return Run(index, [&](IProtocol_V2& protocol) {
    FS_INFO info = {};
    const AERROR error = protocol.GetInfo(path.c_str(), &info);
    if (error == SUCCESS) {
      attributes = FromInfo(info, index);
    }
    return error;
  });
}

AERROR Remote::GetInfo(const std::string& path, Attributes& attributes) {
  const int count = Count();
  for (int index = 0; index < count; ++index) {
    const AERROR error = InfoFrom(index, path, attributes);
    if (!IsNotFound(error)) {
      return error;
    }
  }
  return FILE_NOT_FOUND;
}

AERROR Remote::ListFrom(int index, const std::string& path, std::vector<Entry>& entries) {
  Collector collector{&entries, {}, index};
  for (const Entry& entry : entries) {
    collector.names.insert(entry.name);
  }
  return Run(index, [&](IProtocol_V2& protocol) {
    return protocol.List(path.c_str(), &Collector::Add, &collector);
  });
}

AERROR Remote::List(const std::string& path, std::vector<Entry>& entries) {
  entries.clear();
  const int count = Count();
  AERROR result = count == 0 && path == "/" ? SUCCESS : FILE_NOT_FOUND;
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

template <typename Ask>
AERROR Remote::ReadFrom(int index, size_t length, size_t& received, Ask ask) {
  received = 0;
  return Run(index, [&](IProtocol_V2& protocol) {
    unsigned long long count = 0;
    const AERROR error = ask(protocol, &count);
    if (error == SUCCESS && count > length) {
      return FAILED;
    }
    received = error == SUCCESS ? static_cast<size_t>(count) : 0;
    return error;
  });
}

AERROR Remote::Read(int protocol, const std::string& path, unsigned long long offset, void* buffer,
                    size_t length, size_t& received) {
  return ReadFrom(protocol, length, received, [&](IProtocol_V2& remote, unsigned long long* count) {
    return remote.Read(path.c_str(), offset, buffer, length, count);
  });
}

bool Remote::ReadsVersions(int protocol) {
  return Can(protocol, FS_CAN_READ_VERSION);
}

AERROR Remote::ReadVersion(const Attributes& file, const std::string& path,
                           unsigned long long offset, void* buffer, size_t length,
                           size_t& received) {
  return ReadFrom(file.protocol, length, received,
                  [&](IProtocol_V2& remote, unsigned long long* count) {
                    return remote.ReadVersion(path.c_str(), file.version.c_str(), offset, buffer,
                                              length, count);
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
  return PATH_NOT_FOUND;
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
  const AERROR error = Run(protocol, [&](IProtocol_V2& remote) {
    return remote.Upload(path.c_str(), &source, size, progress, context);
  });
  source.version[sizeof source.version - 1] = '\0';
  return error;
}

AERROR Remote::CreateFolder(const std::string& path) {
  int protocol = 0;
  if (const AERROR error = FindFolder(std::string(FolderOf(path)), protocol); error != SUCCESS) {
    return error;
  }
  return Run(protocol, [&](IProtocol_V2& remote) { return remote.CreateFolder(path.c_str()); });
}

AERROR Remote::DeleteFile(const std::string& path) {
  Attributes attributes;
  if (Count() > 1) {
    if (const AERROR error = GetInfo(path, attributes); error != SUCCESS) {
      return error;
    }
  }
  return Run(attributes.protocol,
             [&](IProtocol_V2& remote) { return remote.DeleteFile(path.c_str()); });
}

AERROR Remote::DeleteFolder(const std::string& path) {
  const int count = Count();
  if (count > 1) {
    std::vector<Entry> entries;  // of all of them, before one loses its part
    if (const AERROR error = List(path, entries); error != SUCCESS || !entries.empty()) {
      return error != SUCCESS ? error : DIR_NOT_EMPTY;
    }
  }
  AERROR result = FILE_NOT_FOUND;
  for (int index = 0; index < count; ++index) {
    const AERROR error =
        Run(index, [&](IProtocol_V2& remote) { return remote.DeleteFolder(path.c_str()); });
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
  return Run(place, [&](IProtocol_V2& remote) { return remote.Move(from.c_str(), to.c_str()); });
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
  return Run(attributes.protocol,
             [&](IProtocol_V2& remote) { return remote.SetModifiedTime(path.c_str(), &time); });
}

AERROR Remote::GetSize(unsigned long long& total, unsigned long long& free) {
  AERROR result = NOT_SUPPORTED;
  total = free = 0;
  for (int index = 0, count = Count(); index < count; ++index) {
    unsigned long long one_total = 0;
    unsigned long long one_free = 0;
    const AERROR error =
        Run(index, [&](IProtocol_V2& remote) { return remote.GetSize(&one_total, &one_free); });
    if (error == SUCCESS && one_free <= one_total) {
      result = SUCCESS;
      total += one_total;
      free += one_free;
    }
  }
  return result;
}

bool Remote::Can(int protocol, FS_CAPABILITY capability) {
  unsigned long long capabilities = 0;
  const AERROR error = Run(protocol, [&](IProtocol_V2& remote) {
    capabilities = remote.GetCapabilities();
    return SUCCESS;
  });
  return error == SUCCESS && (capabilities & capability) != 0;
}

bool Remote::KeepsTimes(int protocol) {
  return Can(protocol, FS_CAN_SET_TIME);
}

void Remote::Cancel() {
  Protocols open;
  {
    const MutexLock guard(lock);
    open = protocols;
  }
  for (const auto& protocol : open) {
    (void)protocol->Cancel();  // one that cannot is waited for
  }
}

bool Remote::Close(std::chrono::milliseconds patience) {
  {
    const MutexLock guard(lock);
    closed = true;
  }
  Cancel();
  const auto deadline = Clock::now() + patience;
  Protocols done;  // let go of after the lock
  const MutexLock guard(lock);
  while (running > 0 && idle.wait_until(lock, deadline)) {
  }
  if (running == 0) {
    done.swap(protocols);
  }
  return running == 0;
}

}  // namespace tarn::fs
