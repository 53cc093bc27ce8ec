#pragma once

#include <list>
#include <memory>
#include <string>

#include "common/sync.h"

class CParentPipe;

// The service-wide list of mounted drives, in the order their mounts completed. Never destroyed,
// because drives may end while the process exits. childlist_lock may be held while a drive is
// relayed to, never while the server's sessionlist_lock is taken.
extern tarn::Mutex& childlist_lock;
extern std::list<std::shared_ptr<CParentPipe>>& child_list TARN_GUARDED_BY(childlist_lock);

namespace tarn {

// The first listed drive with this "/data/drive"; empty when there is none.
std::shared_ptr<CParentPipe> FindDrive(const std::string& drive) TARN_EXCLUDES(childlist_lock);

// Removes the service's FIFO files of the drives that outlive it, as the process ends. Their
// channels go on. Does nothing while somebody still holds the list.
void RemoveListedFifos() TARN_EXCLUDES(childlist_lock);

}  // namespace tarn
