// What is to be seen of a drive and its files, as extended attributes. Nothing here asks the
// remote.
#include <algorithm>
#include <array>

#include "common/conv_aerror.h"
#include "common/rfc3339.h"
#include "platform/filesystem/bindings.h"
#include "platform/filesystem/file_system.h"

namespace tarn::fs {

namespace {

constexpr std::string_view kPrefix = "user.tarn.";
constexpr std::array<std::string_view, 4> kNames = {"user.tarn.state", "user.tarn.unsent",
                                                    "user.tarn.cache", "user.tarn.remote"};
constexpr size_t kOfFiles = 1;  // of these, a file has only the first

std::string CacheState() {
  const Lent<ICache>::Lease cache(Bindings::Get().cache);
  return cache ? std::to_string(cache->GetUsed()) + " of " + std::to_string(cache->GetCapacity()) +
                     " bytes"
               : "none";
}

}  // namespace

FileSystem::Unsent FileSystem::StateOf(const OpenFile& file) const {
  if (!drive.nodes.PathOf(file.ino) || !file.work || !file.work->IsDirty()) {
    return {};
  }
  const Uploads::Status status = sender.GetStatus(file.ino);
  std::string state = "unsent";
  if (status.state == Uploads::State::kSending) {
    state = "sending";
  } else if (status.state == Uploads::State::kFailed) {
    state = std::string("failed: ") + AERRORMessage(status.error);
  }
  return {.state = std::move(state), .bytes = file.work->GetSize()};
}

// The most noteworthy of all files' states.
std::string FileSystem::StateOfAll(std::uint64_t& count, std::uint64_t& bytes) const {
  constexpr std::array<std::string_view, 4> order = {"clean", "unsent", "sending", "failed"};
  const auto rank = [&](const std::string& state) {
    return std::find_if(order.begin(), order.end(),
                        [&](std::string_view known) { return state.starts_with(known); });
  };
  std::string worst = "clean";
  count = bytes = 0;
  for (const auto& [ino, file] : drive.open_files.All()) {
    const Unsent unsent = StateOf(*file);
    if (unsent.state == "clean") {
      continue;
    }
    ++count;
    bytes += unsent.bytes;
    worst = rank(unsent.state) > rank(worst) ? unsent.state : worst;
  }
  return worst;
}

bool FileSystem::GetExtended(Ino ino, std::string_view name, std::string& value) const {
  if (!name.starts_with(kPrefix)) {
    return false;  // the kernel asks for "security.capability" before every write
  }
  const auto names = ListExtended(ino);
  if (std::find(names.begin(), names.end(), name) == names.end()) {
    return false;
  }
  if (name == "user.tarn.cache") {
    value = CacheState();
    return true;
  }
  if (name == "user.tarn.remote") {
    const auto since = remote.UnreachableSince();
    value = since ? "unreachable since " +
                        TimeToUTCRFC3339(std::chrono::system_clock::to_time_t(*since))
                  : "ok";
    return true;
  }
  const MutexLock guard(drive.lock);
  if (ino != kRootIno) {
    const auto file = drive.open_files.Find(ino);
    value = file ? StateOf(*file).state : "clean";
    return true;
  }
  std::uint64_t count = 0;
  std::uint64_t bytes = 0;
  value = StateOfAll(count, bytes);
  if (name == "user.tarn.unsent") {
    value = std::to_string(count) + " files, " + std::to_string(bytes) + " bytes";
  }
  return true;
}

std::vector<std::string_view> FileSystem::ListExtended(Ino ino) const {
  if (ino == kRootIno) {
    return {kNames.begin(), kNames.end()};
  }
  const MutexLock guard(drive.lock);
  const bool is_file = drive.nodes.Exists(ino) && !drive.nodes.IsFolder(ino);
  return {kNames.begin(), kNames.begin() + (is_file ? kOfFiles : 0)};
}

}  // namespace tarn::fs
