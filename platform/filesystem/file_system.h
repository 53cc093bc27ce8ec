#pragma once

#include <atomic>
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
#include "platform/filesystem/uploads.h"

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
// Owns:    the drive's state and all who work on it, who share this object's life.
// Threads: any, several at once.
// Locks:   the state's. Changes of the journal are put in order by `publishing`, which comes before
//          it and is held while the disk works.
// Errors:  0 or an errno value.
class FileSystem : public std::enable_shared_from_this<FileSystem> {
 public:
  static constexpr std::chrono::seconds kAttributeTimeOut{5};
  // Of one file, while others change what it meets.
  static constexpr int kMaxSendAttempts = 10;

  explicit FileSystem(Clock::duration attribute_time_out = kAttributeTimeOut,
                      const Limits& limits = {});
  ~FileSystem();
  FileSystem(const FileSystem&) = delete;
  FileSystem& operator=(const FileSystem&) = delete;

  // Before the first protocol. Files that are closed are then kept there until they were sent in
  // the background; without a journal they are sent before close returns.
  void UseJournal(std::unique_ptr<Journal> unsent_files);
  // What the journal has for it is sent in the background.
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

  // Sends everything that the remote lacks, for as long as that makes progress: at most `patience`
  // without any. Returns the number of files that the remote still lacks.
  size_t SendAll(Clock::duration patience);
  // Of these, files that are not in the journal either.
  [[nodiscard]] size_t CountLost() const;
  // Nothing is open any more, whatever was not closed, and nothing is sent.
  void CloseAll();

 private:
  [[nodiscard]] Owner ShareOfThis();
  Stat LocalStat(const OpenFile& file) const TARN_REQUIRES(drive.lock);
  Stat RemoteStat(Ino ino, const Attributes& attributes, Clock::duration valid_for) const;

  Opened MakeHandle(const std::shared_ptr<OpenFile>& file, int flags) TARN_REQUIRES(drive.lock);
  [[nodiscard]] std::optional<Handle> GetHandle(std::uint64_t handle) TARN_EXCLUDES(drive.lock);
  void CloseHandle(std::uint64_t handle) TARN_EXCLUDES(drive.lock);
  [[nodiscard]] bool WasStoredSince(Ino ino, const Attributes& answer) const
      TARN_REQUIRES(drive.lock);
  void Refresh(OpenFile& file, const Attributes& attributes) TARN_REQUIRES(drive.lock);
  [[nodiscard]] int Truncate(const std::shared_ptr<OpenFile>& file);

  // The file's work file, made when there is none of the first `keep` bytes of the remote's
  // content.
  [[nodiscard]] int WorkFor(const std::shared_ptr<OpenFile>& file, std::uint64_t keep,
                            std::shared_ptr<WorkFile>& work);
  [[nodiscard]] WorkFile::Base BaseOf(const std::shared_ptr<OpenFile>& file, std::uint64_t length)
      TARN_EXCLUDES(drive.lock);
  [[nodiscard]] int Complete(OpenFile& file) TARN_EXCLUDES(drive.lock);
  // Lets those who have the file open keep its content, which the remote is about to lose.
  [[nodiscard]] int Preserve(const std::shared_ptr<OpenFile>& file);

