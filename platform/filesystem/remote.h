#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/sync.h"
#include "interfaces/iprotocol_v2.h"
#include "platform/filesystem/attributes.h"
#include "platform/filesystem/limited_protocol.h"
#include "platform/filesystem/line.h"

namespace tarn::fs {

// The drive's protocols as one remote: their union. An entry is looked up in the order in which the
// protocols were added; folders of the same name merge; a new entry goes to the first protocol that
// holds the folder above it. Nothing that a module answers is trusted: names that cannot be shown
// are left out, sizes, times and texts are brought into their bounds. Every call comes back within
// the limits, whatever a module does.
//
// Owns:    its shares of the protocols.
// Threads: any. No lock is held while a protocol works.
// Errors:  AERROR; FILE_NOT_FOUND without protocols; DEVICE_NOT_READY from a protocol that cannot
//          be reached, and after Close.
class Remote {
 public:
  // `listener` is told when the first of the protocols cannot be reached any more, and when the
  // last of them can again; not after Stop has returned.
  explicit Remote(const Limits& times = {}, Reachability::Listener told = nullptr)
      : limits(times), listener(std::move(told)) {}

  int Add(std::shared_ptr<IProtocol_V2> protocol);  // its index
  // Names the remote in the same way each time; empty when it does not tell. Then nothing can be
  // kept for another time.
  [[nodiscard]] std::string GetIdentity(int protocol);
  [[nodiscard]] int Count() const;
  [[nodiscard]] std::shared_ptr<IProtocol_V2> At(int index) const;  // null: no such index

  [[nodiscard]] AERROR List(const std::string& path, std::vector<Entry>& entries);
  [[nodiscard]] AERROR GetInfo(const std::string& path, Attributes& attributes);
  // Fills the buffer; with fewer bytes than it has only at the end of the file. After a failure the
  // buffer may still be written to. `protocol` is Attributes::protocol.
  [[nodiscard]] AERROR Read(int protocol, const std::string& path, unsigned long long offset,
                            const std::shared_ptr<Buffer>& buffer, size_t& received);
  // Whether ReadVersion can be used. At once.
  [[nodiscard]] bool ReadsVersions(int protocol) const;
  // As Read, of a file as it was at this version; SHARING_VIOLATION when it is another by now.
  [[nodiscard]] AERROR ReadVersion(const Attributes& file, const std::string& path,
                                   unsigned long long offset, const std::shared_ptr<Buffer>& buffer,
                                   size_t& received);
  // Replaces the file where it is, else makes it where its folder is; `protocol` says where.
  [[nodiscard]] AERROR Upload(const std::string& path, FS_SOURCE& source, unsigned long long size,
                              FS_PROGRESS progress, void* context, int& protocol);
  [[nodiscard]] AERROR CreateFolder(const std::string& path);
  [[nodiscard]] AERROR DeleteFile(const std::string& path);
  [[nodiscard]] AERROR DeleteFolder(const std::string& path);
  // NOT_SUPPORTED: the two places are not in one protocol, or it cannot move.
  [[nodiscard]] AERROR Move(const std::string& from, const std::string& to);
  // NOT_SUPPORTED: the remote keeps no such times.
  [[nodiscard]] AERROR SetModifiedTime(const std::string& path, const FS_TIME& time);
  // Sums of those that know.
  [[nodiscard]] AERROR GetSize(unsigned long long& total, unsigned long long& free);
  // Whether times given to Upload are kept. At once.
  [[nodiscard]] bool KeepsTimes(int protocol) const;

  // Whether all of the protocols can be reached, and if not, since when.
  [[nodiscard]] bool IsReachable() const { return unreachable_protocols == 0; }
  [[nodiscard]] bool CanReach(int protocol) const;  // one of them
  [[nodiscard]] std::optional<std::chrono::system_clock::time_point> UnreachableSince() const;

  [[nodiscard]] const Line& GetLine() const { return line; }  // as all calls have found it

  void Cancel();  // makes what runs fail soon
  // Cancels what runs, refuses what comes; nobody waits any more, and the listener is not told.
  void Stop();
  // Stops, waits until nothing runs any more and lets go of the protocols. False, with the
  // protocols kept, when something still runs after the limit for that.
  [[nodiscard]] bool Close();

 private:
  // The answer where no protocol gave one.
  [[nodiscard]] AERROR WithoutProtocols(AERROR otherwise) const TARN_EXCLUDES(lock);
  using Protocols = std::vector<std::shared_ptr<LimitedProtocol>>;

  template <typename Operation>
  AERROR Run(int index, Operation operation);
  [[nodiscard]] bool Can(int protocol, FS_CAPABILITY capability) const;
  [[nodiscard]] Protocols GetProtocols() const;
  void Told(bool is_reachable);
  // Runs something that content comes from, and notes how quickly it came.
  template <typename Operation>
  AERROR RunRead(int index, size_t& received, Operation operation);
  AERROR InfoFrom(int index, const std::string& path, Attributes& attributes);
  AERROR ListFrom(int index, const std::string& path, std::vector<Entry>& entries);
  // The first protocol that holds `path` as a folder.
  AERROR FindFolder(const std::string& path, int& protocol);
  AERROR FindPlaceFor(const std::string& path, int& protocol);

  const Limits limits;
  Line line;
  const Reachability::Listener listener;
  std::atomic<int> unreachable_protocols = 0;
  Mutex telling;  // keeps the order of what the listener is told; comes before its locks
  mutable Mutex lock;
  CondVar idle;
  Protocols protocols TARN_GUARDED_BY(lock);
  int running TARN_GUARDED_BY(lock) = 0;
  bool closed TARN_GUARDED_BY(lock) = false;
};

}  // namespace tarn::fs
