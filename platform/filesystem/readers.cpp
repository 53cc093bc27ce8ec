#include "platform/filesystem/readers.h"

#include <cerrno>
#include <utility>

#include "platform/filesystem/errors.h"
#include "platform/filesystem/small_files.h"

namespace tarn::fs {

namespace {

// A lookup and the open that it belongs to follow each other within this; then the open need not
// ask again.
constexpr std::chrono::milliseconds kSameCall{10};
// The first open of a file that was fetched ahead takes what was found then or since, for a short
// time: a program that goes through small files would wait for every one of them otherwise.
constexpr std::chrono::seconds kAheadTrust{1};

}  // namespace

// Asks again when the file was renamed meanwhile, because something else may be in its old place.
struct Readers::RemoteContent : ReadSource {
  RemoteContent(Readers& of, Ino read, Attributes as_opened)
      : readers(of),
        keep(of.owner()),
        ino(read),
        attributes(std::move(as_opened)),
        reads_version(of.remote.ReadsVersions(attributes.protocol)) {}

  bool ReadsOneVersion() const override { return reads_version; }

  const Line& GetLine() const override { return readers.remote.GetLine(); }

  int Read(std::uint64_t offset, const std::shared_ptr<Buffer>& buffer, size_t& received) override {
    return WhereItIs([&](const std::string& path) {
      const AERROR error =
          reads_version ? readers.remote.ReadVersion(attributes, path, offset, buffer, received)
                        : readers.remote.Read(attributes.protocol, path, offset, buffer, received);
      if (ErrnoOf(error) == ENOENT || (reads_version && error == SHARING_VIOLATION)) {
        return ESTALE;
      }
      readers.events.Failed(FS_EVENT_READ, error, path, path);
      return ErrnoOf(error);
    });
  }

  int Confirm() override {
    return WhereItIs([&](const std::string& path) {
      Listings::Answer now;
      if (const int error = readers.finder.Find(path, true, now); error != 0) {
        return error;
      }
      const bool is_the_same = now.known == Listings::Known::kPresent &&
                               now.attributes.version == attributes.version &&
                               now.attributes.size == attributes.size;
      return is_the_same ? 0 : ESTALE;
    });
  }

  // ESTALE when there is a whole work file by now: what the remote has under the name may be
  // another's.
  template <typename Ask>
  int WhereItIs(Ask ask) {
    std::optional<std::string> path = Path();
    while (path) {
      const int error = ask(*path);
      std::optional<std::string> path_now = Path();
      if (path_now == path) {
        return error;
      }
      path = std::move(path_now);
    }
    return ESTALE;
  }

  std::optional<std::string> Path() {
    const MutexLock guard(readers.drive.lock);
    const auto file = readers.drive.open_files.Find(ino);
    const bool is_needed = !file || !file->work || !file->work->IsComplete();
    return is_needed ? readers.drive.nodes.PathOf(ino) : std::nullopt;
  }

  Readers& readers;
  const std::shared_ptr<void> keep;  // of what has all that is used here
  const Ino ino;
  const Attributes attributes;
  const bool reads_version;
};

// The beginning of a file is asked for together with the open: one round trip instead of two. Where
// all of it comes, known to be the version that the listing tells of, that answers for the open
// too; else the remote is asked meanwhile.
Readers::Beginning Readers::Begin(Ino ino) {
  const auto asked = Clock::now();
  std::optional<std::string> path;
  Listings::Answer listed;
  Listings::Ticket ticket = 0;
  Beginning begun;
  {
    const MutexLock guard(drive.lock);
    path = drive.nodes.PathOf(ino);
    listed = path ? drive.listings.Find(*path, asked) : listed;
    ticket = drive.listings.Begin();
    if (listed.known != Listings::Known::kPresent || listed.attributes.is_folder ||
        listed.attributes.size == 0 || drive.open_files.Find(ino) ||
        drive.nodes.KernelOf(ino).version == listed.attributes.version) {
      return {};
    }
    begun.expected = listed.attributes;
    begun.reader = Make(ino, begun.expected, true);
  }
  if (listed.attributes.size > SmallFiles::kMaxFileBytes ||
      !remote.ReadsVersions(listed.attributes.protocol)) {
    begun.reader->Begin();
  } else if (begun.reader->FetchBeginning()) {
    const MutexLock guard(drive.lock);
    begun.is_confirmed = drive.listings.Add(ticket, *path, &begun.expected, asked);
  }
  return begun;
}

void Readers::TakeOver(const Beginning& begun, const std::string& content, OpenFile& file) {
  if (!begun.reader) {
    return;
  }
  if (!file.reader && !begun.reader->HasChanged() && begun.reader->GetFile().key == content &&
      file.remote.version == begun.expected.version && file.remote.size == begun.expected.size &&
      file.remote.protocol == begun.expected.protocol) {
    file.reader = begun.reader;
  } else {
    begun.reader->Stop();
  }
}

// Whether what is known of the file holds for an open of this moment.
bool Readers::TrustsForOpen(Ino ino) {
  const auto now = Clock::now();
  const MutexLock guard(drive.lock);
  if (!drive.nodes.Exists(ino)) {
    return false;
  }
  KernelState& known = drive.nodes.KernelOf(ino);
  const auto looked_up = std::exchange(known.looked_up, Clock::time_point{});
  if (looked_up + kSameCall > now) {
    return true;
  }
  const auto path =
      std::exchange(known.fetched_ahead, false) ? drive.nodes.PathOf(ino) : std::nullopt;
  const auto answer = path ? drive.listings.Find(*path, now) : Listings::Answer{};
  return answer.known == Listings::Known::kPresent && answer.asked + kAheadTrust > now;
}

int Readers::Find(Ino ino, bool only_reads, Attributes& attributes, Beginning& begun) {
  const bool trusts = TrustsForOpen(ino);
  if (!trusts && only_reads) {
    begun = Begin(ino);
  }
  if (begun.is_confirmed) {
    attributes = begun.expected;
    return 0;
  }
  std::optional<std::string> path;
  {
    const MutexLock guard(drive.lock);
    path = drive.nodes.PathOf(ino);
  }
  Listings::Answer answer;
  if (const int error = path ? finder.Find(*path, !trusts, answer) : ESTALE; error != 0) {
    return error;
  }
  if (answer.known == Listings::Known::kAbsent) {
    return ESTALE;  // the kernel looks the name up again
  }
  attributes = answer.attributes;
  return attributes.is_folder ? ESTALE : 0;
}

std::shared_ptr<Reader> Readers::Make(Ino ino, const Attributes& attributes, bool is_fresh) {
  return std::make_shared<Reader>(std::make_shared<RemoteContent>(*this, ino, attributes),
                                  Reader::File{.key = drive.nodes.ContentOf(ino),
                                               .version = attributes.version,
                                               .size = attributes.size,
                                               .is_fresh = is_fresh});
}

std::shared_ptr<Reader> Readers::Get(OpenFile& file) {
  const MutexLock guard(drive.lock);
  if (!file.reader) {
    file.reader = Make(file.ino, file.remote, file.is_fresh);
  }
  return file.reader;
}

}  // namespace tarn::fs
