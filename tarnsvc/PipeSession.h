#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <sys/types.h>

#include "common/sync.h"

// One bidirectional, message-framed channel between two processes, made of two named FIFOs: `name`
// + "_1" carries messages to the side that made them, `name` + "_2" to the side that connected.
//
// Order:   create() or connect() once, then write() and read() from any threads, then close().
// Threads: any. Waits have no time limit; they end when the channel is marked broken or `peer_gone`
//          answers true.
// Locks:   io_mutex is held for a whole frame, also while the rest of one is awaited.
// Errors:  results only. A failed write or a length that makes no sense marks the channel broken;
//          what has already arrived can still be read then.
class CPipeSession {
 public:
  explicit CPipeSession(std::function<bool()> peer_gone = {});
  CPipeSession(const CPipeSession&) = delete;
  CPipeSession& operator=(const CPipeSession&) = delete;

  // Removes both FIFOs on the creating side, if they are still the ones that it made. Closes no
  // descriptor: close() does.
  ~CPipeSession();

  // Become the creating or the connecting side; return when the peer is there. False: a FIFO could
  // not be made, or the wait was given up. `callback` is kept, never called.
  [[nodiscard]] bool create(std::wstring channel_name, void (*notify)(void*, int));
  [[nodiscard]] bool connect(std::wstring channel_name, void (*notify)(void*, int));

  // Sends one frame. Waits while the FIFO is full.
  bool write(void* buffer, int length);
  bool write(const std::string& text);

  // The next payload, followed by a zero; empty when there is none or the channel broke in the
  // middle of one.
  [[nodiscard]] std::shared_ptr<char> read();

  // Marks the channel broken, waits for a frame under way, closes both descriptors. May be called
  // more than once. Returns the result of closing the read end.
  int close();

  // Ends every wait on this channel: the peer will never answer.
  void mark_broken();

  [[nodiscard]] bool is_connected() const { return connected; }

 private:
  bool _write(const void* buffer, int length) TARN_REQUIRES(io_mutex);
  bool wait_for_room() TARN_REQUIRES(io_mutex);
  int _read(void* buffer, int length) TARN_REQUIRES(io_mutex);
  bool collect(char* buffer, int length, int already) TARN_REQUIRES(io_mutex);

  [[nodiscard]] bool given_up() const;
  bool open_until_there(const std::string& fifo, int flags, int& fd);
  struct FileId {
    dev_t device = 0;
    ino_t number = 0;
  };
  static bool make_fifo(const std::string& fifo, FileId& made);
  static void remove_fifo(const std::string& fifo, const FileId& made);

  std::wstring name;
  std::atomic<bool> connected{false};
  int write_fd = 0;  // owned once greater than 0; close() is the one place that closes it
  int read_fd = 0;   // as write_fd
  void (*callback)(void*, int) = nullptr;
  tarn::Mutex io_mutex;
  bool owner = false;

  std::atomic<bool> broken{false};  // for good; also before the channel was connected
  FileId first_made;  // an end of an earlier service's may still be about to remove its own
  FileId second_made;
  const std::function<bool()> peer_gone;
};

namespace tarn {

// Every character cut to its low 8 bits: names of channels are ASCII.
std::string NarrowName(const std::wstring& wide);

// The base name of a drive's channels, and its two channels: the request channel, which the service
// creates, and the event channel, which the drive process creates.
std::wstring PipeName(const std::wstring& id);
std::wstring RequestChannel(const std::wstring& pipe_name);
std::wstring EventChannel(const std::wstring& pipe_name);

// The two files of the channel `name`.
std::string FirstFifo(const std::wstring& name);
std::string SecondFifo(const std::wstring& name);

// Removes both files; that there are none is no error.
void RemoveFifos(const std::wstring& name);

// The step of every wait for a channel.
void PausePipePoll();

}  // namespace tarn
