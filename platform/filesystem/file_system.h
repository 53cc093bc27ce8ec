#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include "common/sync.h"
#include "platform/filesystem/ahead.h"
#include "platform/filesystem/drive_state.h"
#include "platform/filesystem/events.h"
#include "platform/filesystem/finder.h"
#include "platform/filesystem/handle_table.h"
#include "platform/filesystem/journal.h"
#include "platform/filesystem/known_space.h"
#include "platform/filesystem/readers.h"
#include "platform/filesystem/remote.h"
#include "platform/filesystem/repeater.h"
#include "platform/filesystem/sender.h"
#include "platform/filesystem/unsent_files.h"

namespace tarn::fs {

inline constexpr mode_t kFilePermissions = 0644;

// What stat(2) is to show.
struct Stat {
  Ino ino = kRootIno;
  bool is_folder = true;
  std::uint64_t size = 0;  // bytes
  FS_TIME modified = {};
  bool linked = true;
  Clock::duration valid_for = {};  // how long the kernel may believe it

  [[nodiscard]] mode_t Permissions() const { return is_folder ? 0755 : kFilePermissions; }
};

// What setattr is to change.
struct AttributeChange {
  std::optional<mode_t> permissions;
  std::optional<uid_t> user;
  std::optional<gid_t> group;
  std::optional<std::uint64_t> size;
  std::optional<FS_TIME> modified;
};

// A drive as programs see it: folders, files and open files over the remote. This is the whole of a
// volume but the kernel's side of it, which an adapter connects.
//
// The calls of programs come in here. Those who do the work behind them share the drive's state:
//   DriveState   what is known: names, listings, open files; has the lock of all of it
//   Finder       how things are at the remote: known, or asked
//   Readers      from the open of a file to what the remote has of it
//   Ahead        what is fetched before a program asks; small files as SmallFiles plans it
//   UnsentFiles  what programs wrote, in the Journal until the remote has it
//   Sender       brings that to the remote, when Uploads says so, and settles conflicts there
//
// Owns:    all of these; work of theirs in the background shares this object.
// Threads: any, several at once.
// Locks:   the state's.
// Errors:  0 or an errno value.
class FileSystem : public std::enable_shared_from_this<FileSystem> {
 public:
  static constexpr std::chrono::seconds kAttributeTimeOut{5};

  explicit FileSystem(Clock::duration attribute_time_out = kAttributeTimeOut,
                      const Limits& limits = {});
  ~FileSystem();
  FileSystem(const FileSystem&) = delete;
  FileSystem& operator=(const FileSystem&) = delete;

  // Before the first protocol. Files that are closed are then kept there until they were sent in
  // the background; without a journal they are sent before close returns.
  void UseJournal(std::unique_ptr<Journal> journal) { unsent_files.UseJournal(std::move(journal)); }
  // What journals have for it is sent in the background, also what other processes leave there
  // later.
  void AddProtocol(std::shared_ptr<IProtocol_V2> protocol);
  [[nodiscard]] Remote& GetRemote() { return remote; }
  [[nodiscard]] Events& GetEvents() { return events; }

  // Whatever is known is asked anew after the machine has slept. To be called for every request.
  void NoticeResume() TARN_EXCLUDES(drive.lock);

  // Names. For ENOENT, Lookup says in `valid_for` how long that holds. Lookup, Create, MakeFolder
  // and LookUpEntry count one lookup, which Forget takes back.
  [[nodiscard]] int Lookup(Ino folder, const std::string& name, Stat& stat);
  void Forget(Ino ino, std::uint64_t lookups);
  [[nodiscard]] int MakeFolder(Ino folder, const std::string& name, Stat& stat);
  [[nodiscard]] int RemoveFile(Ino folder, const std::string& name);
  [[nodiscard]] int RemoveFolder(Ino folder, const std::string& name);
  [[nodiscard]] int Rename(Ino folder, const std::string& name, Ino new_folder,
                           const std::string& new_name, bool may_replace);

  // Folders. The entries are those of one moment; an open folder keeps them until they are asked
  // for anew.
  [[nodiscard]] int ReadFolder(Ino folder, FolderContent& content);
  [[nodiscard]] std::uint64_t OpenFolder(Ino folder);
  [[nodiscard]] int GetOpenFolder(std::uint64_t handle, bool anew,
                                  std::shared_ptr<const FolderContent>& content);
  void CloseFolder(std::uint64_t handle);
  [[nodiscard]] Ino InoOf(Ino folder, const std::string& name) const;  // 0: has none yet
  // False, without a lookup counted, when the entry was removed since the folder was read.
  bool LookUpEntry(Ino folder, const Entry& entry, Clock::time_point asked, Stat& stat);

