#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/sync.h"
#include "interfaces/iasyncq.h"
#include "platform/filesystem/buffer.h"
#include "platform/filesystem/line.h"

namespace tarn::fs {

// Where a Reader gets the content of its file from. Any thread. Errors: 0 or an errno value.
class ReadSource {
 public:
  virtual ~ReadSource() = default;
  // Fills the buffer. After a failure it may still be written to.
  [[nodiscard]] virtual int Read(std::uint64_t offset, const std::shared_ptr<Buffer>& buffer,
                                 size_t& received) = 0;
  // Whether Read itself delivers nothing but bytes of the file as it was opened, else ESTALE.
  [[nodiscard]] virtual bool ReadsOneVersion() const = 0;
  // Asks whether the file still is what it was when it was opened: ESTALE when it has changed.
  [[nodiscard]] virtual int Confirm() = 0;
  [[nodiscard]] virtual const Line& GetLine() const = 0;
};

// The content of one version of one open file: fetched in pieces, ahead of a program that reads on
// and on, and kept in blocks in the bound cache.
//
// A piece may be given out together with others only when the file was found unchanged after the
// piece was fetched; else bytes of two versions could meet. So every piece is confirmed, but for
// one that is the whole file, and the very first one: alone it is no mixture, and what comes later
// confirms it too. Where the source itself reads one version only, nothing needs to be confirmed.
// Once a change was found, everything that is not there yet fails with ESTALE.
//
// What a program reads on and on is fetched ahead of it, more with every byte that it has read.
// Around a read at a random place more and more is fetched too, but only where that costs the
// program nothing: as long as such a read takes hardly longer than an answer without content.
//
// Owns:    the pieces in memory, a bounded number of bytes; shares the source.
// Threads: any. Tasks in the bound queue share ownership of the reader. A program never waits for a
//          task that has not begun: it does the work itself.
// Locks:   `lock` guards the pieces; not held while anything is fetched or copied.
class Reader : public std::enable_shared_from_this<Reader> {
 public:
  // The unit of the cache and of a read at a random place: as much as the kernel asks for at a time
  // when it reads ahead, and no more than 5 ms on a line of 200 Mbit/s, well below a round trip.
  static constexpr size_t kBlockBytes = size_t{128} << 10;
  static constexpr size_t kPieceBytes = Buffer::kReusedBytes;  // of one request at most
  // Fetched ahead at a time: what the background workers of the queue have in hand, fourteen of
  // its sixteen.
  static constexpr size_t kMaxAheadBytes = 14 * kPieceBytes;

  struct File {
    std::string key;  // for the cache: differs between files and what is stored in them from here
    std::string version;
    std::uint64_t size = 0;  // bytes
    bool is_fresh = false;   // nothing of this version was given to anybody yet
  };

  Reader(std::shared_ptr<ReadSource> content_source, File described)
      : source(std::move(content_source)), file(std::move(described)) {}

  // Starts to fetch the beginning, in the queue if there is one.
  void Begin();
  // Fetches the beginning. True: it was asked for and has come, so the file is unchanged now.
  [[nodiscard]] bool FetchBeginning();
  // Up to `length` bytes from `offset` without a copy: at least one, but none from the end on.
  [[nodiscard]] int View(std::uint64_t offset, size_t length, Bytes& part);
  // Fewer bytes than asked for only at the end of the file.
  [[nodiscard]] int Read(std::uint64_t offset, void* buffer, size_t length, size_t& received);

  [[nodiscard]] const File& GetFile() const { return file; }
  // Ends what is fetched ahead: nobody reads any more.
  void Stop();
  // Whether the file was found changed; another reader is needed for what it is now.
  [[nodiscard]] bool HasChanged();

 private:
  // Of larger files it is not known which blocks went to the cache, which no cache holds anyway.
  static constexpr std::uint64_t kMaxTrackedBytes = std::uint64_t{64} << 30;

