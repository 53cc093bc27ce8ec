#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/filesystem/background.h"
#include "platform/filesystem/drive_state.h"
#include "platform/filesystem/events.h"
#include "platform/filesystem/finder.h"
#include "platform/filesystem/remote.h"
#include "platform/filesystem/unsent_files.h"
#include "platform/filesystem/uploads.h"

namespace tarn::fs {

// Sends what programs wrote to the remote, and settles what an upload meets there: folders that are
// gone, files of somebody else, its own earlier attempts.
//
// Owned by what `owner` gives a share of; owns the uploads; refers to the drive's state, remote,
// events, finder and unsent files.
// Threads: any.
// Locks:   takes the state's, and the right to change the file's place; no lock is held while the
//          remote works. `making` is for the making of the uploads only, and may be taken with any.
// Errors:  0 or an errno value; within, AERROR.
class Sender {
 public:
  using FilePtr = OpenFiles::FilePtr;

  Sender(DriveState& shared, Remote& asked, Events& told, Finder& finding, UnsentFiles& keeping,
         Owner part_of)
      : drive(shared),
        remote(asked),
        events(told),
        finder(finding),
        unsent_files(keeping),
        owner(std::move(part_of)) {}
  ~Sender();
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;

  // What programs wrote is safe from now on: in the journal, or else at the remote.
  [[nodiscard]] int Save(const FilePtr& file) TARN_EXCLUDES(drive.lock);
  [[nodiscard]] int Sync(const FilePtr& file) TARN_EXCLUDES(drive.lock);  // at the remote
  // Everything that the remote lacks now, for as long as that makes progress: at most `patience`
  // without any. Returns 0, or the number of files that the remote still lacks.
  size_t SendAll(Clock::duration patience) TARN_EXCLUDES(drive.lock);

  void Add(Ino ino) { GetUploads().Add(ino); }  // it waits to be sent in the background
  void Drop(Ino ino);                           // it waits no more
  void Hasten();                                // what has failed is tried again now
  void Stop() { GetUploads().Stop(); }          // nothing is sent any more
  [[nodiscard]] Uploads::Status GetStatus(Ino ino) const;
  // Whether the remote has something under the file's name, as far as that is known or can be
  // asked. Null: a file that is not open.
  [[nodiscard]] bool HasCome(const FilePtr& file, const std::string& path)
      TARN_EXCLUDES(drive.lock);

 private:
  using Outgoing = UnsentFiles::Outgoing;
  using What = UnsentFiles::What;

  [[nodiscard]] Uploads& GetUploads() TARN_EXCLUDES(making);
  [[nodiscard]] std::shared_ptr<Uploads> FindUploads() const TARN_EXCLUDES(making);
  [[nodiscard]] AERROR SendInBackground(Ino ino) TARN_EXCLUDES(drive.lock);
  [[nodiscard]] int SendNow(const FilePtr& file) TARN_EXCLUDES(drive.lock);
  // SUCCESS: the remote has it, or there was nothing to send, or nobody wants it any more.
  // RETRY_UPLOAD: was given up, perhaps for a rename.
  [[nodiscard]] AERROR Send(const FilePtr& file, What what) TARN_EXCLUDES(drive.lock);
  [[nodiscard]] AERROR Upload(const std::string& path, const PathLocks::Hold& hold,
                              Outgoing& outgoing, Attributes& stored);
  void Stored(OpenFile& file, const std::string& path, const Outgoing& outgoing,
              const Attributes& stored) TARN_EXCLUDES(drive.lock);

  // What can be done about a failed upload. True: it is worth another attempt; `error` becomes
  // SUCCESS when the remote turns out to have it.
  [[nodiscard]] bool Remedy(const FilePtr& file, const std::string& path, const Outgoing& outgoing,
                            AERROR& error, Attributes& stored) TARN_EXCLUDES(drive.lock);
  [[nodiscard]] bool SettleConflict(const FilePtr& file, const std::string& path,
                                    const Outgoing& outgoing, AERROR& error, Attributes& stored)
      TARN_EXCLUDES(drive.lock);
  // Unset: cannot be found out now.
  [[nodiscard]] std::optional<bool> IsAnAttempt(const OpenFile& file, const std::string& path,
                                                const Attributes& there) TARN_EXCLUDES(drive.lock);
  [[nodiscard]] std::optional<bool> IsAtRemote(const OpenFile& file, const std::string& path,
                                               const Attributes& attributes,
                                               const WorkFile::Snapshot& snapshot);
  // Somebody else has a file of this name: ours takes another one beside it.
  void MoveAside(OpenFile& file, const std::string& path) TARN_EXCLUDES(drive.lock);
  [[nodiscard]] bool MakeFoldersAbove(const std::string& path) TARN_EXCLUDES(drive.lock);

  DriveState& drive;
  Remote& remote;
  Events& events;
  Finder& finder;
  UnsentFiles& unsent_files;
  const Owner owner;
  mutable Mutex making;
  std::shared_ptr<Uploads> uploads TARN_GUARDED_BY(making);  // made when it is needed
};

}  // namespace tarn::fs
