#include "platform/filesystem/journal.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "common/folders.h"
#include "common/json.h"
#include "common/posix.h"
#include "platform/filesystem/bindings.h"
#include "platform/filesystem/names.h"

namespace tarn::fs {

namespace {

namespace files = std::filesystem;

constexpr int kMostFolders = 1000;  // drives with one label at a time
constexpr mode_t kFolderMode = 0700;
constexpr size_t kMaxRecordBytes = size_t{1} << 20;
constexpr std::string_view kRecordEnd = ".record";
constexpr std::string_view kContentEnd = ".content";
constexpr std::string_view kMoveEnd = ".move";

void Insert(Json& json, std::uint64_t size, const FS_TIME& modified) {
  JsonObject time;
  time.Insert("seconds", modified.seconds);
  time.Insert("nanoseconds", modified.nanoseconds);
  json.Insert("size", static_cast<unsigned long long>(size));
  json.Insert("modified", time);
}

void Extract(const Json& json, std::uint64_t& size, FS_TIME& modified) {
  size = static_cast<unsigned long long>(json.GetObject("size"));
  modified.seconds = static_cast<long long>(json.GetObject("modified/seconds"));
  modified.nanoseconds = static_cast<int>(json.GetObject("modified/nanoseconds"));
}

// Versions and names of remotes are any bytes, records are UTF-8.
std::string Escape(const std::string& bytes) {
  std::string text;
  for (const char c : bytes) {
    if (c >= ' ' && c <= '~' && c != '%') {
      text += c;
    } else {
      std::array<char, 4> code = {};
      std::snprintf(code.data(), code.size(), "%%%02x", static_cast<unsigned char>(c));
      text += code.data();
    }
  }
  return text;
}

std::string Unescape(const std::string& text) {
  std::string bytes;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      bytes += static_cast<char>(std::strtol(text.substr(i + 1, 2).c_str(), nullptr, 16));
      i += 2;
    } else {
      bytes += text[i];
    }
  }
  return bytes;
}

std::string ToText(const Journal::Record& record, const std::string& content_name) {
  Json json;
  json.Insert("remote", Escape(record.remote));
  json.Insert("path", record.path);
  Insert(json, record.size, record.modified);
  json.Insert("content", content_name);
  if (record.replaces) {
    json.Insert("replaces", Escape(*record.replaces));
  }
  JsonObject attempts;
  for (const Journal::Record::Attempt& attempt : record.attempts) {
    attempts.Insert(attempt.name.c_str(), static_cast<unsigned long long>(attempt.size));
  }
  if (!record.attempts.empty()) {
    json.Insert("attempts", attempts);
  }
  if (!record.supersedes.empty()) {
    json.Insert("supersedes", record.supersedes);
  }
  return json.ToText();
}

std::string ToText(const Journal::Move& move) {
  Json json;
  json.Insert("remote", Escape(move.remote));
  json.Insert("from", move.from);
  json.Insert("to", move.to);
  json.Insert("folder", move.is_folder ? 1 : 0);
  Insert(json, move.size, move.modified);
  json.Insert("replaced", move.replaced_id);
  return json.ToText();
}

bool IsPathInDrive(const std::string& path) {
  if (path.size() < 2 || path[0] != '/') {
    return false;
  }
  for (size_t start = 1; start <= path.size();) {
    const size_t end = std::min(path.find('/', start), path.size());
    if (!IsValidName(std::string_view(path).substr(start, end - start))) {
      return false;
    }
    start = end + 1;
  }
  return true;
}

