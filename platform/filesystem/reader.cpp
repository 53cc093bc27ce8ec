#include "platform/filesystem/reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/filesystem/background.h"

namespace tarn::fs {

namespace {

// Of all readers together. What is more goes as soon as the cache has it.
constexpr size_t kMaxBufferBytes = 32 << 20;

constexpr std::uint64_t BlockStart(std::uint64_t offset) {
  return offset - offset % Reader::kBlockBytes;
}

}  // namespace

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

void Reader::DropWaiting() {
  std::erase_if(pieces, [](const auto& entry) {
    Piece& piece = *entry.second;
    const bool drops = piece.state == State::kWaiting && !piece.is_spare;
    piece.state = drops ? State::kDropped : piece.state;
    return drops;
  });
}

void Reader::LetGo(const PiecePtr& piece) {
  const auto place = std::find(held.begin(), held.end(), piece);
  if (place != held.end()) {
    held_bytes -= piece->length;
    held.erase(place);
    RemovePiece(piece);
  }
}

void Reader::Bound() {
  while (held_bytes > kMaxAheadBytes && held.size() > 1) {
    const PiecePtr oldest = held.front();  // not a reference to what LetGo takes out
    LetGo(oldest);
  }
}

// The kernel keeps what it was given, and asks for each byte once.
void Reader::Given(const PiecePtr& piece, size_t count) {
  piece->given += count;
  if (piece->given >= piece->length && piece->is_cached) {
    LetGo(piece);
  }
}

void Reader::Stop() {
  Buffer::Trim();
  const MutexLock guard(lock);
  stopped = true;
  DropWaiting();
}

int Reader::View(std::uint64_t offset, size_t length, Bytes& part) {
  part = {};
  if (offset >= file.size || length == 0) {
    return 0;
  }
  const std::uint64_t end = offset + std::min<std::uint64_t>(length, file.size - offset);
  PiecePtr piece;
  bool is_random_miss = false;
  {
    const MutexLock guard(lock);
    const bool reads_on = Note(offset, end - offset);
    piece = FindPiece(offset);
    if (!piece) {
      is_random_miss = !reads_on;
      piece = AddPiece(BlockStart(offset), LengthFor(BlockStart(offset)));
    }
  }
  ReadAhead(end);
  if (is_random_miss) {
    ReadAround(offset);
  }
  const auto begun = Clock::now();
  if (const int error = Finish(piece); error != 0) {
    return error;
  }
  if (is_random_miss) {
    LearnFrom(*piece, Clock::now() - begun);
  }
  const size_t skip = offset - piece->offset;
  part = {.owner = piece->buffer,
          .data = piece->buffer->data() + skip,
          .length = std::min<std::uint64_t>(piece->length - skip, end - offset)};
  const MutexLock guard(lock);
  Given(piece, part.length);
  return 0;
}

int Reader::Read(std::uint64_t offset, void* buffer, size_t length, size_t& received) {
  for (received = 0; received < length;) {
    Bytes part;
    if (const int error = View(offset + received, length - received, part); error != 0) {
      return error;
    }
    if (part.length == 0) {
      break;
    }
    std::memcpy(static_cast<char*>(buffer) + received, part.data, part.length);
    received += part.length;
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
  Load(piece);
  const MutexLock guard(lock);
  return piece->error;
}

void Reader::LoadQueued(const PiecePtr& piece, bool stopping) {
  {
    const MutexLock guard(lock);
    if (piece->state != State::kWaiting) {
      return;  // a program could not wait, or nobody wants it any more
    }
    if (stopping || stopped) {
      RemovePiece(piece);
      return;
    }
    piece->state = State::kBusy;
  }
  Load(piece);
}

void Reader::Load(const PiecePtr& piece) {
  const bool is_first = IsFirst();
  Loaded(piece, is_first, LoadInto(*piece, is_first));
  if (piece->is_fetched && piece->error == 0) {
    KeepInCache(piece);  // after the program has it
  }
}

bool Reader::IsFirst() {
  const MutexLock guard(lock);
  const bool is_first =
      file.is_fresh && !std::exchange(has_begun, true) && !source->ReadsOneVersion();
  first_is_busy = first_is_busy || is_first;
  return is_first;
}

// With the end of the file one byte more is asked for, which must not come.
int Reader::LoadInto(Piece& piece, bool is_first) {
  const bool is_last = piece.offset + piece.length == file.size;
  piece.buffer = Buffer::Make(piece.length + (is_last ? 1 : 0));
  if (!piece.buffer) {
    return ENOMEM;
  }
  piece.is_cached = LoadFromCache(piece);
  piece.is_fetched = !piece.is_cached;
  return piece.is_cached ? 0 : Fetch(piece, is_first);
}

void Reader::Loaded(const PiecePtr& piece, bool is_first, int error) {
  const MutexLock guard(lock);
  if (is_first) {
    first_is_busy = false;
  }
  has_changed = has_changed || error == ESTALE;
  piece->error = error;
  piece->state = State::kDone;
  done.notify_all();
  if (FindPiece(piece->offset) != piece) {
    return;  // dropped meanwhile; only those who wait for it have it
  }
  if (error != 0) {
    RemovePiece(piece);  // another read tries again
    return;
  }
  held_bytes += piece->length;
  held.push_back(piece);
  Bound();
}

bool Reader::LoadFromCache(Piece& piece) {
  for (size_t at = 0; at < piece.length; at += kBlockBytes) {
    const size_t wanted = std::min(kBlockBytes, piece.length - at);
    const std::uint64_t block = (piece.offset + at) / kBlockBytes;
    unsigned length = 0;
    const Lent<ICache>::Lease cache(Bindings::Get().cache);
    if (!cache ||
        cache->ReadBlock(file.key.c_str(), file.version.c_str(), block, piece.buffer->data() + at,
                         static_cast<unsigned>(wanted), &length) != SUCCESS ||
        length != wanted) {
      return false;
    }
  }
  return true;
}

void Reader::KeepInCache(const PiecePtr& piece) {
  for (size_t at = 0; at < piece->length; at += kBlockBytes) {
    const size_t length = std::min(kBlockBytes, piece->length - at);
    const std::uint64_t block = (piece->offset + at) / kBlockBytes;
    const Lent<ICache>::Lease cache(Bindings::Get().cache);
    if (!cache ||
        cache->WriteBlock(file.key.c_str(), file.version.c_str(), block, piece->buffer->data() + at,
                          static_cast<unsigned>(length)) != SUCCESS) {
      return;
    }
  }
  const MutexLock guard(lock);
  piece->is_cached = true;
  if (file.size <= kMaxTrackedBytes) {
    in_cache.resize((file.size + kBlockBytes - 1) / kBlockBytes);
    for (size_t at = 0; at < piece->length; at += kBlockBytes) {
      in_cache[(piece->offset + at) / kBlockBytes] = true;
    }
  }
  if (piece->is_spare || piece->given >= piece->length || Buffer::Total() > kMaxBufferBytes) {
    LetGo(piece);
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
  if (error == ESTALE) {
    const Lent<ICache>::Lease cache(Bindings::Get().cache);
    if (cache) {
      cache->Drop(file.key.c_str());
    }
  }
  return error;
}

int Reader::ReadSourceFor(Piece& piece) {
  size_t received = 0;
  const int error = source->Read(piece.offset, piece.buffer, received);
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

bool Reader::Push(const PiecePtr& piece, ASYNCQ_LANE lane) {
  const auto work = [self = shared_from_this(), piece](bool stopping) {
    self->LoadQueued(piece, stopping);
  };
  if (PushWork(work, lane)) {
    return true;
  }
  const MutexLock guard(lock);
  if (piece->state == State::kWaiting) {
    RemovePiece(piece);  // without a queue nothing is fetched ahead
  }
  return false;
}

}  // namespace tarn::fs
