#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/filesystem/attributes.h"

namespace tarn::fs {

// What a folder holds at one moment.
struct FolderContent {
  std::vector<Entry> entries;
  Clock::time_point asked;
};

// What is known of the remote's files and folders, for as long as it may be believed.
//
// An answer of the remote is kept only if nothing changed here since the question was asked: take a
// Ticket, ask, hand in the answer with the ticket.
//
// Owns:    its entries, a bounded number; the oldest folders go first.
// Threads: none of its own; the owner's lock guards every call.
class Listings {
 public:
  using Ticket = std::uint64_t;
  enum class Known { kNothing, kPresent, kAbsent };
  struct Answer {
    Known known = Known::kNothing;
    Attributes attributes;            // when present
    Clock::time_point asked;          // when present or absent
    Clock::duration believable = {};  // how much longer
  };

  explicit Listings(Clock::duration believed_for) : time_out(believed_for) {}

  [[nodiscard]] Ticket Begin() const { return changes; }

  [[nodiscard]] Answer Find(const std::string& path, Clock::time_point now) const;
  // Every entry of the folder in the order of the names, and when it was asked for; false when no
  // listing is known.
  [[nodiscard]] bool Get(const std::string& folder, Clock::time_point now,
                         std::vector<Entry>& entries, Clock::time_point& asked) const;

  // Of a known listing, up to `count` entries after `name` in the order of the names.
  [[nodiscard]] std::vector<Entry> After(const std::string& folder, const std::string& name,
                                         Clock::time_point now, size_t count) const;
  // Whether the folder was asked for single names lately, so that a listing is worth its while.
  [[nodiscard]] bool HasSingleAnswers(const std::string& folder, Clock::time_point now) const;

  // Answers of the remote to a question of `asked`. Add is false when the answer was not kept; null
  // attributes: the path is absent.
  void AddListing(Ticket ticket, const std::string& folder, const std::vector<Entry>& entries,
                  Clock::time_point asked);
  bool Add(Ticket ticket, const std::string& path, const Attributes* attributes,
           Clock::time_point asked);

  // Whether everything that is known counts however old it is, because nobody can be asked.
  void BelieveOld(bool believed) { believes_old = believed; }

  // What was changed from here: how the path is now, or only that it is to be asked anew.
  void SetPresent(const std::string& path, const Attributes& attributes, Clock::time_point now);
  void SetAbsent(const std::string& path, Clock::time_point now);
  // Where nobody can be asked, what was known before still counts.
  void Forget(const std::string& path);
  void Expire();  // everything is to be asked anew
  // Nothing that was known of what the folder holds, at any depth, stands any more.
  void ForgetTree(const std::string& folder);

 private:
  struct Record {
    bool present;
    Attributes attributes;
    Clock::time_point asked;
    Ticket changed;  // answers to earlier questions are not kept
  };
  struct Folder {
    bool complete = false;  // `records` has every entry, as of `listed`
    Clock::time_point listed = {};
    Ticket changed = 0;    // of any record; earlier listings are not kept
    Ticket forgotten = 0;  // of records that are not there any more
    std::map<std::string, Record> records;
  };

  [[nodiscard]] bool IsBelievable(Clock::time_point asked, Clock::time_point now) const {
    return believes_old || asked + time_out > now;
  }
  [[nodiscard]] Clock::duration BelievableFor(Clock::time_point asked, Clock::time_point now) const;
  Folder& FolderAt(const std::string& path);
  void Put(Folder& folder, const std::string& path, Record record);
  void Bound(const std::string& keep);

  Clock::duration time_out;
  bool believes_old = false;
  Ticket changes = 1;
  Ticket floor = 0;                       // last change in folders that were dropped from `folders`
  std::map<std::string, Folder> folders;  // by path
  size_t record_count = 0;
};

}  // namespace tarn::fs
