#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "tarnctl/client.h"
#include "tarnctl/installation.h"
#include "tarnctl/output.h"

// The commands of tarnctl. Each prints its outcome and returns the exit status.
namespace tarn {

struct Context {
  Installation installation;
  Output output;
  std::chrono::milliseconds patience;  // longest wait for the service's answer
};

struct MountRequest {
  std::string type;
  std::string url;
  std::string mount_point;
  std::string label;              // empty: the last name of the mount point
  std::vector<std::string> data;  // KEY=TEXT, KEY:=JSON or KEY:@FILE
};

int Up(const Context& context);
int Down(const Context& context);
int Status(const Context& context);
int Mount(const Context& context, const MountRequest& request);
int Unmount(const Context& context, const std::string& mount_point);
int UnmountAll(const Context& context);
int List(const Context& context);
int SetLogLevel(const Context& context, const std::string& level);

// Bytes per second for one drive, or for all of them; 0 lifts the limit.
int SetSpeedLimit(const Context& context, long long bytes_per_second,
                  const std::optional<std::string>& mount_point);

// Prints the events of all drives until the service ends, `count` of them were printed (0: no
// end), or the program is told to end.
int Watch(const Context& context, int count);

}  // namespace tarn
