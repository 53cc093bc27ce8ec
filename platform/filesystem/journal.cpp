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

std::string ToText(const Journal::Record& record, const std::string& content_name) {
  JsonObject modified;
  modified.Insert("seconds", record.modified.seconds);
  modified.Insert("nanoseconds", record.modified.nanoseconds);
  Json json;
  json.Insert("remote", record.remote);
  json.Insert("path", record.path);
  json.Insert("size", static_cast<unsigned long long>(record.size));
  json.Insert("modified", modified);
  json.Insert("content", content_name);
  if (record.replaces) {
    json.Insert("replaces", *record.replaces);
  }
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
    record.remote = std::string(json.GetObject("remote"));
    record.path = std::string(json.GetObject("path"));
    record.size = static_cast<unsigned long long>(json.GetObject("size"));
    record.modified.seconds = static_cast<long long>(json.GetObject("modified/seconds"));
    record.modified.nanoseconds = static_cast<int>(json.GetObject("modified/nanoseconds"));
    content_name = std::string(json.GetObject("content"));
    if (json.HasObject("replaces")) {
      record.replaces = std::string(json.GetObject("replaces"));
    }
  } catch (const AERROR&) {
    return false;
  }
  return IsPathInDrive(record.path) && IsValidName(content_name) &&
         content_name.ends_with(kContentEnd);
}

// The record of one file: the whole text or none of it.
int WriteWhole(const std::string& folder, const std::string& name, const std::string& text) {
  std::string temporary = folder + "/.record-XXXXXX";
  const UniqueFd file(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!file.valid()) {
    return errno;
  }
  int error = WriteAll(file.get(), text.data(), text.size()) ? 0 : errno;
  if (error == 0 && std::rename(temporary.c_str(), (folder + "/" + name).c_str()) != 0) {
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
      aged.emplace_back(files::last_write_time(folder + "/" + name, error), name);
    }
  }
  std::sort(aged.begin(), aged.end());
  std::vector<std::string> names;
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
  if (!content.IsKept()) {
    if (const int error = content.KeepAs(folder + "/" + MakeId() + std::string(kContentEnd));
        error != 0) {
      return error;
    }
  }
  {
    const MutexLock guard(lock);
    in_use.insert(id);
  }
  return WriteWhole(folder, id + std::string(kRecordEnd),
                    ToText(record, std::string(NameOf(content.Path()))));
}

void Journal::Remove(const std::string& id, Content& content) {
  (void)::unlink((folder + "/" + id + std::string(kRecordEnd)).c_str());  // it may have none
  content.Discard();
}

std::vector<Journal::Unsent> Journal::Read(const std::string& of_folder, const std::string& remote,
                                           int& unreadable) {
  std::vector<Unsent> found;
  unreadable = 0;
  for (const std::string& name : RecordsByAge(of_folder)) {
    Unsent unsent;
    unsent.id = name.substr(0, name.size() - kRecordEnd.size());
    std::string text;
    std::string content_name;
    if (!ReadFile(of_folder + "/" + name, kMaxRecordBytes, text) ||
        !FromText(text, unsent.record, content_name)) {
      ++unreadable;
      continue;
    }
    if (!remote.empty() && unsent.record.remote != remote) {
      continue;
    }
    const std::string path = of_folder + "/" + content_name;
    std::error_code error;
    if (Content::Open(path, unsent.content) != 0 ||
        files::file_size(path, error) != unsent.record.size) {
      Log(LOGLEVEL_ERROR, "the content of the unsent file %s is not whole",
          unsent.record.path.c_str());
      ++unreadable;
      continue;
    }
    unsent.content->LetGo();
    found.push_back(std::move(unsent));
  }
  return found;
}

void Journal::RemoveLeftOvers(const std::string& of_folder) {
  int unreadable = 0;
  std::set<std::string> used;
  for (const Unsent& unsent : Read(of_folder, "", unreadable)) {
    used.insert(std::string(NameOf(unsent.content->Path())));
  }
  for (const std::string& name : NamesIn(of_folder)) {
    const bool is_temporary = name.starts_with(".work-") || name.starts_with(".record-");
    const bool is_unused = name.ends_with(kContentEnd) && used.count(name) == 0 && unreadable == 0;
    if (is_temporary || is_unused) {
      (void)::unlink((of_folder + "/" + name).c_str());  // tried again the next time
    }
  }
}

// A second name for the content comes first, so that the record finds it wherever the record is.
bool Journal::MoveHere(const std::string& from_folder, Unsent& unsent) {
  const std::string record = "/" + unsent.id + std::string(kRecordEnd);
  const std::string old_path = unsent.content->Path();
  const std::string new_path = folder + "/" + std::string(NameOf(old_path));
  if (::link(old_path.c_str(), new_path.c_str()) != 0 ||
      std::rename((from_folder + record).c_str(), (folder + record).c_str()) != 0) {
    return false;
  }
  (void)::unlink(old_path.c_str());  // a left-over without a record goes later
  return Content::Open(new_path, unsent.content) == 0;
}

void Journal::TakeFrom(const std::string& other_folder, const std::string& remote,
                       std::vector<Unsent>& taken) {
  UniqueFd other_lock;
  if (LockFolder(other_folder, other_lock) != Claim::kOurs) {
    return;
  }
  int unreadable = 0;
  for (Unsent& unsent : Read(other_folder, remote, unreadable)) {
    if (MoveHere(other_folder, unsent)) {
      unsent.content->LetGo();
      taken.push_back(std::move(unsent));
    }
  }
  RemoveLeftOvers(other_folder);
  (void)::rmdir(other_folder.c_str());  // stays while there is anything in it
}

std::vector<Journal::Unsent> Journal::TakeOver(const std::string& remote) {
  int unreadable = 0;
  std::vector<Unsent> taken = Read(folder, remote, unreadable);
  {
    const MutexLock guard(lock);
    std::erase_if(taken, [this](const Unsent& unsent)
                             TARN_REQUIRES(lock) { return in_use.count(unsent.id) != 0; });
  }
  for (const std::string& name : NamesIn(base)) {
    if (const std::string other = base + "/" + name; other != folder) {
      TakeFrom(other, remote, taken);
    }
  }
  const MutexLock guard(lock);
  for (const Unsent& unsent : taken) {
    in_use.insert(unsent.id);
  }
  return taken;
}

}  // namespace tarn::fs
