#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "common/sync.h"
#include "common/throttle.h"
#include "modules/webdav/client.h"

namespace tarn::webdav {

// The connections of a drive, kept alive between requests and shared by all threads.
// Owns:    up to kMaxConnections clients, made when they are first needed.
// Threads: any. The pool outlives every lease.
// Locks:   lock, never held during a request.
class Pool {
 public:
  static constexpr size_t kMaxConnections = 16;

  Pool(std::function<std::unique_ptr<Client>()> client_maker, Throttle& drive_throttle)
      : make_client(std::move(client_maker)), throttle(drive_throttle) {}

  struct GiveBack {
    Pool* pool;
    void operator()(Client* client) const { pool->Return(client); }
  };
  using Lease = std::unique_ptr<Client, GiveBack>;

  // A client for one request, the one that was used last where there is a choice. Waits while all
  // are in use; empty when the ticket was cancelled meanwhile.
  [[nodiscard]] Lease Take(Throttle::Ticket ticket);

  // Has every request under way, and everyone who waits for a client, look whether it was
  // cancelled.
  void Wake();

 private:
  void Return(Client* client);

  const std::function<std::unique_ptr<Client>()> make_client;
  Throttle& throttle;
  Mutex lock;
  CondVar returned;
  std::vector<std::unique_ptr<Client>> clients TARN_GUARDED_BY(lock);
  std::vector<Client*> idle TARN_GUARDED_BY(lock);  // the last one used at the end
};

}  // namespace tarn::webdav