// False for what no process of ours has written.
bool FromText(const std::string& text, Journal::Record& record, std::string& content_name) {
  try {
    const Json json(text.c_str());
    record.remote = Unescape(std::string(json.GetObject("remote")));
    record.path = std::string(json.GetObject("path"));
    Extract(json, record.size, record.modified);
    content_name = std::string(json.GetObject("content"));
    if (json.HasObject("replaces")) {
      record.replaces = Unescape(std::string(json.GetObject("replaces")));
    }
    if (json.HasObject("supersedes")) {
      record.supersedes = std::string(json.GetObject("supersedes"));
    }
    if (json.HasObject("attempts")) {
      const JsonObject attempts = json.GetObject("attempts");
      for (void* attempt = attempts.Iter(); attempt != nullptr;
           attempt = attempts.IterNext(attempt)) {
        record.attempts.push_back({attempts.IterKey(attempt),
                                   static_cast<unsigned long long>(attempts.IterValue(attempt))});
      }
    }
  } catch (const AERROR&) {
    return false;
  }
  const auto is_content = [](const std::string& name) {
    return IsValidName(name) && name.ends_with(kContentEnd);
  };
  return IsPathInDrive(record.path) && is_content(content_name) &&
         std::all_of(record.attempts.begin(), record.attempts.end(),
                     [&](const auto& attempt) { return is_content(attempt.name); });
}

bool FromText(const std::string& text, Journal::Move& move) {
  try {
    const Json json(text.c_str());
    move.remote = Unescape(std::string(json.GetObject("remote")));
    move.from = std::string(json.GetObject("from"));
    move.to = std::string(json.GetObject("to"));
    move.is_folder = static_cast<int>(json.GetObject("folder")) != 0;
    Extract(json, move.size, move.modified);
    move.replaced_id = std::string(json.GetObject("replaced"));
  } catch (const AERROR&) {
    return false;
  }
  return IsPathInDrive(move.from) && IsPathInDrive(move.to);
}

// The record of one file: the whole text or none of it.
int WriteWhole(const std::string& folder, const std::string& name, const std::string& text) {
  std::string temporary = folder + "/.record-XXXXXX";
  const UniqueFd file(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!file.valid()) {
    return errno;
  }
  int error = WriteAll(file.get(), text.data(), text.size()) ? 0 : errno;
  if (error == 0 && std::rename(temporary.c_str(), JoinPath(folder, name).c_str()) != 0) {
    error = errno;
  }
  if (error != 0) {
    (void)::unlink(temporary.c_str());  // the error is told already
  }
  return error;
}

std::vector<std::string> NamesIn(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (files::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    names.push_back(entry->path().filename().string());
  }
  return names;
}

std::vector<std::string> RecordsByAge(const std::string& folder) {
  std::vector<std::pair<files::file_time_type, std::string>> aged;
  for (const std::string& name : NamesIn(folder)) {
    std::error_code error;
    if (name.ends_with(kRecordEnd)) {
      aged.emplace_back(files::last_write_time(JoinPath(folder, name), error), name);
    }
  }
  std::sort(aged.begin(), aged.end());
  std::vector<std::string> names;
  names.reserve(aged.size());
  for (auto& [time, name] : aged) {
    names.push_back(std::move(name));
  }
  return names;
}

}  // namespace

std::unique_ptr<Journal> Journal::Open(const std::string& base, const std::string& label) {
  std::error_code not_made;  // claiming a folder in it tells
  files::create_directories(base, not_made);
  (void)::chmod(base.c_str(), kFolderMode);  // it is only seen by its owner where that works
  for (int number = -1; number < kMostFolders; ++number) {
    const std::string path =
        base + "/" + FolderName(label) + (number < 0 ? "" : std::to_string(number));
    UniqueFd lock;
    const Claim claim = ClaimFolder(path, kFolderMode, lock);
    if (claim == Claim::kOurs) {
      RemoveLeftOvers(path);
      return std::make_unique<Journal>(base, path, std::move(lock));
    }
    if (claim == Claim::kFailed) {
      break;
    }
  }
  Log(LOGLEVEL_ERROR, "unsent files cannot be kept in %s", base.c_str());
  return nullptr;
}

Journal::Journal(std::string base_folder, std::string own_folder, UniqueFd folder_lock)
    : base(std::move(base_folder)),
      folder(std::move(own_folder)),
      lock_of_folder(std::move(folder_lock)) {}

Journal::~Journal() {
  (void)::rmdir(folder.c_str());  // stays while there is anything in it
}

std::string Journal::MakeId() {
  std::random_device random;
  std::array<char, 17> text = {};
  std::snprintf(text.data(), text.size(), "%08x%08x", random(), random());
  return text.data();
}

