// The commands that start and end the service.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tarnctl/launch.h"
#include "tarnctl/verbs.h"

namespace tarn {

namespace {

constexpr std::chrono::milliseconds kBetweenLooks{20};
constexpr std::chrono::milliseconds kOneTry{2000};

// `started`: the process id of a service that we have started, else 0.
int TellRunning(const Context& context, pid_t started) {
  const int port = ReadPort(context.installation);
  Json json;
  json.Insert("running", 1);
  json.Insert("started", started > 0 ? 1 : 0);
  json.Insert("port", port);
  if (started > 0) {
    json.Insert("pid", static_cast<int>(started));
  }
  const std::string text = started > 0 ? "The service has been started and is running on port "
                                       : "The service was already running on port ";
  return context.output.Tell(text + std::to_string(port) + ".", json);
}

bool Answers(const Context& context) {
  Client client;
  return ConnectToService(context.installation, client, false,
                          After(std::min(kOneTry, context.patience)));
}

bool HasEnded(pid_t service) {
  return ::waitpid(service, nullptr, WNOHANG) == service;
}

// The moment at which a service is ready can be seen from its port record only by looking.
int WaitUntilAnswered(const Context& context, pid_t service) {
  const Deadline deadline = After(context.patience);
  while (!Answers(context)) {
    if (HasEnded(service)) {
      return context.output.Fail("the service ended right after its start; see " +
                                 context.installation.LogFile());
    }
    if (std::chrono::steady_clock::now() > deadline) {
      return context.output.Fail("the service was started, but does not answer; see " +
                                 context.installation.LogFile());
    }
    (void)::poll(nullptr, 0, static_cast<int>(kBetweenLooks.count()));
  }
  return TellRunning(context, service);
}

// The service closes every connection when it stops.
bool WaitUntilClosed(Client& client, Deadline deadline) {
  std::string body;
  Client::Result result = Client::Result::kOk;
  while (result == Client::Result::kOk) {
    result = client.Receive(body, deadline);
  }
  return result == Client::Result::kClosed;
}

}  // namespace

int Up(const Context& context) {
  if (Answers(context)) {
    return TellRunning(context, 0);
  }
  if (!CreateHomeFolders(context.installation)) {
    return context.output.Fail("cannot create " + context.installation.LibraryFolder() + ": " +
                               std::strerror(errno));
  }
  // A record of an earlier run would send us to whoever has that port now.
  (void)::unlink(context.installation.PortRecord().c_str());
  const pid_t service = StartService(context.installation);
  if (service < 0) {
    return context.output.Fail("cannot start " + context.installation.program_folder +
                               "/tarnsvc: " + std::strerror(errno));
  }
  return WaitUntilAnswered(context, service);
}

int Down(const Context& context) {
  const Deadline deadline = After(context.patience);
  Json json;
  json.Insert("running", 0);
  Client client;
  if (!ConnectToService(context.installation, client, false, deadline)) {
    return context.output.Tell("The service is not running.", json);
  }
  std::string answer;
  const Client::Result result = client.Ask(Message("kill"), answer, deadline);
  if (result == Client::Result::kTimeout || !WaitUntilClosed(client, deadline)) {
    return context.output.Fail("the service does not end");
  }
  return context.output.Tell("The service has ended.", json);
}

}  // namespace tarn
