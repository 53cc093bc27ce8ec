#include "modules/webdav/pool.h"

namespace tarn::webdav {

Pool::Lease Pool::Take(Throttle::Ticket ticket) {
  const MutexLock hold(lock);
  while (idle.empty() && clients.size() >= kMaxConnections && !throttle.IsCancelled(ticket)) {
    returned.wait(lock);
  }
  if (throttle.IsCancelled(ticket)) {
    return {nullptr, GiveBack{this}};
  }
  if (idle.empty()) {
    clients.push_back(make_client());
    return {clients.back().get(), GiveBack{this}};
  }
  Client* const client = idle.back();
  idle.pop_back();
  return {client, GiveBack{this}};
}

void Pool::Return(Client* client) {
  const MutexLock hold(lock);
  idle.push_back(client);
  returned.notify_one();
}

void Pool::Wake() {
  const MutexLock hold(lock);
  for (const auto& client : clients) {
    client->Wake();
  }
  returned.notify_all();
}

}  // namespace tarn::webdav
