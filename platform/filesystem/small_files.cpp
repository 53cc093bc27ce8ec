#include "platform/filesystem/small_files.h"

#include <algorithm>
#include <utility>

#include "platform/filesystem/names.h"

namespace tarn::fs {

namespace {

using std::chrono::milliseconds;

constexpr size_t kMaxSkipped = 4;  // entries that a program may leave out and still go on in order
// Without an open for so long a program has what it wanted.
constexpr milliseconds kPause{500};
// Fetched, or on their way, and not opened yet. What nobody opens is all that this can cost.
constexpr size_t kMaxFiles = 2048;
constexpr std::uint64_t kMaxBytes = std::uint64_t{16} << 20;
// On their way at a time: as many as the queue has workers for it, while that holds up no program;
// fewer on a line that is busy with it, and then only those that come next in order.
constexpr size_t kMaxOnWay = 14;
constexpr size_t kMinOnWay = 2;
constexpr size_t kOnWayInAnyOrder = 4;
// One listing tells of a whole folder that its files have not changed; asked in time before what
// was found with them is too old for an open.
constexpr milliseconds kListAfter{600};

}  // namespace

void SmallFiles::Opened(const Place& file, std::uint64_t bytes, const std::optional<Wait>& wait,
                        Clock::time_point now) {
  if (plan.last_opened + kPause < now) {
    plan = {};
  }
  plan.in_order = Follows(file, now);
  plan.last = file;
  plan.last_opened = now;
  plan.opened_folders.insert(file.ino);
  if (plan.count > 0 && plan.planned_folders.count(file.ino) != 0) {
    --plan.count;
    plan.bytes -= std::min(plan.bytes, bytes);
  }
  if (wait && ++plan.misses > 1) {
    LearnFrom(*wait);
    const bool all_came = plan.files.empty() && on_way == 0;
    if (plan.planned_folders.insert(file.ino).second || all_came) {
      PlanFolder(file);
    }
  }
}

// Whether it is one of the next after the last that was opened.
bool SmallFiles::Follows(const Place& file, Clock::time_point now) const {
  const auto folder = plan.last.ino == file.ino ? nodes.PathOf(file.ino) : std::nullopt;
  const auto following =
      folder ? listings.After(*folder, plan.last.name, now, kMaxSkipped) : std::vector<Entry>{};
  return std::any_of(following.begin(), following.end(),
                     [&](const Entry& entry) { return entry.name == file.name; });
}

// An open that takes hardly longer than an answer without content leaves room on the line; one that
// takes much longer does not. In between, nothing changes.
void SmallFiles::LearnFrom(const Wait& wait) {
  if (wait.taken <= wait.round_trip * 5 / 4) {
    plan.window = std::clamp(2 * plan.window, kOnWayInAnyOrder, kMaxOnWay);
  } else if (wait.taken > wait.round_trip * 3 / 2 || plan.window == 0) {
    plan.window = std::max(plan.window / 2, kMinOnWay);
  }
}

// The small files of a folder that are not here yet, those after `start` first.
void SmallFiles::PlanFolder(const Place& start) {
  const auto path = nodes.PathOf(start.ino);
  FolderContent known;
  if (!path || !listings.Get(*path, Clock::now(), known.entries, known.asked)) {
    return;
  }
  auto& entries = known.entries;
  std::rotate(entries.begin(),
              std::find_if(entries.begin(), entries.end(),
                           [&](const Entry& entry) { return entry.name > start.name; }),
              entries.end());
  for (const Entry& entry : entries) {
    const Attributes& attributes = entry.attributes;
    if (!attributes.is_folder && attributes.size > 0 && attributes.size <= kMaxFileBytes &&
        plan.count < kMaxFiles && plan.bytes + attributes.size <= kMaxBytes &&
        !IsHere(start.ino, entry)) {
      plan.files.push_back({start.ino, entry.name});
      ++plan.count;
      plan.bytes += attributes.size;
    }
  }
}

bool SmallFiles::IsHere(Ino folder, const Entry& entry) const {
  const auto ino = nodes.Find(folder, entry.name);
  return ino && (nodes.KernelOf(*ino).fetched_ahead ||
                 nodes.KernelOf(*ino).version == entry.attributes.version);
}

// The folders beside the one that was opened last, where a program goes from folder to folder.
bool SmallFiles::PlanFoldersBeside() {
  if (plan.opened_folders.size() < 2 || !nodes.Exists(plan.last.ino)) {
    return false;
  }
  const Ino parent = nodes.FolderOf(plan.last.ino);
  const auto path = nodes.PathOf(parent);
  FolderContent known;
  if (!path || !listings.Get(*path, Clock::now(), known.entries, known.asked)) {
    return false;
  }
  for (const Entry& entry : known.entries) {
    const auto folder = entry.attributes.is_folder ? nodes.Find(parent, entry.name) : std::nullopt;
    if (folder && plan.files.size() < kMaxOnWay && plan.planned_folders.insert(*folder).second) {
      PlanFolder({*folder, ""});
    }
  }
  return !plan.files.empty();
}

std::optional<Place> SmallFiles::Next(Clock::time_point now) {
  if (on_way >= plan.window || plan.last_opened + kPause < now) {
    return std::nullopt;
  }
  for (auto& [folder, listed] : plan.fetched) {
    if (listed + kListAfter < now) {
      listed = now;
      ++on_way;
      return Place{folder, ""};
    }
  }
  const bool may_be_next = plan.in_order || plan.window >= kOnWayInAnyOrder;
  if (!may_be_next || (plan.files.empty() && !PlanFoldersBeside())) {
    return std::nullopt;
  }
  Place next = std::move(plan.files.front());
  plan.files.pop_front();
  ++on_way;
  return next;
}

}  // namespace tarn::fs