  // Attributes. Permissions and owners cannot be changed: EPERM, but for those that are there.
  [[nodiscard]] int GetAttributes(Ino ino, Stat& stat);
  [[nodiscard]] int SetAttributes(Ino ino, const AttributeChange& change, Stat& stat);
  // At once, whatever the remote does.
  [[nodiscard]] Space GetSpace() { return space.Get(); }
  // What is to be seen of the drive, at its root, and of a file. False: there is no such attribute.
  [[nodiscard]] bool GetExtended(Ino ino, std::string_view name, std::string& value) const
      TARN_EXCLUDES(drive.lock);
  [[nodiscard]] std::vector<std::string_view> ListExtended(Ino ino) const TARN_EXCLUDES(drive.lock);

  // Content. `flags` are those of open(2). `keep_cache`: what the kernel holds of it is still
  // right.
  struct Opened {
    std::uint64_t handle = 0;
    bool keep_cache = false;
  };
  // Until the file is closed for good, `permissions` can be given to it again, without effect.
  [[nodiscard]] int Create(Ino folder, const std::string& name, int flags, Stat& stat,
                           Opened& opened, mode_t permissions = kFilePermissions);
  [[nodiscard]] int Open(Ino ino, int flags, Opened& opened);
  // The content is that of all parts, one after the other.
  [[nodiscard]] int Read(std::uint64_t handle, std::uint64_t offset, size_t length,
                         std::vector<Bytes>& parts);
  // `from_mapping`: pages that the kernel writes back; the offset then holds for appenders too.
  [[nodiscard]] int Write(std::uint64_t handle, std::uint64_t offset, const void* data,
                          size_t length, bool from_mapping, size_t& written);
  [[nodiscard]] int Flush(std::uint64_t handle);  // one descriptor was closed; 0: nothing is lost
  [[nodiscard]] int Sync(std::uint64_t handle);   // 0: the remote has it
  void Release(std::uint64_t handle);             // the last descriptor was closed

  // Sends everything that the remote lacks now, for as long as that makes progress: at most
  // `patience` without any. Returns 0, or the number of files that the remote still lacks.
  size_t SendAll(Clock::duration patience) { return sender.SendAll(patience); }
  // Of these, files that are not in the journal either.
  [[nodiscard]] size_t CountLost() const { return unsent_files.CountLost(); }
  // Nothing is open any more, whatever was not closed, and nothing is sent.
  void CloseAll();

 private:
  struct OpenedFolder {
    Ino ino;
    std::shared_ptr<const FolderContent> content;  // null: not read yet
  };

  [[nodiscard]] Owner ShareOfThis();
  void TakeOver(int protocol) TARN_EXCLUDES(drive.lock);
  // What could not be done for unsent files before. True: once more later.
  [[nodiscard]] bool PutRight() TARN_EXCLUDES(drive.lock);
  // Called when the remote cannot be reached any more, and when it can be again.
  void ReachabilityChanged(bool is_reachable) TARN_EXCLUDES(drive.lock);
  Stat LocalStat(const OpenFile& file) const TARN_REQUIRES(drive.lock);
  Stat RemoteStat(Ino ino, const Attributes& attributes, Clock::duration valid_for) const;

