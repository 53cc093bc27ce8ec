#include "tarnsvc/DriveList.h"

#include "common/never_destroyed.h"
#include "tarnsvc/ParentPipe.h"

namespace {

tarn::NeverDestroyed<tarn::Mutex> list_lock;
tarn::NeverDestroyed<std::list<std::shared_ptr<CParentPipe>>> list;

}  // namespace

tarn::Mutex& childlist_lock = list_lock.get();
std::list<std::shared_ptr<CParentPipe>>& child_list = list.get();

namespace tarn {

std::shared_ptr<CParentPipe> FindDrive(const std::string& drive) {
  MutexLock lock(childlist_lock);
  for (const auto& child : child_list) {
    if (child->drive() == drive) {
      return child;
    }
  }
  return {};
}

void RemoveListedFifos() {
  if (!childlist_lock.try_lock()) {
    return;
  }
  for (const auto& child : child_list) {
    child->remove_request_fifos();
  }
  childlist_lock.unlock();
}

}  // namespace tarn
