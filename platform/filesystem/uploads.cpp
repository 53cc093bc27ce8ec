#include "platform/filesystem/uploads.h"

#include <algorithm>
#include <utility>

#include "platform/filesystem/background.h"
#include "platform/filesystem/errors.h"

namespace tarn::fs {

Uploads::Uploads(Send sender, Pauses between_attempts)
    : send(std::move(sender)), pauses(between_attempts), random(std::random_device()()) {}

Uploads::~Uploads() {
  Stop();
}

void Uploads::Add(Ino ino) {
  {
    const MutexLock guard(lock);
    const auto [file, is_new] = files.try_emplace(ino);
    if (stopped || (!is_new && file->second.state == State::kWaiting)) {
      return;
    }
    if (file->second.state == State::kSending) {
      file->second.again = true;
      return;
    }
    MakeReady(ino, file->second);
    // Else the next file tries it; until then the queue sends, and nothing is tried again.
    (void)waiter.Ensure([self = shared_from_this()] { self->WaitForPauses(); });
  }
  StartSenders();
}

void Uploads::Drop(Ino ino) {
  const MutexLock guard(lock);
  files.erase(ino);
  changed.notify_all();
}

void Uploads::Hasten() {
  {
    const MutexLock guard(lock);
    for (auto& [ino, file] : files) {
      if (file.state == State::kFailed) {
        MakeReady(ino, file);
      }
    }
  }
  StartSenders();
}

void Uploads::Stop() {
  LateThread::Ending ended;  // after the lock
  const MutexLock guard(lock);
  stopped = true;
  changed.notify_all();
  ended = waiter.Take();
}

Uploads::Status Uploads::Get(Ino ino) {
  const MutexLock guard(lock);
  const auto file = files.find(ino);
  return file == files.end() ? Status{} : Status{file->second.state, file->second.error};
}

size_t Uploads::Finish(Clock::duration patience, const std::vector<Awaited>& awaited) {
  {
    const MutexLock guard(lock);
    finishing = true;
    for (auto& [ino, file] : files) {
      file.refused = false;
      file.awaited = 0;
    }
    for (const Awaited& one : awaited) {
      if (const auto file = files.find(one.ino); file != files.end()) {
        file->second.awaited = file->second.again ? 2 : 1;
      }
    }
  }
  Hasten();
  auto deadline = Clock::now() + patience;
  const MutexLock guard(lock);
  auto left = Left(awaited);
  while (left.first > 0 && !stopped && !NothingMoreToTry()) {
    (void)changed.wait_until(lock, deadline);
    if (const auto left_now = Left(awaited); left_now != left) {
      left = left_now;
      deadline = Clock::now() + patience;
    } else if (Clock::now() >= deadline) {
      break;
    }
  }
  finishing = false;
  return left.first > 0 ? files.size() : 0;
}

std::pair<size_t, std::uint64_t> Uploads::Left(const std::vector<Awaited>& awaited) const {
  std::pair<size_t, std::uint64_t> left = {};
  for (const Awaited& one : awaited) {
    if (const auto file = files.find(one.ino); file != files.end() && file->second.awaited > 0) {
      ++left.first;
      left.second += *one.progress;
    }
  }
  return left;
}

bool Uploads::NothingMoreToTry() const {
  return std::all_of(files.begin(), files.end(), [](const auto& entry) {
    const File& file = entry.second;
    return file.awaited == 0 || (file.state == State::kFailed && file.refused);
  });
}

void Uploads::MakeReady(Ino ino, File& file) {
  file.state = State::kWaiting;
  file.again = false;
  ready.push_back(ino);
  changed.notify_all();
}

Clock::duration Uploads::PauseAfter(int failures) {
  std::chrono::duration<double> pause = pauses.first;
  for (int i = 1; i < failures && !finishing && pause < pauses.longest; ++i) {
    pause *= 2;
  }
  pause = std::min<std::chrono::duration<double>>(pause, pauses.longest);
  // Many clients of one remote that comes back do not all begin in the same moment.
  const double jitter = std::uniform_real_distribution<double>(0.75, 1.25)(random);
  return std::chrono::duration_cast<Clock::duration>(pause * jitter);
}

void Uploads::Sent(Ino ino, AERROR error) {
  changed.notify_all();
  const auto known = files.find(ino);
  if (known == files.end() || known->second.state != State::kSending) {
    return;  // dropped, and perhaps added anew
  }
  File& file = known->second;
  file.awaited -= error == SUCCESS && file.awaited > 0 ? 1 : 0;
  const bool remote_is_back = error == SUCCESS && IsUnreachable(file.error);
  if (error == RETRY_UPLOAD || (error == SUCCESS && file.again)) {
    file.failures = 0;
    file.error = SUCCESS;
    MakeReady(ino, file);
  } else if (error == SUCCESS) {
    files.erase(known);
  } else {
    file.state = State::kFailed;
    file.error = error;
    file.refused = file.is_last_try && !IsUnreachable(error) && !IsCancelled(error);
    file.due = Clock::now() + PauseAfter(++file.failures);
  }
  if (remote_is_back) {
    for (auto& [other_ino, other] : files) {
      if (other.state == State::kFailed) {
        MakeReady(other_ino, other);
      }
    }
  }
}

void Uploads::StartSenders() {
  for (;;) {
    {
      const MutexLock guard(lock);
      const auto idle = static_cast<size_t>(senders - sending);
      if (stopped || senders >= kMaxSending || idle >= ready.size()) {
        return;
      }
      ++senders;
    }
    if (!PushWork([self = shared_from_this()](bool stopping) {
          stopping ? self->SenderEnded() : self->SendAllReady();
        })) {
      SenderEnded();  // the waiter sends
      return;
    }
  }
}

void Uploads::SenderEnded() {
  const MutexLock guard(lock);
  --senders;
  changed.notify_all();
}

void Uploads::SendAllReady() {
  for (;;) {
    Ino ino = 0;
    {
      const MutexLock guard(lock);
      if (stopped || ready.empty()) {
        --senders;
        changed.notify_all();
        return;
      }
      ino = ready.front();
      ready.pop_front();
      const auto file = files.find(ino);
      if (file == files.end() || file->second.state != State::kWaiting) {
        continue;
      }
      file->second.state = State::kSending;
      file->second.is_last_try = finishing;
      ++sending;
    }
    const AERROR error = send(ino);
    const MutexLock guard(lock);
    --sending;
    Sent(ino, error);
  }
}

// Makes ready what has waited long enough. Returns when the next pause ends.
Clock::time_point Uploads::EndPauses() {
  const auto now = Clock::now();
  auto next = Clock::time_point::max();
  for (auto& [ino, file] : files) {
    if (file.state == State::kFailed && file.due <= now) {
      MakeReady(ino, file);
    } else if (file.state == State::kFailed) {
      next = std::min(next, file.due);
    }
  }
  return next;
}

void Uploads::WaitForPauses() {
  for (;;) {
    StartSenders();
    {
      const MutexLock guard(lock);
      const auto next = EndPauses();
      if (stopped) {
        return;
      }
      if (senders > 0 || ready.empty()) {
        if (next == Clock::time_point::max()) {
          changed.wait(lock);
        } else {
          (void)changed.wait_until(lock, next);
        }
        (void)EndPauses();
        continue;
      }
      ++senders;  // the queue takes nothing
    }
    SendAllReady();
  }
}

}  // namespace tarn::fs