  // Names. `file` is null where none is open.
  [[nodiscard]] int DeleteAtRemote(const std::shared_ptr<OpenFile>& file, const std::string& path)
      TARN_EXCLUDES(drive.lock);
  // Counts a lookup of a folder that unsent files keep; false: there is none.
  [[nodiscard]] bool LookUpKept(Ino folder, const std::string& name, Stat& stat)
      TARN_REQUIRES(drive.lock);
  [[nodiscard]] int CheckFree(const std::string& path, bool is_open) TARN_EXCLUDES(drive.lock);
  struct Renaming {
    Place from;
    Place to;
    std::vector<std::string> paths = {};         // of these
    std::shared_ptr<OpenFile> source = nullptr;  // what is open there, or unsent
    std::shared_ptr<OpenFile> target = nullptr;
  };
  [[nodiscard]] int RenameAtRemote(const Renaming& renaming) TARN_EXCLUDES(drive.lock);
  // Of a file that is at this side only; happens once the journal has its new place.
  [[nodiscard]] int RenameHere(const Renaming& renaming) TARN_EXCLUDES(drive.lock);
  [[nodiscard]] int MoveAtRemote(const std::string& from, const std::string& to)
      TARN_EXCLUDES(drive.lock);
  class Parting;
  [[nodiscard]] std::string IdOf(const OpenFile* file) const TARN_EXCLUDES(drive.lock);  // or ""
  // The protocol that a new file in the folder goes to.
  [[nodiscard]] int FindProtocol(Ino folder, int& protocol) TARN_EXCLUDES(drive.lock);
  void TakePlaceOf(OpenFile& source, const OpenFile* target, const Place& place, int protocol)
      TARN_REQUIRES(drive.lock);
  void Moved(const Renaming& renaming) TARN_REQUIRES(drive.lock);
  // Nobody has the file under its old name any more.
  void DropUnsent(const std::shared_ptr<OpenFile>& file) TARN_EXCLUDES(drive.lock);

  // Folders: whether one has files that the remote lacks; and adds these to a listing.
  [[nodiscard]] bool HoldsUnsent(Ino folder, const std::string& name) const
      TARN_EXCLUDES(drive.lock);
  void AddUnsent(const std::string& folder, std::vector<Entry>& entries) const
      TARN_REQUIRES(drive.lock);

  // Attributes.
  [[nodiscard]] bool MayHave(mode_t permissions, const Stat& stat) const TARN_EXCLUDES(drive.lock);
  [[nodiscard]] int SetSize(Ino ino, std::uint64_t size);
  [[nodiscard]] int SetModified(Ino ino, const FS_TIME& time);
  // How far a file is on its way to the remote: "clean", "unsent", "sending" or "failed: reason".
  struct Unsent {
    std::string state = "clean";
    std::uint64_t bytes = 0;  // that the remote lacks
  };
  [[nodiscard]] Unsent StateOf(const OpenFile& file) const TARN_REQUIRES(drive.lock);
  [[nodiscard]] std::string StateOfAll(std::uint64_t& count, std::uint64_t& bytes) const
      TARN_REQUIRES(drive.lock);

  // Content.
  Opened MakeHandle(const std::shared_ptr<OpenFile>& file, int flags) TARN_REQUIRES(drive.lock);
  [[nodiscard]] std::optional<Handle> GetHandle(std::uint64_t handle) TARN_EXCLUDES(drive.lock);
  void CloseHandle(std::uint64_t handle) TARN_EXCLUDES(drive.lock);
  [[nodiscard]] bool WasStoredSince(Ino ino, const Attributes& answer) const
      TARN_REQUIRES(drive.lock);
  void Refresh(OpenFile& file, const Attributes& attributes) TARN_REQUIRES(drive.lock);
  [[nodiscard]] bool HasNewsAtRelease(const OpenFile& file) const TARN_EXCLUDES(drive.lock);
  // The file's work file, made when there is none of the first `keep` bytes of the remote's
  // content.
  [[nodiscard]] int WorkFor(const std::shared_ptr<OpenFile>& file, std::uint64_t keep,
                            std::shared_ptr<WorkFile>& work);
  [[nodiscard]] WorkFile::Base BaseOf(const std::shared_ptr<OpenFile>& file, std::uint64_t length)
      TARN_EXCLUDES(drive.lock);
  [[nodiscard]] int Truncate(const std::shared_ptr<OpenFile>& file);
  // Lets those who have the file open keep its content, which the remote is about to lose: what can
  // be fetched soon.
  [[nodiscard]] int Preserve(const std::shared_ptr<OpenFile>& file);

  DriveState drive;
  Remote remote;
  Events events;
  const FS_TIME mounted_at;
  const Clock::duration time_out;
  Suspension suspension;
  Finder finder;
  Readers readers;
  Ahead ahead;
  UnsentFiles unsent_files;
  Sender sender;
  KnownSpace space;
  Repeater later;  // puts right

  CondVar prepared;  // a work file
  HandleTable<Handle> handles TARN_GUARDED_BY(drive.lock);
  HandleTable<OpenedFolder> open_folders TARN_GUARDED_BY(drive.lock);
};

}  // namespace tarn::fs
