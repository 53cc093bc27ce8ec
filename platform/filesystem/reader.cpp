#include "platform/filesystem/reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/filesystem/bindings.h"

namespace tarn::fs {

namespace {

// The kernel's own requests come in any order within about as much.
constexpr std::uint64_t kReorderedBytes = std::uint64_t{1} << 20;
// Before this much was read on and on, a program may only want the beginning.
constexpr std::uint64_t kBeginBytes = 2 * Reader::kBlockBytes;

constexpr std::uint64_t BlockStart(std::uint64_t offset) {
  return offset - offset % Reader::kBlockBytes;
}

}  // namespace

struct Reader::Task {
  std::shared_ptr<Reader> reader;
  PiecePtr piece;

  static void Run(void* context, int stopping) {
    const std::unique_ptr<Task> self(static_cast<Task*>(context));
    Reader& reader = *self->reader;
    {
      const MutexLock guard(reader.lock);
      if (self->piece->state != State::kWaiting) {
        return;  // a program could not wait
      }
      if (stopping != 0 || reader.stopped) {
        reader.RemovePiece(self->piece);
        return;
      }
      self->piece->state = State::kBusy;
    }
    reader.Load(*self->piece);
  }
};

Reader::PiecePtr Reader::FindPiece(std::uint64_t offset) const {
  auto piece = pieces.upper_bound(offset);
  if (piece == pieces.begin()) {
    return nullptr;
  }
  --piece;
  return offset < piece->first + piece->second->length ? piece->second : nullptr;
}

Reader::PiecePtr Reader::AddPiece(std::uint64_t offset, size_t length) {
  const auto next = pieces.upper_bound(offset);
  const std::uint64_t limit = next == pieces.end() ? file.size : std::min(file.size, next->first);
  auto piece = std::make_shared<Piece>();
  piece->offset = offset;
  piece->length = std::min<std::uint64_t>(length, limit - offset);
  pieces.emplace(offset, piece);
  return piece;
}

void Reader::RemovePiece(const PiecePtr& piece) {
  const auto known = pieces.find(piece->offset);
  if (known != pieces.end() && known->second == piece) {
    pieces.erase(known);
  }
}

size_t Reader::LengthFor(std::uint64_t offset) const {
  const bool reads_on = offset == 0 || read_on >= kBeginBytes;
  return reads_on ? kPieceBytes : kBlockBytes;
}

// Finds out whether the program reads on and on.
void Reader::Note(std::uint64_t offset, size_t length) {
  const bool follows = offset <= last_end + kReorderedBytes && offset + kReorderedBytes >= last_end;
  if ((has_read && follows) || (!has_read && offset == 0)) {
    read_on += length;
    last_end = std::max(last_end, offset + length);
  } else {
    DropWaiting();
    read_on = 0;
    last_end = offset + length;
  }
  has_read = true;
}

void Reader::DropWaiting() {
  std::erase_if(pieces, [](const auto& piece) { return piece.second->state == State::kWaiting; });
}

void Reader::Bound() {
  while (held_bytes > kMaxHeldBytes && held.size() > 1) {
    held_bytes -= held.front()->data.size();
    RemovePiece(held.front());
    held.pop_front();
  }
}

void Reader::Stop() {
  const MutexLock guard(lock);
  stopped = true;
  DropWaiting();
}

void Reader::Begin() {
  PiecePtr piece;
  {
    const MutexLock guard(lock);
    piece = AddPiece(0, kPieceBytes);
  }
  (void)Push(piece, ASYNCQ_URGENT);  // without a queue the first read does it
}

bool Reader::FetchBeginning() {
  PiecePtr piece;
  {
    const MutexLock guard(lock);
    piece = AddPiece(0, kPieceBytes);
  }
  return Finish(piece) == 0 && piece->is_fetched;
}

int Reader::Read(std::uint64_t offset, void* buffer, size_t length, size_t& received) {
  received = 0;
  const std::uint64_t end =
      std::min(file.size, offset + std::min<std::uint64_t>(length, file.size));
  if (offset >= end) {
    return 0;
  }
  {
    const MutexLock guard(lock);
    Note(offset, end - offset);
  }
  ReadAhead(end);
  while (offset + received < end) {
    const std::uint64_t at = offset + received;
    PiecePtr piece;
    {
      const MutexLock guard(lock);
      piece = FindPiece(at);
      if (!piece) {
        piece = AddPiece(BlockStart(at), LengthFor(BlockStart(at)));
      }
    }
    if (const int error = Finish(piece); error != 0) {
      return error;
    }
    const size_t skip = at - piece->offset;
    const size_t count = std::min<std::uint64_t>(piece->length - skip, end - at);
    std::memcpy(static_cast<char*>(buffer) + received, piece->data.data() + skip, count);
    received += count;
  }
  return 0;
}

int Reader::Finish(const PiecePtr& piece) {
  {
    const MutexLock guard(lock);
    while (piece->state == State::kBusy) {
      done.wait(lock);
    }
    if (piece->state == State::kDone) {
      return piece->error;
    }
    piece->state = State::kBusy;
  }
  Load(*piece);
  const MutexLock guard(lock);
  return piece->error;
}

void Reader::Load(Piece& piece) {
  bool is_first = false;
  {
    const MutexLock guard(lock);
    is_first = file.is_fresh && !std::exchange(has_begun, true) && !source->ReadsOneVersion();
    first_is_busy = first_is_busy || is_first;
  }
  piece.data.resize(piece.length);
  const bool is_cached = LoadFromCache(piece);
  const int error = is_cached ? 0 : Fetch(piece, is_first);
  const MutexLock guard(lock);
  piece.is_fetched = !is_cached;
  if (is_first) {
    first_is_busy = false;
  }
  has_changed = has_changed || error == ESTALE;
  piece.error = error;
  piece.state = State::kDone;
  done.notify_all();
  const PiecePtr self = FindPiece(piece.offset);
  if (self.get() != &piece) {
    return;  // dropped meanwhile; only those who wait for it have it
  }
  if (error != 0) {
    RemovePiece(self);  // another read tries again
    return;
  }
  held_bytes += piece.data.size();
  held.push_back(self);
  Bound();
}

bool Reader::LoadFromCache(Piece& piece) {
  for (size_t at = 0; at < piece.length; at += kBlockBytes) {
    const size_t wanted = std::min(kBlockBytes, piece.length - at);
    const std::uint64_t block = (piece.offset + at) / kBlockBytes;
    unsigned length = 0;
    const Lent<ICache>::Lease cache(Bindings::Get().cache);
    if (!cache ||
        cache->ReadBlock(file.key.c_str(), file.version.c_str(), block, piece.data.data() + at,
                         static_cast<unsigned>(wanted), &length) != SUCCESS ||
        length != wanted) {
      return false;
    }
  }
  return true;
}

void Reader::KeepInCache(const Piece& piece) {
  for (size_t at = 0; at < piece.length; at += kBlockBytes) {
    const size_t length = std::min(kBlockBytes, piece.length - at);
    const std::uint64_t block = (piece.offset + at) / kBlockBytes;
    const Lent<ICache>::Lease cache(Bindings::Get().cache);
    if (cache) {
      (void)cache->WriteBlock(file.key.c_str(), file.version.c_str(), block, piece.data.data() + at,
                              static_cast<unsigned>(length));  // it holds less, then
    }
  }
}

int Reader::Fetch(Piece& piece, bool is_first) {
  if (HasChanged()) {
    return ESTALE;
  }
  int error = ReadSourceFor(piece);
  const bool is_whole = piece.offset == 0 && piece.length == file.size;
  if (error == 0 && !is_whole && !is_first && !source->ReadsOneVersion()) {
    error = ConfirmAfterFirst();
  }
  if (error == 0) {
    KeepInCache(piece);
  } else if (error == ESTALE) {
    const Lent<ICache>::Lease cache(Bindings::Get().cache);
    if (cache) {
      cache->Drop(file.key.c_str());
    }
  }
  return error;
}

// With the end of the file one byte more is asked for, which must not come.
int Reader::ReadSourceFor(Piece& piece) {
  const bool is_last = piece.offset + piece.length == file.size;
  piece.data.resize(piece.length + (is_last ? 1 : 0));
  size_t received = 0;
  const int error = source->Read(piece.offset, piece.data.data(), piece.data.size(), received);
  piece.data.resize(piece.length);
  return error == 0 && received != piece.length ? ESTALE : error;
}

// The first piece is confirmed by what is asked after it has come, and only by that.
int Reader::ConfirmAfterFirst() {
  {
    const MutexLock guard(lock);
    while (first_is_busy) {
      done.wait(lock);
    }
  }
  return source->Confirm();
}

bool Reader::HasChanged() {
  const MutexLock guard(lock);
  return has_changed;
}

void Reader::ReadAhead(std::uint64_t end) {
  for (;;) {
    PiecePtr piece;
    {
      const MutexLock guard(lock);
      if (stopped || has_changed || read_on < kBeginBytes) {
        return;
      }
      const std::uint64_t limit = std::min({file.size, end + 2 * read_on, end + kMaxAheadBytes});
      std::uint64_t next = BlockStart(end + kBlockBytes - 1);
      for (PiecePtr known = FindPiece(next); known && next < limit; known = FindPiece(next)) {
        next = known->offset + known->length;
      }
      if (next >= limit) {
        return;
      }
      piece = AddPiece(next, kPieceBytes);
    }
    if (!Push(piece, ASYNCQ_BACKGROUND)) {
      const MutexLock guard(lock);
      if (piece->state == State::kWaiting) {
        RemovePiece(piece);  // without a queue nothing is fetched ahead
      }
      return;
    }
  }
}

bool Reader::Push(const PiecePtr& piece, ASYNCQ_LANE lane) {
  auto task = std::make_unique<Task>(Task{shared_from_this(), piece});
  const Lent<IAsyncQ>::Lease queue(Bindings::Get().queue);
  if (!queue || queue->Push(&Task::Run, task.get(), lane) != SUCCESS) {
    return false;
  }
  (void)task.release();  // the queue's now
  return true;
}

}  // namespace tarn::fs