  enum class State { kWaiting, kBusy, kDone, kDropped };
  struct Piece {
    std::uint64_t offset;
    size_t length;
    State state = State::kWaiting;
    int error = 0;
    bool is_fetched = false;  // else it was in the cache
    bool is_cached = false;
    bool is_spare = false;  // fetched around a random read: goes to the cache only
    size_t given = 0;       // bytes given to programs
    std::shared_ptr<Buffer> buffer;
  };
  using PiecePtr = std::shared_ptr<Piece>;

  [[nodiscard]] PiecePtr FindPiece(std::uint64_t offset) const TARN_REQUIRES(lock);
  PiecePtr AddPiece(std::uint64_t offset, size_t length) TARN_REQUIRES(lock);
  void RemovePiece(const PiecePtr& piece) TARN_REQUIRES(lock);
  void DropWaiting() TARN_REQUIRES(lock);
  void LetGo(const PiecePtr& piece) TARN_REQUIRES(lock);
  void Bound() TARN_REQUIRES(lock);
  void Given(const PiecePtr& piece, size_t count) TARN_REQUIRES(lock);

  // Waits for the piece, or does it when nobody has begun.
  [[nodiscard]] int Finish(const PiecePtr& piece);
  void LoadQueued(const PiecePtr& piece, bool stopping);
  void Load(const PiecePtr& piece);
  [[nodiscard]] bool IsFirst();
  [[nodiscard]] int LoadInto(Piece& piece, bool is_first);
  void Loaded(const PiecePtr& piece, bool is_first, int error);
  [[nodiscard]] bool LoadFromCache(Piece& piece);
  [[nodiscard]] int Fetch(Piece& piece, bool is_first);
  [[nodiscard]] int ReadSourceFor(Piece& piece);
  [[nodiscard]] int ConfirmAfterFirst();
  void KeepInCache(const PiecePtr& piece);

  // What to fetch, and when.
  [[nodiscard]] bool Note(std::uint64_t offset, size_t length) TARN_REQUIRES(lock);
  [[nodiscard]] size_t LengthFor(std::uint64_t offset) const TARN_REQUIRES(lock);
  [[nodiscard]] std::uint64_t AheadBytes() const TARN_REQUIRES(lock);
  [[nodiscard]] bool IsThere(std::uint64_t offset) const TARN_REQUIRES(lock);
  [[nodiscard]] PiecePtr AddBeginning() TARN_EXCLUDES(lock);
  [[nodiscard]] PiecePtr AddAhead(std::uint64_t end) TARN_REQUIRES(lock);
  void ReadAhead(std::uint64_t end);
  void ReadAround(std::uint64_t offset);
  [[nodiscard]] std::vector<PiecePtr> AddAround(std::uint64_t offset) TARN_REQUIRES(lock);
  void LearnFrom(const Piece& piece, Clock::duration taken);
  bool Push(const PiecePtr& piece, ASYNCQ_LANE lane);

  const std::shared_ptr<ReadSource> source;
  const File file;

  Mutex lock;
  CondVar done;
  std::map<std::uint64_t, PiecePtr> pieces TARN_GUARDED_BY(lock);  // by offset, none overlap
  std::deque<PiecePtr> held TARN_GUARDED_BY(lock);  // those that are done, the oldest first
  size_t held_bytes TARN_GUARDED_BY(lock) = 0;
  std::uint64_t last_end TARN_GUARDED_BY(lock) = 0;  // where the program has read to
  std::uint64_t read_on TARN_GUARDED_BY(lock) = 0;   // bytes that it has read on and on
  std::uint64_t around_bytes TARN_GUARDED_BY(lock) = kBlockBytes;  // of the next random read
  std::uint64_t spare_bytes TARN_GUARDED_BY(lock) = 0;             // fetched around so far
  std::vector<bool> in_cache TARN_GUARDED_BY(lock);  // blocks that went there; as far as known
  bool has_read TARN_GUARDED_BY(lock) = false;
  bool has_begun TARN_GUARDED_BY(lock) = false;      // to load pieces
  bool first_is_busy TARN_GUARDED_BY(lock) = false;  // the one piece that is not confirmed itself
  bool has_changed TARN_GUARDED_BY(lock) = false;
  bool stopped TARN_GUARDED_BY(lock) = false;
};

}  // namespace tarn::fs