int Journal::Put(const std::string& id, const Record& record, Content& content) {
  const bool is_new = !content.IsKept();
  if (is_new) {
    if (const int error = content.KeepAs(folder + "/" + MakeId() + std::string(kContentEnd));
        error != 0) {
      return error;
    }
  }
  {
    const MutexLock guard(lock);
    in_use.insert(id);
  }
  const int error = WriteWhole(folder, id + std::string(kRecordEnd),
                               ToText(record, std::string(NameOf(content.Path()))));
  if (error != 0 && is_new) {
    content.Discard();
  }
  return error;
}

int Journal::Put(const Move& move) {
  return WriteWhole(folder, move.id + std::string(kMoveEnd), ToText(move));
}

void Journal::Remove(const Move& move) {
  (void)::unlink((folder + "/" + move.id + std::string(kMoveEnd)).c_str());  // asked again later
}

std::vector<Journal::Move> Journal::ReadMoves(const std::string& of_folder,
                                              const std::string& remote) {
  std::vector<Move> moves;
  for (const std::string& name : NamesIn(of_folder)) {
    Move move;
    std::string text;
    if (name.ends_with(kMoveEnd) && ReadFile(JoinPath(of_folder, name), kMaxRecordBytes, text) &&
        FromText(text, move) && move.remote == remote) {
      move.id = name.substr(0, name.size() - kMoveEnd.size());
      moves.push_back(std::move(move));
    }
  }
  return moves;
}

void Journal::Remove(const std::string& id, Content& content) {
  {
    const MutexLock guard(lock);
    in_use.erase(id);
  }
  (void)::unlink((folder + "/" + id + std::string(kRecordEnd)).c_str());  // it may have none
  content.Discard();
}

std::vector<Journal::Unsent> Journal::Read(const std::string& of_folder, const std::string& remote,
                                           int& unreadable) {
  std::vector<Unsent> found;
  std::set<std::string> superseded;
  unreadable = 0;
  for (const std::string& name : RecordsByAge(of_folder)) {
    Unsent unsent;
    unsent.id = name.substr(0, name.size() - kRecordEnd.size());
    std::string text;
    std::string content_name;
    if (!ReadFile(JoinPath(of_folder, name), kMaxRecordBytes, text) ||
        !FromText(text, unsent.record, content_name)) {
      ++unreadable;
      continue;
    }
    if (IsValidName(unsent.record.supersedes)) {
      superseded.insert(unsent.record.supersedes);
    }
    if (!remote.empty() && unsent.record.remote != remote) {
      continue;
    }
    const std::string path = JoinPath(of_folder, content_name);
    std::error_code error;
    if (Content::Open(path, unsent.content) != 0 ||
        files::file_size(path, error) != unsent.record.size) {
      Log(LOGLEVEL_ERROR, "the content of the unsent file %s is not whole",
          unsent.record.path.c_str());
      ++unreadable;
      continue;
    }
    unsent.content->LetGo();
    OpenAttempts(of_folder, unsent);
    found.push_back(std::move(unsent));
  }
  for (const std::string& id : superseded) {
    (void)::unlink((JoinPath(of_folder, id) + std::string(kRecordEnd)).c_str());  // mostly gone
  }
  std::erase_if(found, [&](const Unsent& unsent) { return superseded.count(unsent.id) != 0; });
  return found;
}

// One that is missing is one less to be recognised at the remote.
void Journal::OpenAttempts(const std::string& of_folder, Unsent& unsent) {
  std::erase_if(unsent.record.attempts, [&](const Record::Attempt& attempt) {
    const std::string path = JoinPath(of_folder, attempt.name);
    std::shared_ptr<Content> content;
    std::error_code error;
    if (files::file_size(path, error) != attempt.size || Content::Open(path, content) != 0) {
      return true;
    }
    content->LetGo();
    unsent.attempts.push_back(std::move(content));
    return false;
  });
}

