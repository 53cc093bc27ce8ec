#include "tarnsvc/PipeSession.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include "common/frame.h"
#include "common/posix.h"

namespace {

constexpr mode_t kFifoMode = 0666;
constexpr int kRoomWaitMilliseconds = 50;
constexpr auto kPollInterval = std::chrono::milliseconds(10);

// Not one byte has come yet.
constexpr int kNothing = 0;

}  // namespace

CPipeSession::CPipeSession(std::function<bool()> gone) : peer_gone(std::move(gone)) {}

CPipeSession::~CPipeSession() {
  if (owner) {
    remove_fifo(tarn::FirstFifo(name), first_made);
    remove_fifo(tarn::SecondFifo(name), second_made);
  }
}

bool CPipeSession::create(std::wstring channel_name, void (*notify)(void*, int)) {
  name = std::move(channel_name);
  callback = notify;
  const std::string incoming = tarn::FirstFifo(name);
  const std::string outgoing = tarn::SecondFifo(name);
  if (!make_fifo(incoming, first_made)) {
    return false;
  }
  tarn::UniqueFd reader = tarn::OpenFile(incoming, O_RDWR | O_NONBLOCK);
  if (!reader.valid()) {
    return false;
  }
  tarn::MutexLock lock(io_mutex);
  read_fd = reader.release();
  if (!make_fifo(outgoing, second_made) || !open_until_there(outgoing, O_WRONLY, write_fd)) {
    return false;
  }
  owner = true;
  connected = !broken;
  return connected;
}

bool CPipeSession::connect(std::wstring channel_name, void (*notify)(void*, int)) {
  name = std::move(channel_name);
  callback = notify;
  tarn::MutexLock lock(io_mutex);
  if (!open_until_there(tarn::FirstFifo(name), O_WRONLY, write_fd) ||
      !open_until_there(tarn::SecondFifo(name), O_RDWR, read_fd)) {
    return false;
  }
  owner = false;
  connected = !broken;
  return connected;
}

bool CPipeSession::write(void* buffer, int length) {
  tarn::MutexLock lock(io_mutex);
  const tarn::FrameHeader header = tarn::EncodeFrameHeader(length);
  return _write(header.data(), tarn::kFrameHeaderBytes) && _write(buffer, length);
}

bool CPipeSession::write(const std::string& text) {
  return write(const_cast<char*>(text.data()), static_cast<int>(text.size()));
}

std::shared_ptr<char> CPipeSession::read() {
  tarn::MutexLock lock(io_mutex);
  tarn::FrameHeader header = {};
  auto* const header_bytes = reinterpret_cast<char*>(header.data());
  const int first = _read(header_bytes, tarn::kFrameHeaderBytes);
  if (first <= kNothing || !collect(header_bytes, tarn::kFrameHeaderBytes, first)) {
    return {};
  }
  const int length = tarn::DecodeFrameHeader(header);
  if (!tarn::IsFrameLength(length)) {
    mark_broken();
    return {};
  }
  std::shared_ptr<char> message(static_cast<char*>(std::calloc(static_cast<size_t>(length) + 1, 1)),
                                std::free);
  if (!message || !collect(message.get(), length, 0)) {
    mark_broken();  // in the middle of a frame the next length cannot be found any more
    return {};
  }
  return message;
}

int CPipeSession::close() {
  mark_broken();
  tarn::MutexLock lock(io_mutex);
  if (write_fd > 0) {
    ::close(std::exchange(write_fd, 0));
  }
  return read_fd > 0 ? ::close(std::exchange(read_fd, 0)) : 0;
}

void CPipeSession::mark_broken() {
  broken = true;
  connected = false;
}

// Writes in pieces that a FIFO takes whole or not at all, each when there is room for it, so that
// the wait for a peer that reads no more can be given up.
bool CPipeSession::_write(const void* buffer, int length) {
  const char* next = static_cast<const char*>(buffer);
  int left = length;
  while (left > 0 && wait_for_room()) {
    const int piece = std::min(left, static_cast<int>(PIPE_BUF));
    const ssize_t written =
        tarn::RetryOnInterrupt([&] { return ::write(write_fd, next, static_cast<size_t>(piece)); });
    if (written != piece) {
      break;
    }
    next += piece;
    left -= piece;
  }
  const bool all_written = length > 0 && left == 0;
  if (!all_written) {
    connected = false;
  }
  return all_written;
}

