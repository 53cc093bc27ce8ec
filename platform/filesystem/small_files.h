#pragma once

#include <deque>
#include <map>
#include <optional>
#include <set>

#include "platform/filesystem/listings.h"
#include "platform/filesystem/nodes.h"
#include "platform/filesystem/reader.h"

namespace tarn::fs {

// Plans which small files are fetched before a program opens them. Fetches nothing itself: it is
// told what was opened, waited for and fetched, and says what comes next.
//
// Programs that read trees of small files open them in the order of the names, of the listing or in
// none. So the second file that had to be waited for lets the rest of its folder be fetched, the
// next ones in order first, and a program that goes from folder to folder lets the folders beside
// them follow, as far as they are listed. All of it ends soon after the last open.
//
// Owns:    the plan; refers to the names and listings that are known.
// Threads: none of its own; the lock that guards the names and listings guards every call.
class SmallFiles {
 public:
  static constexpr size_t kMaxFileBytes = Reader::kBlockBytes;

  // For how long an open had to wait, and how long an answer without content takes.
  struct Wait {
    Clock::duration taken;
    Clock::duration round_trip;
  };

  SmallFiles(const Nodes& known_nodes, const Listings& known_listings)
      : nodes(known_nodes), listings(known_listings) {}

  // A program has opened a file of this size. `wait` is unset when its content was here already.
  void Opened(const Place& file, std::uint64_t bytes, const std::optional<Wait>& wait,
              Clock::time_point now);

  // What is to be fetched now, which is on its way until Ended: a file, or without a name the
  // listing of a folder, anew.
  [[nodiscard]] std::optional<Place> Next(Clock::time_point now);
  void Ended() { --on_way; }
  // A file of this folder is here, as it was listed then.
  void Fetched(Ino folder, Clock::time_point listed) { plan.fetched.try_emplace(folder, listed); }

 private:
  // What is known of one program that opens small files, and what it is to find.
  struct Plan {
    size_t window = 0;  // so many on their way at a time
    int misses = 0;     // files that had to be waited for
    Place last;         // that was opened
    bool in_order = false;
    Clock::time_point last_opened = {};
    std::set<Ino> opened_folders;
    std::set<Ino> planned_folders;
    std::deque<Place> files;
    size_t count = 0;  // planned or fetched, and not opened yet
    std::uint64_t bytes = 0;
    std::map<Ino, Clock::time_point> fetched;  // folders of those fetched, when they were listed
  };

  [[nodiscard]] bool Follows(const Place& file, Clock::time_point now) const;
  void LearnFrom(const Wait& wait);
  void PlanFolder(const Place& start);
  bool PlanFoldersBeside();
  [[nodiscard]] bool IsHere(Ino folder, const Entry& entry) const;

  const Nodes& nodes;
  const Listings& listings;
  size_t on_way = 0;  // being fetched
  Plan plan;
};

}  // namespace tarn::fs
