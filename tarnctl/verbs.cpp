#include "tarnctl/verbs.h"

#include <filesystem>

#include "tarnctl/launch.h"
#include "tarnctl/mount_message.h"

namespace tarn {

namespace {

constexpr const char* kNotRunning = "the service is not running; start it with \"tarnctl up\"";

// What went wrong between us and the service.
int FailToAsk(const Context& context, Client::Result result) {
  return context.output.Fail(result == Client::Result::kTimeout
                                 ? "the service did not answer in time (see --timeout)"
                                 : "the connection to the service ended before it answered");
}

// Connects, asks and hands the answer to `tell`, which returns the exit status.
template <typename Tell>
int AskService(const Context& context, const Json& message, Tell tell) {
  const Deadline deadline = After(context.patience);
  Client client;
  if (!ConnectToService(context.installation, client, true, deadline)) {
    return context.output.Fail(kNotRunning, -1, kExitNotRunning);
  }
  std::string answer;
  const Client::Result result = client.Ask(message, answer, deadline);
  return result == Client::Result::kOk ? tell(answer) : FailToAsk(context, result);
}

// For answers that are a result code: `text` and `json` tell of success, `reason` of the others.
template <typename Reason>
int AskForResult(const Context& context, const Json& message, const std::string& text,
                 const Json& json, Reason reason) {
  return AskService(context, message, [&](const std::string& answer) {
    const std::optional<int> code = ResultCode(answer);
    if (!code) {
      return context.output.Fail("the service gave an answer that makes no sense");
    }
    return *code == 0 ? context.output.Tell(text, json) : context.output.Fail(reason(*code), *code);
  });
}

std::string Code(int code) {
  return " (result " + std::to_string(code) + ")";
}

std::string WhyNotMounted(int code) {
  switch (code) {
    case -1:
      return "no protocol module serves this type";
    case -5:
      return "the volume could not be mounted: the mount point may be in use, no folder, or not "
             "empty";
    case -6:
      return "the drive process could not be started, or ended while mounting";
    case 10:
      return "access to the remote was denied";
    case 11:
      return "the remote could not be connected";
    case 12:
      return "there is no such place at the remote";
    default:
      return "mounting failed" + Code(code);
  }
}

std::string WhyNoDrive(int code) {
  return code == -1 ? "no drive is mounted there" : "the drive refused" + Code(code);
}

std::string WhyNotUnmounted(int code) {
  return code == -1 ? WhyNoDrive(code) : "the drive could not be unmounted" + Code(code);
}

Json DriveMessage(const char* command, const std::string& mount_point) {
  JsonObject data;
  data.Insert("drive", AbsolutePath(mount_point));
  Json message = Message(command);
  message.Insert("data", data);
  return message;
}

Json DriveOutcome(const char* key, const std::string& mount_point) {
  Json json;
  json.Insert(key, AbsolutePath(mount_point));
  return json;
}

std::vector<std::string> DrivesOf(const std::string& answer) {
  std::vector<std::string> drives;
  const Json list(answer.data(), static_cast<unsigned>(answer.size()), 0UL);
  if (list && list.HasObject("/drives")) {
    const JsonObject entries = list.GetObject("/drives");
    for (unsigned long i = 0; i < entries.GetArraySize(); ++i) {
      drives.push_back(entries[i]);
    }
  }
  return drives;
}

int TellState(const Context& context, int port, const std::vector<std::string>& drives) {
  JsonObject list;
  std::string text = "The service is running on port " + std::to_string(port) + ", ";
  text += drives.empty() ? "no drive is mounted." : "mounted drives:";
  for (const std::string& drive : drives) {
    list.InsertArrayItem(drive);
    text += "\n  " + drive;
  }
  Json json;
  json.Insert("running", 1);
  json.Insert("port", port);
  json.Insert("drives", drives.empty() ? Json("[]").GetObject("/") : list);
  return context.output.Tell(text, json);
}

}  // namespace

int Status(const Context& context) {
  return AskService(context, Message("get_drive_list"), [&](const std::string& answer) {
    return TellState(context, ReadPort(context.installation), DrivesOf(answer));
  });
}

int List(const Context& context) {
  return AskService(context, Message("get_drive_list"), [&](const std::string& answer) {
    const std::vector<std::string> drives = DrivesOf(answer);
    std::string text;
    JsonObject list = Json("[]").GetObject("/");
    for (const std::string& drive : drives) {
      list.InsertArrayItem(drive);
      text += (text.empty() ? "" : "\n") + drive;
    }
    Json json;
    json.Insert("drives", list);
    return context.output.Tell(drives.empty() ? "No drive is mounted." : text, json);
  });
}

int Mount(const Context& context, const MountRequest& request) {
  std::string problem;
  const std::optional<Json> message = MountMessage(request, problem);
  if (!message) {
    return context.output.Fail(problem, -1, kExitUsage);
  }
  return AskForResult(context, *message, "Mounted at " + AbsolutePath(request.mount_point) + ".",
                      DriveOutcome("mounted", request.mount_point), WhyNotMounted);
}

int Unmount(const Context& context, const std::string& mount_point) {
  return AskForResult(context, DriveMessage("disconnect", mount_point),
                      "Unmounted " + AbsolutePath(mount_point) + ".",
                      DriveOutcome("unmounted", mount_point), WhyNotUnmounted);
}

int UnmountAll(const Context& context) {
  return AskService(context, Message("disconnect_all"), [&](const std::string& /*letters*/) {
    Json json;
    json.Insert("unmounted", std::string("all"));
    return context.output.Tell("Unmounted all drives.", json);
  });
}

int SetLogLevel(const Context& context, const std::string& level) {
  JsonObject data;
  data.Insert("level", level);
  Json message = Message("set_loglevel");
  message.Insert("data", data);
  Json json;
  json.Insert("level", level);
  return AskForResult(context, message, "Log level " + level + ".", json, WhyNoDrive);
}

int SetSpeedLimit(const Context& context, long long bytes_per_second,
                  const std::optional<std::string>& mount_point) {
  JsonObject data;
  data.Insert("speed", bytes_per_second);
  Json json;
  json.Insert("speed", bytes_per_second);
  std::string text = bytes_per_second == 0 ? "No speed limit"
                                           : std::to_string(bytes_per_second) + " bytes per second";
  if (mount_point) {
    data.Insert("drive", AbsolutePath(*mount_point));
    json.Insert("drive", AbsolutePath(*mount_point));
    text += " for " + AbsolutePath(*mount_point);
  } else {
    text += " for all drives";
  }
  Json message = Message(mount_point ? "set_speedlimit" : "set_speedlimit_all");
  message.Insert("data", data);
  return AskForResult(context, message, text + ".", json, WhyNoDrive);
}

}  // namespace tarn
