#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/filesystem/drive_state.h"
#include "platform/filesystem/journal.h"
#include "platform/filesystem/remote.h"

namespace tarn::fs {

// Keeps what programs wrote on this machine's disk until the remote has it: knows which content of
// which file is in the journal, which was on its way to the remote, and where it is to go.
//
// Owned by the FileSystem; owns the journal; refers to the drive's state and the remote.
// Threads: any.
// Locks:   `publishing` puts the changes of the journal in order: it is held while the disk works,
//          and comes before the state's lock.
// Errors:  0 or an errno value.
class UnsentFiles {
 public:
  using FilePtr = OpenFiles::FilePtr;

  UnsentFiles(DriveState& shared, Remote& asked) : drive(shared), remote(asked) {}

  // Before the first protocol. Without a journal nothing can be kept.
  void UseJournal(std::unique_ptr<Journal> used) { journal = std::move(used); }
  // A protocol was added. Before TakeOver.
  void Identify(int protocol) TARN_EXCLUDES(drive.lock);
  // What waits in journals for a protocol is there for programs as it was. Returns the files that
  // are to be sent, the oldest first. Waits for changes of their places. Files whose places cannot
  // be told now, for a move that was cut off, come later.
  [[nodiscard]] std::vector<Ino> TakeOver(int protocol) TARN_EXCLUDES(publishing, drive.lock);
  // Tries again what EndMove has left to be written.
  void WriteRecords() TARN_EXCLUDES(publishing, drive.lock);
  // Whether TakeOver and WriteRecords are to be called again later, also because other processes
  // still have what they may leave.
  [[nodiscard]] bool HasMoreToDo() const TARN_EXCLUDES(drive.lock);

  // An empty work file where the unsent ones are kept.
  [[nodiscard]] int MakeWork(std::shared_ptr<WorkFile>& work) const;
  // Fetches, of a file that was changed, all that the remote had and that was not needed before.
  [[nodiscard]] int Complete(OpenFile& file) TARN_EXCLUDES(drive.lock);
  // Whether there is a journal for a file of this remote.
  [[nodiscard]] bool CanKeep(const OpenFile& file) const TARN_EXCLUDES(drive.lock);
  // Puts what is complete, and not stored, into the journal. False: it cannot be kept there.
  [[nodiscard]] bool Keep(const FilePtr& file) TARN_EXCLUDES(publishing, drive.lock);
  // The file's place, or what it replaces, has changed.
  void KeepAnew(const OpenFile& file) TARN_EXCLUDES(publishing, drive.lock);
  // Sets the time of a file that waits to be sent, which goes with it. False: it does not wait.
  [[nodiscard]] bool SetModified(Ino ino, const FS_TIME& time)
      TARN_EXCLUDES(publishing, drive.lock);
  // Nobody wants it at the remote any more.
  void Drop(OpenFile& file) TARN_EXCLUDES(publishing, drive.lock);
  // Files that the remote lacks, and that are not in the journal either.
  [[nodiscard]] size_t CountLost() const TARN_EXCLUDES(drive.lock);

  // What is to be sent of a file next.
  enum class What {
    kKept,     // what is in the journal, or could not be put there
    kCurrent,  // what there is now
  };
  struct Outgoing {
    std::shared_ptr<WorkFile> work;
    WorkFile::Snapshot snapshot;  // without content there is nothing to send
    std::optional<std::string> replaces;
    bool is_first_attempt = false;
    std::shared_ptr<std::atomic<std::uint64_t>> progress;  // the file's
    std::atomic<bool> is_given_up = false;                 // somebody could not wait for its end
    std::atomic<bool> was_read = false;  // all of it: from then on the remote may have it
  };
  // The snapshot is one of the file's attempts from now on.
  [[nodiscard]] AERROR BeginSending(OpenFile& file, What what, Outgoing& outgoing)
      TARN_EXCLUDES(publishing, drive.lock);
  // Takes back that attempt where the remote cannot have it.
  void NotSent(OpenFile& file, const Outgoing& outgoing) TARN_EXCLUDES(publishing, drive.lock);
  // The remote has it, and tells of it what is `stored`.
  void Sent(OpenFile& file, const std::string& path, const Outgoing& outgoing,
            const Attributes& stored) TARN_EXCLUDES(publishing, drive.lock);

  // Has `move` give the file, which is at this side only, its new path once the journal has that.
  // With an error, nothing has changed.
  [[nodiscard]] int Move(const OpenFile& file, const std::string& path,
                         const std::string& superseded_id, const std::function<void()>& move)
      TARN_EXCLUDES(publishing, drive.lock);
  // Notes a move that concerns unsent files before the remote hears of it. Unset: concerns none.
  [[nodiscard]] int BeginMove(Ino source_ino, const std::vector<std::string>& paths,
                              const OpenFile* target, std::optional<Journal::Move>& noted)
      TARN_EXCLUDES(drive.lock);
  // Tells the journal of the new places of a node and those below it, and of what was replaced.
  // Returns the files whose records could not be written.
  [[nodiscard]] std::vector<FilePtr> Moved(Ino top, const std::string& superseded_id)
      TARN_EXCLUDES(publishing, drive.lock);
  // The note of the move stays until the records of these are written. True: it has gone.
  bool EndMove(const std::optional<Journal::Move>& move, std::vector<FilePtr> unwritten = {})
      TARN_EXCLUDES(drive.lock);

 private:
  [[nodiscard]] int PutRecord(const OpenFile& file, const std::string& path,
                              const WorkFile::Snapshot& snapshot,
                              const std::string& superseded_id = "") TARN_REQUIRES(publishing);
  [[nodiscard]] int PutRecordAnew(const OpenFile& file, const std::string& superseded_id)
      TARN_EXCLUDES(publishing, drive.lock);
  // Those that are not what is in the journal go.
  static void Discard(const std::vector<WorkFile::Snapshot>& attempts,
                      const WorkFile::Snapshot& unsent);
  // Files of earlier processes that lie where it is not known what came of a move.
  struct Unsettled {
    std::vector<Journal::Move> moves;
    std::vector<Journal::Unsent> files;
  };
  // Puts right what a process that ended in the middle of a move left. False: that cannot be done
  // now, and is to be tried again.
  [[nodiscard]] bool Settle(const Journal::Move& move, std::vector<Journal::Unsent>& found);
  // `moved` gets what is in the new place, if it has happened. Unset: cannot be found out now.
  [[nodiscard]] std::optional<bool> HasHappened(const Journal::Move& move, Attributes& moved);
  [[nodiscard]] Ino Adopt(Journal::Unsent unsent, int protocol) TARN_EXCLUDES(drive.lock);
  // The file that takes over what is for the path; `is_beside` is set where it has another name,
  // because programs have changed what has that one.
  [[nodiscard]] FilePtr MakePlaceFor(const std::string& path, bool& is_beside)
      TARN_REQUIRES(drive.lock);
  static void FillAdopted(OpenFile& file, const Journal::Unsent& unsent, int protocol,
                          bool is_beside);
  [[nodiscard]] std::string IdentityOf(int protocol) const TARN_REQUIRES(drive.lock);

  DriveState& drive;
  Remote& remote;
  std::unique_ptr<Journal> journal;  // set once, before the first use
  Mutex publishing;
  std::vector<std::string> identities TARN_GUARDED_BY(drive.lock);  // of the protocols
  std::map<int, Unsettled> unsettled TARN_GUARDED_BY(drive.lock);   // by protocol
  std::vector<std::pair<Journal::Move, std::vector<FilePtr>>> unwritten_moves
      TARN_GUARDED_BY(drive.lock);
};

}  // namespace tarn::fs