void Journal::RemoveLeftOvers(const std::string& of_folder) {
  int unreadable = 0;
  std::set<std::string> used;
  for (const Unsent& unsent : Read(of_folder, "", unreadable)) {
    used.insert(std::string(NameOf(unsent.content->Path())));
    for (const Record::Attempt& attempt : unsent.record.attempts) {
      used.insert(attempt.name);
    }
  }
  for (const std::string& name : NamesIn(of_folder)) {
    const bool is_temporary = name.starts_with(".work-") || name.starts_with(".record-");
    const bool is_unused = name.ends_with(kContentEnd) && used.count(name) == 0 && unreadable == 0;
    if (is_temporary || is_unused) {
      (void)::unlink((JoinPath(of_folder, name)).c_str());  // tried again the next time
    }
  }
}

// Second names for the contents come first, so that the record finds them wherever the record is.
bool Journal::MoveHere(const std::string& from_folder, Unsent& unsent) {
  const std::string record = "/" + unsent.id + std::string(kRecordEnd);
  const std::string old_path = unsent.content->Path();
  const std::string new_path = folder + "/" + std::string(NameOf(old_path));
  for (const Record::Attempt& attempt : unsent.record.attempts) {
    const std::string name = "/" + attempt.name;
    (void)::link((from_folder + name).c_str(), (folder + name).c_str());  // as for a missing one
  }
  if (::link(old_path.c_str(), new_path.c_str()) != 0 ||
      std::rename((from_folder + record).c_str(), (folder + record).c_str()) != 0) {
    return false;
  }
  (void)::unlink(old_path.c_str());  // a left-over without a record goes later
  unsent.attempts.clear();
  OpenAttempts(folder, unsent);
  return Content::Open(new_path, unsent.content) == 0;
}

bool Journal::TakeFrom(const std::string& other_folder, const std::string& remote,
                       std::vector<Unsent>& taken, std::vector<Move>& moves) {
  UniqueFd other_lock;
  if (const Claim claim = LockFolder(other_folder, other_lock); claim != Claim::kOurs) {
    return claim != Claim::kInUse;
  }
  int unreadable = 0;
  bool has_all = true;
  for (Unsent& unsent : Read(other_folder, remote, unreadable)) {
    if (!MoveHere(other_folder, unsent)) {
      has_all = false;
    } else {
      unsent.content->LetGo();
      taken.push_back(std::move(unsent));
    }
  }
  RemoveLeftOvers(other_folder);
  for (Move& move : ReadMoves(other_folder, remote)) {
    const std::string name = "/" + move.id + std::string(kMoveEnd);
    if (std::rename((other_folder + name).c_str(), (folder + name).c_str()) == 0) {
      moves.push_back(std::move(move));
    }
  }
  (void)::rmdir(other_folder.c_str());  // stays while there is anything in it
  return has_all;
}

std::set<std::string> Journal::FoldersBeside() const {
  std::set<std::string> found;
  for (const std::string& name : NamesIn(base)) {
    found.insert(JoinPath(base, name));
  }
  found.erase(folder);
  return found;
}

std::vector<Journal::Unsent> Journal::TakeOver(const std::string& remote,
                                               std::vector<Move>& moves) {
  bool is_first = false;
  std::set<std::string> others;
  {
    const MutexLock guard(lock);
    const auto [known, is_new] = of_others.try_emplace(remote);
    is_first = is_new;
    others.swap(known->second);
  }
  std::vector<Unsent> taken;
  moves.clear();
  if (is_first) {  // later, what is in the own folder is of this process
    int unreadable = 0;
    taken = Read(folder, remote, unreadable);
    moves = ReadMoves(folder, remote);
    others = FoldersBeside();
    const MutexLock guard(lock);
    std::erase_if(taken, [this](const Unsent& unsent)
                             TARN_REQUIRES(lock) { return in_use.count(unsent.id) != 0; });
  }
  std::erase_if(others,
                [&](const std::string& other) { return TakeFrom(other, remote, taken, moves); });
  const MutexLock guard(lock);
  of_others[remote].merge(others);
  for (const Unsent& unsent : taken) {
    in_use.insert(unsent.id);
  }
  return taken;
}

bool Journal::MayInherit() {
  const MutexLock guard(lock);
  return std::any_of(of_others.begin(), of_others.end(),
                     [](const auto& folders) { return !folders.second.empty(); });
}

}  // namespace tarn::fs