// True also when the peer is gone: the write then says so.
bool CPipeSession::wait_for_room() {
  while (write_fd > 0 && !given_up()) {
    pollfd entry = {write_fd, POLLOUT, 0};
    if (::poll(&entry, 1, kRoomWaitMilliseconds) > 0) {
      return true;
    }
  }
  return false;
}

// The bytes received now; 0 when none are there, -1 on failure.
int CPipeSession::_read(void* buffer, int length) {
  if (read_fd <= 0) {
    return -1;
  }
  const ssize_t count =
      tarn::RetryOnInterrupt([&] { return ::read(read_fd, buffer, static_cast<size_t>(length)); });
  if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
    return kNothing;
  }
  return static_cast<int>(count);
}

// Fills the buffer, of which `already` bytes are there; false when the channel broke meanwhile.
bool CPipeSession::collect(char* buffer, int length, int already) {
  while (already < length) {
    const bool last_chance = !connected || given_up();
    const int count = _read(buffer + already, length - already);
    if (count > kNothing) {
      already += count;
      continue;
    }
    if (count < kNothing || last_chance) {
      return false;
    }
    tarn::PausePipePoll();
  }
  return true;
}

bool CPipeSession::given_up() const {
  return broken || (peer_gone && peer_gone());
}

// Opens without blocking, so that the wait for the peer can be given up. A FIFO without a reader
// refuses a writer (ENXIO). The descriptor of a writer blocks afterwards.
bool CPipeSession::open_until_there(const std::string& fifo, int flags, int& fd) {
  for (;;) {
    tarn::UniqueFd opened = tarn::OpenFile(fifo, flags | O_NONBLOCK);
    struct stat status = {};
    if (opened.valid() && ::fstat(opened.get(), &status) == 0 && S_ISFIFO(status.st_mode)) {
      fd = opened.release();
      return flags != O_WRONLY || ::fcntl(fd, F_SETFL, O_WRONLY) == 0;
    }
    if (given_up()) {
      return false;
    }
    tarn::PausePipePoll();
  }
}

bool CPipeSession::make_fifo(const std::string& fifo, FileId& made) {
  struct stat status = {};
  if (::lstat(fifo.c_str(), &status) == 0) {
    (void)::remove(fifo.c_str());  // mkfifo tells when it is still there
  }
  const auto make = [&] { return ::mkfifo(fifo.c_str(), kFifoMode); };
  if (tarn::RetryOnInterrupt(make) != 0 || ::lstat(fifo.c_str(), &status) != 0) {
    return false;
  }
  made = {status.st_dev, status.st_ino};
  return true;
}

void CPipeSession::remove_fifo(const std::string& fifo, const FileId& made) {
  struct stat status = {};
  if (::lstat(fifo.c_str(), &status) == 0 && status.st_dev == made.device &&
      status.st_ino == made.number) {
    (void)::remove(fifo.c_str());  // somebody else was faster
  }
}

namespace tarn {

std::string NarrowName(const std::wstring& wide) {
  std::string narrow;
  narrow.reserve(wide.size());
  for (const wchar_t character : wide) {
    narrow.push_back(static_cast<char>(static_cast<unsigned char>(character)));
  }
  return narrow;
}

std::wstring PipeName(const std::wstring& id) {
  return L"/tmp/tarn_mount" + id;
}

std::wstring RequestChannel(const std::wstring& pipe_name) {
  return pipe_name + L"_1";
}

std::wstring EventChannel(const std::wstring& pipe_name) {
  return pipe_name + L"_2";
}

std::string FirstFifo(const std::wstring& name) {
  return NarrowName(name) + "_1";
}

std::string SecondFifo(const std::wstring& name) {
  return NarrowName(name) + "_2";
}

void RemoveFifos(const std::wstring& name) {
  (void)::remove(FirstFifo(name).c_str());
  (void)::remove(SecondFifo(name).c_str());
}

void PausePipePoll() {
  std::this_thread::sleep_for(kPollInterval);
}

}  // namespace tarn