  // An empty work file where the unsent ones are kept.
  [[nodiscard]] int MakeWork(std::shared_ptr<WorkFile>& work) const;
  // What programs wrote is safe from now on: in the journal, or else at the remote.
  [[nodiscard]] int Save(const std::shared_ptr<OpenFile>& file)
      TARN_EXCLUDES(publishing, drive.lock);
  [[nodiscard]] bool HasNewsAtRelease(const OpenFile& file) const TARN_EXCLUDES(drive.lock);
  // Puts what is not stored into the journal.
  [[nodiscard]] int Publish(const std::shared_ptr<OpenFile>& file)
      TARN_EXCLUDES(publishing, drive.lock);
  // Its place, or what it replaces, has changed.
  void PublishAnew(const OpenFile& file, const std::string& superseded_id = "")
      TARN_EXCLUDES(publishing, drive.lock);
  // Tells the journal of their new places, and of what was replaced.
  void UnsentMoved(Ino top, bool at_remote, const std::string& superseded_id)
      TARN_EXCLUDES(publishing, drive.lock);
  [[nodiscard]] int PutRecord(const OpenFile& file, const std::string& path,
                              const WorkFile::Snapshot& snapshot,
                              const std::string& superseded_id = "") TARN_REQUIRES(publishing);
  // Notes a move that concerns unsent files before the remote hears of it. Unset: concerns none.
  [[nodiscard]] std::optional<Journal::Move> NoteMove(Ino source_ino,
                                                      const std::vector<std::string>& paths,
                                                      const OpenFile* target)
      TARN_EXCLUDES(drive.lock);
  // Puts right what a process that ended in the middle of a move left.
  void Settle(const Journal::Move& move, std::vector<Journal::Unsent>& found)
      TARN_EXCLUDES(drive.lock);
  // Nobody wants it at the remote any more.
  void DropUnsent(OpenFile& file) TARN_EXCLUDES(publishing, drive.lock);
  // Has uploads of files at or below the place end, those that would take long or all of them.
  void GiveUpUploadsAt(Ino folder, const std::string& name, bool all) TARN_EXCLUDES(drive.lock);
  void Adopt(Journal::Unsent unsent, int protocol) TARN_EXCLUDES(drive.lock);
  [[nodiscard]] bool HasJournalFor(const OpenFile& file) TARN_EXCLUDES(drive.lock);

  std::shared_ptr<Uploads> GetUploads() TARN_EXCLUDES(drive.lock);
  [[nodiscard]] AERROR SendInBackground(Ino ino) TARN_EXCLUDES(drive.lock);
  enum class What {
    kSaved,    // what is in the journal, or could not be put there
    kCurrent,  // what there is now
  };
  // SUCCESS: the remote has it, or there was nothing to send, or nobody wants it any more.
  // RETRY_UPLOAD: was given up, perhaps for a rename.
  [[nodiscard]] AERROR Send(const std::shared_ptr<OpenFile>& file, What what)
      TARN_EXCLUDES(drive.lock);
  // What is to be sent of a file next.
  struct Outgoing {
    std::shared_ptr<WorkFile> work;
    WorkFile::Snapshot snapshot;
    std::optional<std::string> replaces;
    std::shared_ptr<Sending> sending = std::make_shared<Sending>();
    bool is_first_attempt = false;
  };
  // The snapshot is one of the file's attempts from now on; without one there is nothing to send.
  [[nodiscard]] AERROR BeginSending(OpenFile& file, What what, Outgoing& outgoing)
      TARN_EXCLUDES(publishing, drive.lock);
  [[nodiscard]] bool Remedy(const std::shared_ptr<OpenFile>& file, const std::string& path,
                            const Outgoing& outgoing, AERROR& error, Attributes& stored);
  // Takes back that attempt where the remote cannot have it.
  void NotSent(OpenFile& file, const Outgoing& outgoing) TARN_EXCLUDES(publishing, drive.lock);
  // Those that are not what is in the journal go.
  static void Discard(const std::vector<WorkFile::Snapshot>& attempts,
                      const WorkFile::Snapshot& unsent);
  // Unset: cannot be found out now.
  [[nodiscard]] std::optional<bool> IsAnAttempt(const OpenFile& file, const std::string& path,
                                                const Attributes& there) TARN_EXCLUDES(drive.lock);
  // Whether the remote has something under the file's name, as far as that is known or can be
  // asked.
  [[nodiscard]] bool HasCome(const std::shared_ptr<OpenFile>& file, const std::string& path)
      TARN_EXCLUDES(drive.lock);
  [[nodiscard]] int SendNow(const std::shared_ptr<OpenFile>& file) TARN_EXCLUDES(drive.lock);
  [[nodiscard]] AERROR Upload(const std::string& path, const Outgoing& outgoing,
                              Attributes& stored);
  [[nodiscard]] bool SettleConflict(const std::shared_ptr<OpenFile>& file, const std::string& path,
                                    const Outgoing& outgoing, AERROR& error, Attributes& stored);
  [[nodiscard]] std::string FreeConflictName(Ino folder, const std::string& name) const
      TARN_REQUIRES(drive.lock);
  [[nodiscard]] std::optional<bool> IsAtRemote(const std::string& path,
                                               const Attributes& attributes,
                                               const WorkFile::Snapshot& snapshot);
  // Somebody else has a file of this name: ours takes another one beside it.
  void MoveAside(const std::shared_ptr<OpenFile>& file, const std::string& path)
      TARN_EXCLUDES(drive.lock);
  [[nodiscard]] bool MakeFoldersAbove(const std::string& path);
  void Stored(OpenFile& file, const std::string& path, WorkFile& work, const WorkFile::State& state,
              const Attributes& stored) TARN_EXCLUDES(publishing, drive.lock);

