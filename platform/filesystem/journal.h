#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "common/sync.h"
#include "common/unique_fd.h"
#include "platform/filesystem/work_file.h"

namespace tarn::fs {

// The files of one drive that the remote does not have yet, on this machine's disk: what close(2)
// reported to be stored survives here every process of ours. A file has its content and a record,
// which says where it goes; each appears under its name in one step. Content without a record goes
// when the next process opens the folder.
//
// A folder belongs to the process that has it locked. What other folders beside it hold for the
// same remote, left by drives that have ended, is taken over.
//
// Owns:    the folder's lock.
// Threads: any; the lock guards what is known to be in use.
// Errors:  0 or an errno value.
class Journal {
 public:
  struct Record {
    std::string remote;      // names the remote, as IProtocol_V2::GetIdentity does
    std::string path;        // within the drive
    std::uint64_t size = 0;  // bytes
    FS_TIME modified = {};
    // The version; empty: a new file; unset: whatever is there.
    std::optional<std::string> replaces = std::nullopt;
    // Earlier contents that may have come to the remote, for all that is known.
    struct Attempt {
      std::string name;  // in the folder
      std::uint64_t size = 0;
    };
    std::vector<Attempt> attempts = {};
    std::string supersedes = {};  // the id of a file whose place this one takes; empty: of none
  };
  // A change of names at the remote that may or may not have come to its end there.
  struct Move {
    std::string id;
    std::string remote;
    std::string from;
    std::string to;
    bool is_folder = false;
    std::uint64_t size = 0;   // of what is moved, as the remote tells
    FS_TIME modified = {};    // as well
    std::string replaced_id;  // of the unsent file that goes with it; empty: none
  };
  struct Unsent {
    std::string id;
    Record record;
    std::shared_ptr<Content> content;
    std::vector<std::shared_ptr<Content>> attempts;  // those of the record
  };

  // In `base`, which is made, under a name made of the label. Null: the disk refuses it.
  [[nodiscard]] static std::unique_ptr<Journal> Open(const std::string& base,
                                                     const std::string& label);

  Journal(std::string base_folder, std::string own_folder, UniqueFd folder_lock);
  ~Journal();
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  // For the contents of files; those that are not put into the journal go with their objects.
  [[nodiscard]] const std::string& GetFolder() const { return folder; }
  [[nodiscard]] static std::string MakeId();

  // Writes the record of a file, in place of an earlier one, and keeps its content, whose size is
  // the record's.
  [[nodiscard]] int Put(const std::string& id, const Record& record, Content& content);
  void Remove(const std::string& id, Content& content);

  // For the time that a move takes.
  [[nodiscard]] int Put(const Move& move);
  void Remove(const Move& move);

  // What waits for this remote here and in folders that nobody has locked, the oldest first; asked
  // again, what is in the folders that somebody had then. The moves are to be removed by whoever
  // has found out what came of them.
  [[nodiscard]] std::vector<Unsent> TakeOver(const std::string& remote, std::vector<Move>& moves);
  // Whether there are such folders: what is in them may be left later.
  [[nodiscard]] bool MayInherit();

 private:
  // The unsent files of a locked folder that are for this remote, or for any when it is empty.
  // `unreadable`: records there that cannot be understood; they are left alone.
  [[nodiscard]] static std::vector<Unsent> Read(const std::string& of_folder,
                                                const std::string& remote, int& unreadable);
  static void RemoveLeftOvers(const std::string& of_folder);
  [[nodiscard]] static std::vector<Move> ReadMoves(const std::string& of_folder,
                                                   const std::string& remote);
  static void OpenAttempts(const std::string& of_folder, Unsent& unsent);
  [[nodiscard]] bool MoveHere(const std::string& from_folder, Unsent& unsent);
  // False: it is to be looked at again.
  [[nodiscard]] bool TakeFrom(const std::string& other_folder, const std::string& remote,
                              std::vector<Unsent>& taken, std::vector<Move>& moves);
  [[nodiscard]] std::set<std::string> FoldersBeside() const;

  const std::string base;
  const std::string folder;
  const UniqueFd lock_of_folder;
  Mutex lock;
  std::set<std::string> in_use TARN_GUARDED_BY(lock);  // ids that were put or handed out
  // The folders that others had when a remote's files were taken over, by remote.
  std::map<std::string, std::set<std::string>> of_others TARN_GUARDED_BY(lock);
};

}  // namespace tarn::fs
