#include <csignal>
#include <poll.h>
#include <string_view>

#include "tarnctl/launch.h"
#include "tarnctl/verbs.h"

namespace tarn {

namespace {

constexpr std::chrono::milliseconds kBetweenSignalChecks{500};

volatile std::sig_atomic_t was_told_to_end = 0;

void NoteSignal(int /*signal*/) {
  was_told_to_end = 1;
}

void EndOnSignals() {
  struct sigaction action {};
  action.sa_handler = NoteSignal;
  (void)::sigaction(SIGINT, &action, nullptr);  // cannot fail for these signals
  (void)::sigaction(SIGTERM, &action, nullptr);
}

std::string Member(const JsonObject& data, const char* name) {
  return data.HasObject(name) ? std::string(data.GetObject(name)) : std::string();
}

long long Number(const JsonObject& data, const char* name) {
  return data.HasObject(name) ? static_cast<long long>(data.GetObject(name)) : 0;
}

std::string UploadText(const JsonObject& data) {
  const std::string status = Member(data, "status");
  std::string text = "upload " + status + ": " + Member(data, "path");
  if (status == "uploading") {
    text += " (" + std::to_string(Number(data, "sent")) + " of " +
            std::to_string(Number(data, "total")) + " bytes)";
  }
  return text;
}

std::string ErrorText(const JsonObject& data) {
  std::string text = "error";
  if (const std::string operation = Member(data, "op"); !operation.empty()) {
    text += " in " + operation;
  }
  text += ": " + Member(data, "message") + " (" + std::to_string(Number(data, "aerror")) + ")";
  if (const std::string path = Member(data, "path"); !path.empty()) {
    text += ", " + path;
  }
  if (const std::string remote = Member(data, "protmsg"); !remote.empty()) {
    text += ", " + remote;
  }
  return text;
}

std::string EventText(const Json& event) {
  if (!event.HasObject("/data/method")) {
    return event.ToText();
  }
  const JsonObject data = event.GetObject("/data");
  const std::string method = Member(data, "method");
  if (method == "upload") {
    return UploadText(data);
  }
  if (method == "error") {
    return ErrorText(data);
  }
  std::string text = method;
  for (const char* name : {"drive", "path", "state"}) {
    if (const std::string value = Member(data, name); !value.empty()) {
      text += (std::string_view(name) == "state" ? ", " : " ") + value;
    }
  }
  return text;
}

Json AllEventsMessage() {
  JsonObject data;
  data.Insert("global", 1);
  Json message = Message("set_callback");
  message.Insert("data", data);
  return message;
}

}  // namespace

int Watch(const Context& context, int count) {
  EndOnSignals();
  Client client;
  std::string answer;
  if (!ConnectToService(context.installation, client, false, After(context.patience)) ||
      client.Ask(AllEventsMessage(), answer, After(context.patience)) != Client::Result::kOk) {
    return context.output.Fail("the service is not running", -1, kExitNotRunning);
  }
  for (int printed = 0; (count == 0 || printed < count) && was_told_to_end == 0;) {
    Json event;
    const Client::Result result = client.NextEvent(event, After(kBetweenSignalChecks));
    if (result == Client::Result::kClosed) {
      return context.output.Fail("the service has ended");
    }
    if (result == Client::Result::kOk) {
      ++printed;
      context.output.Tell(EventText(event), event);
    }
  }
  return kExitOk;
}

}  // namespace tarn
