#include "platform/filesystem/finder.h"

#include <cerrno>

#include "platform/filesystem/errors.h"
#include "platform/filesystem/names.h"

namespace tarn::fs {

namespace {

constexpr int kMaxAttempts = 10;

}  // namespace

int Finder::Find(const std::string& path, bool ask_anew, Listings::Answer& answer) {
  for (int attempt = 1;; ++attempt) {
    const auto asked = Clock::now();
    Listings::Ticket ticket = 0;
    {
      const MutexLock guard(drive.lock);
      answer = drive.listings.Find(path, asked);
      const bool may_ask = ask_anew && remote.IsReachable();
      if (!may_ask && answer.known != Listings::Known::kNothing) {
        return 0;
      }
      ticket = drive.listings.Begin();
    }
    answer = {Listings::Known::kPresent, {}, asked, believed_for};
    const AERROR error = remote.GetInfo(path, answer.attributes);
    if (ErrnoOf(error) == ENOENT) {
      answer.known = Listings::Known::kAbsent;
    } else if (error != SUCCESS) {
      const MutexLock guard(drive.lock);
      const bool is_lost = error == DEVICE_NOT_READY && !remote.IsReachable();
      answer = is_lost ? drive.listings.Find(path, asked) : Listings::Answer{};
      return answer.known != Listings::Known::kNothing ? 0 : ErrnoOf(error);
    }
    const MutexLock guard(drive.lock);
    const bool is_present = answer.known == Listings::Known::kPresent;
    if (drive.listings.Add(ticket, path, is_present ? &answer.attributes : nullptr, asked) ||
        attempt == kMaxAttempts) {
      return 0;
    }  // else it was changed from here meanwhile, and the answer may be from before that
  }
}

int Finder::FindInFolder(const std::string& path, Listings::Answer& answer) {
  const std::string folder(FolderOf(path));
  bool list = false;
  {
    const auto now = Clock::now();
    const MutexLock guard(drive.lock);
    answer = drive.listings.Find(path, now);
    if (answer.known != Listings::Known::kNothing) {
      return 0;
    }
    list = drive.listings.HasSingleAnswers(folder, now);
  }
  if (FolderContent content; list) {
    (void)GetListing(folder, content);  // where it fails, the name alone is asked for
  }
  return Find(path, false, answer);
}

AERROR Finder::GetListing(const std::string& path, FolderContent& content) {
  const auto outcome = std::make_shared<std::optional<AERROR>>();
  Listings::Ticket ticket = 0;
  {
    const MutexLock guard(drive.lock);
    for (;;) {
      content.asked = Clock::now();
      if (drive.listings.Get(path, content.asked, content.entries, content.asked)) {
        return SUCCESS;
      }
      const auto asked = listing_now.try_emplace(path, outcome).first->second;
      if (asked == outcome) {
        break;
      }
      while (!*asked) {
        listed.wait(drive.lock);  // somebody else asks already
      }
      if (**asked != SUCCESS) {
        return WithoutAnswer(**asked, path, content);
      }
    }
    ticket = drive.listings.Begin();
  }
  const AERROR error = remote.List(path, content.entries);
  const MutexLock guard(drive.lock);
  *outcome = error;
  listing_now.erase(path);
  listed.notify_all();
  if (error != SUCCESS) {
    return WithoutAnswer(error, path, content);
  }
  drive.listings.AddListing(ticket, path, content.entries, content.asked);
  return SUCCESS;
}

AERROR Finder::WithoutAnswer(AERROR error, const std::string& path, FolderContent& content) {
  const bool is_lost = error == DEVICE_NOT_READY && !remote.IsReachable();
  const bool is_known =
      is_lost && drive.listings.Get(path, content.asked, content.entries, content.asked);
  return is_known ? SUCCESS : error;
}

void Finder::ListAnew(Ino folder) {
  const auto asked = Clock::now();
  std::optional<std::string> path;
  Listings::Ticket ticket = 0;
  {
    const MutexLock guard(drive.lock);
    path = drive.nodes.PathOf(folder);
    ticket = drive.listings.Begin();
  }
  std::vector<Entry> entries;
  if (path && remote.List(*path, entries) == SUCCESS) {
    const MutexLock guard(drive.lock);
    drive.listings.AddListing(ticket, *path, entries, asked);
  }
}

std::optional<Attributes> Finder::FindAsOpened(const OpenFile& file, const std::string& path) {
  Listings::Answer now;
  if (Find(path, true, now) != 0 || now.known != Listings::Known::kPresent) {
    return std::nullopt;
  }
  const MutexLock guard(drive.lock);
  const bool is_same = now.attributes.version == file.remote.version;
  return is_same ? std::optional(now.attributes) : std::nullopt;
}

bool Finder::TakeNewVersion(OpenFile& file, const std::string& path,
                            const std::optional<FS_TIME>& modified) {
  Listings::Answer now;
  if (Find(path, true, now) != 0 || now.known != Listings::Known::kPresent) {
    return false;
  }
  const MutexLock guard(drive.lock);
  const FS_TIME& time = now.attributes.modified;
  const bool has_time =
      !modified || (time.seconds == modified->seconds && time.nanoseconds == modified->nanoseconds);
  if (now.attributes.size != file.remote.size || !has_time) {
    return false;
  }
  if (drive.nodes.Exists(file.ino) &&
      drive.nodes.KernelOf(file.ino).version == file.remote.version) {
    drive.nodes.KernelOf(file.ino).version = now.attributes.version;
  }
  file.remote = now.attributes;
  file.is_fresh = false;
  file.DropReader();
  return true;
}

}  // namespace tarn::fs
