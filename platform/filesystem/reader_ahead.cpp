// What a reader fetches that no program has asked for yet.
#include <algorithm>
#include <utility>

#include "platform/filesystem/bindings.h"
#include "platform/filesystem/reader.h"

namespace tarn::fs {

namespace {

using std::chrono::milliseconds;

// The kernel's own requests come in any order within about as much.
constexpr std::uint64_t kReorderedBytes = std::uint64_t{1} << 20;
// Before this much was read on and on, a program may only want the beginning.
constexpr std::uint64_t kBeginBytes = 2 * Reader::kBlockBytes;
// The first piece of a file: most who open it read on. Where the line takes longer for it, a block.
constexpr std::uint64_t kOpeningBytes = std::uint64_t{1} << 20;
constexpr milliseconds kOpeningTime{100};
// Twice what was read is fetched ahead, and more where it costs next to nothing.
constexpr std::uint64_t kGrowth = 2;
constexpr std::uint64_t kCheapGrowth = 8;
constexpr milliseconds kCheapTime{50};
constexpr std::uint64_t kPiecesAtLeast = 4;  // of what is fetched ahead: at the same time
// With a way this short, or one that is not known, to fetch around random reads saves nothing.
constexpr milliseconds kShortWay{2};
// On a thin line what the program needs next would wait for what it needs last.
constexpr milliseconds kPieceTime{250};
constexpr milliseconds kAheadTime{1000};

}  // namespace

// Whether the program reads on and on, or begins to.
bool Reader::Note(std::uint64_t offset, size_t length) {
  const bool follows = offset <= last_end + kReorderedBytes && offset + kReorderedBytes >= last_end;
  const bool reads_on = has_read ? follows : offset == 0;
  if (reads_on) {
    read_on += length;
    last_end = std::max(last_end, offset + length);
  } else {
    DropWaiting();
    read_on = 0;
    last_end = offset + length;
  }
  has_read = true;
  return reads_on;
}

size_t Reader::LengthFor(std::uint64_t offset) const {
  const Line& line = source->GetLine();
  if (offset == 0 && !IsThere(kBlockBytes)) {
    return line.BytesIn(kOpeningTime) < kOpeningBytes ? kBlockBytes : kOpeningBytes;
  }
  if (read_on < kBeginBytes) {
    return kBlockBytes;
  }
  const std::uint64_t wanted = std::min({AheadBytes() / kPiecesAtLeast, std::uint64_t{kPieceBytes},
                                         source->GetLine().BytesIn(kPieceTime)});
  const std::uint64_t blocks = std::max<std::uint64_t>(1, wanted / kBlockBytes);
  return blocks * kBlockBytes - offset % kBlockBytes;
}

std::uint64_t Reader::AheadBytes() const {
  const Line& line = source->GetLine();
  const std::uint64_t cheap = std::min(kCheapGrowth * read_on, line.BytesIn(kCheapTime));
  return std::min({std::uint64_t{kMaxAheadBytes}, std::max(kGrowth * read_on, cheap),
                   std::max(std::uint64_t{kPieceBytes}, line.BytesIn(kAheadTime))});
}

bool Reader::IsThere(std::uint64_t offset) const {
  const std::uint64_t block = offset / kBlockBytes;
  return FindPiece(offset) || (block < in_cache.size() && in_cache[block]);
}

Reader::PiecePtr Reader::AddBeginning() {
  const MutexLock guard(lock);
  return AddPiece(0, LengthFor(0));
}

void Reader::Begin() {
  (void)Push(AddBeginning(), ASYNCQ_URGENT);  // without a queue the first read does it
}

bool Reader::FetchBeginning() {
  const PiecePtr piece = AddBeginning();
  return Finish(piece) == 0 && piece->is_fetched;
}

void Reader::ReadAhead(std::uint64_t end) {
  for (;;) {
    PiecePtr piece;
    {
      const MutexLock guard(lock);
      piece = stopped || has_changed ? nullptr : AddAhead(end);
    }
    if (!piece || !Push(piece, ASYNCQ_BACKGROUND)) {
      return;
    }
  }
}

// The next piece to fetch for a program that has read to `end`; null: none for now.
Reader::PiecePtr Reader::AddAhead(std::uint64_t end) {
  if (read_on < kBeginBytes) {
    return nullptr;
  }
  const std::uint64_t limit = std::min(file.size, end + AheadBytes());
  std::uint64_t next = end + (kBlockBytes - end % kBlockBytes) % kBlockBytes;
  for (PiecePtr known = FindPiece(next); known && next < limit; known = FindPiece(next)) {
    next = known->offset + known->length;
  }
  return next < limit ? AddPiece(next, LengthFor(next)) : nullptr;
}

void Reader::ReadAround(std::uint64_t offset) {
  std::uint64_t room = 0;
  if (const Lent<ICache>::Lease cache(Bindings::Get().cache); cache) {
    room = cache->GetCapacity() / 2;  // the rest is for what programs did ask for
  }
  std::vector<PiecePtr> around;
  {
    const MutexLock guard(lock);
    if (stopped || has_changed || around_bytes <= kBlockBytes || file.size > kMaxTrackedBytes ||
        spare_bytes + around_bytes > room) {
      return;
    }
    around = AddAround(offset);
  }
  for (const PiecePtr& piece : around) {
    (void)Push(piece, ASYNCQ_BACKGROUND);
  }
}

// Pieces for what is missing of the window that `offset` lies in.
std::vector<Reader::PiecePtr> Reader::AddAround(std::uint64_t offset) {
  std::vector<PiecePtr> around;
  std::uint64_t at = offset - offset % around_bytes;
  const std::uint64_t end = std::min(file.size, at + around_bytes);
  while (at < end) {
    std::uint64_t gap_end = at;
    while (gap_end < end && gap_end - at < kPieceBytes && !IsThere(gap_end)) {
      gap_end += kBlockBytes;
    }
    if (gap_end == at) {
      at += kBlockBytes;
      continue;
    }
    around.push_back(AddPiece(at, gap_end - at));
    around.back()->is_spare = true;
    spare_bytes += around.back()->length;
    at = gap_end;
  }
  return around;
}

// A random read that takes hardly longer than an answer without content leaves room on the line;
// one that takes much longer does not. In between, nothing changes.
void Reader::LearnFrom(const Piece& piece, Clock::duration taken) {
  const Clock::duration round_trip = source->GetLine().RoundTrip();
  if (!piece.is_fetched || round_trip < kShortWay) {
    return;
  }
  const MutexLock guard(lock);
  if (taken <= round_trip * 9 / 8) {
    around_bytes = std::min<std::uint64_t>(2 * around_bytes, 8 * kPieceBytes);
  } else if (taken > round_trip * 3 / 2) {
    around_bytes = std::max<std::uint64_t>(around_bytes / 2, kBlockBytes);
  }
}

}  // namespace tarn::fs
