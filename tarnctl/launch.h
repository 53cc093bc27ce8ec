#pragma once

#include <string>
#include <sys/types.h>

#include "tarnctl/client.h"
#include "tarnctl/installation.h"

namespace tarn {

// Makes the folders that the service expects to find under the home. False, with errno set, when
// one is missing and cannot be made.
[[nodiscard]] bool CreateHomeFolders(const Installation& installation);

// Starts the service as a daemon: in a session of its own, standing in its program folder (from
// where it starts its drive processes), without our files and terminal. Returns its process id; -1
// with errno set when it could not be executed.
[[nodiscard]] pid_t StartService(const Installation& installation);

// Connects to the service that the port record names and introduces this client. False: no service
// answers there.
[[nodiscard]] bool ConnectToService(const Installation& installation, Client& client,
                                    bool wants_own_events, Deadline deadline);

}  // namespace tarn