  [[nodiscard]] bool MayHave(mode_t permissions, const Stat& stat) const TARN_EXCLUDES(drive.lock);
  [[nodiscard]] int SetSize(Ino ino, std::uint64_t size);
  [[nodiscard]] int SetModified(Ino ino, const FS_TIME& time);
  [[nodiscard]] bool SetUnsentModified(Ino ino, const FS_TIME& time)
      TARN_EXCLUDES(publishing, drive.lock);
  [[nodiscard]] int CheckFree(const std::string& path, bool is_open) TARN_EXCLUDES(drive.lock);
  [[nodiscard]] int MoveAtRemote(const std::string& from, const std::string& to)
      TARN_EXCLUDES(drive.lock);
  void TakePlaceOf(OpenFile& source, const OpenFile* target, Ino new_folder,
                   const std::string& new_name) TARN_REQUIRES(drive.lock);
  void Moved(Ino folder, const std::string& name, Ino new_folder, const std::string& new_name,
             const std::vector<std::string>& paths) TARN_REQUIRES(drive.lock);
  // Whether the folder has files that only this side knows of; and adds them to a listing.
  [[nodiscard]] bool HoldsUnsent(Ino folder, const std::string& name) const
      TARN_REQUIRES(drive.lock);
  void AddUnsent(const std::string& folder, std::vector<Entry>& entries) const
      TARN_REQUIRES(drive.lock);
  // How far a file is on its way to the remote: "clean", "unsent", "sending" or "failed: reason".
  struct Unsent {
    std::string state = "clean";
    std::uint64_t bytes = 0;  // that the remote lacks
  };
  [[nodiscard]] Unsent StateOf(const OpenFile& file) const TARN_REQUIRES(drive.lock);
  [[nodiscard]] std::string StateOfAll(std::uint64_t& count, std::uint64_t& bytes) const
      TARN_REQUIRES(drive.lock);
  // Called when the remote cannot be reached any more, and when it can be again.
  void ReachabilityChanged(bool is_reachable) TARN_EXCLUDES(drive.lock);

  DriveState drive;
  Remote remote;
  Events events;
  const FS_TIME mounted_at;
  const Clock::duration time_out;
  Suspension suspension;
  Finder finder;
  Readers readers;
  Ahead ahead;
  KnownSpace space;
  std::atomic<std::uint64_t> progress = 0;  // grows while an upload moves
  std::unique_ptr<Journal> journal;         // set once, before the first use

  Mutex publishing;
  CondVar prepared;  // a work file
  HandleTable<Handle> handles TARN_GUARDED_BY(drive.lock);
  struct OpenedFolder {
    Ino ino;
    std::shared_ptr<const FolderContent> content;  // null: not read yet
  };
  HandleTable<OpenedFolder> open_folders TARN_GUARDED_BY(drive.lock);
  std::vector<std::string> identities TARN_GUARDED_BY(drive.lock);  // of the protocols
  std::shared_ptr<Uploads> uploads TARN_GUARDED_BY(drive.lock);     // made when it is needed
};

}  // namespace tarn::fs
