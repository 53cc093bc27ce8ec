// Stands in for the drive process: "tarnsvc -c ID LABEL", where the label says how it behaves. It
// speaks the drive's side of the channels to the letter, mounts nothing, and ends when told to.
//
// While mounting: "at-start" ends at once, "connected" after the channels, "asking" after its
// question, "greets" with another first message, "no-result" answers without one, "refuses" answers
// 12, "ghost" answers 0 and ends. Once mounted, "stays" refuses to be unmounted, "mortal" ends
// instead of answering anything, and "hangs" does not answer "set_move_folder".
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <unistd.h>

#include "common/json.h"
#include "tarnsvc/PipeSession.h"

namespace {

class Drive {
 public:
  Drive(const std::string& id, std::string drive_label)
      : label(std::move(drive_label)), name(tarn::PipeName({id.begin(), id.end()})) {}

  void Run() {
    if (label == "at-start" || !requests.connect(tarn::RequestChannel(name), nullptr) ||
        !events.create(tarn::EventChannel(name), nullptr) || label == "connected" || !Mount()) {
      return;
    }
    while (Answer(Wait(requests))) {
    }
  }

 private:
  static std::string Wait(CPipeSession& pipe) {
    const pid_t parent = ::getppid();
    while (::getppid() == parent) {
      if (const auto message = pipe.read()) {
        return message.get();
      }
      tarn::PausePipePoll();
    }
    std::exit(1);
  }

  void Result(const char* command, int value) {
    requests.write(std::string(R"({"cmd":")") + command + R"(","data":{"result":)" +
                   std::to_string(value) + "}}");
  }

  bool Mount() {
    requests.write(label == "greets" ? R"({"cmd":"hello"})" : R"({"cmd":"request_mount_info"})");
    if (label == "asking") {
      return false;
    }
    (void)Wait(requests);
    if (label == "no-result") {
      requests.write(R"({"cmd":"mount_result"})");
    } else {
      Result("mount_result", label == "refuses" ? 12 : 0);
    }
    return label != "refuses" && label != "ghost";
  }

  void Tell() { events.write(R"({"cmd":"fs_event","data":{"from":")" + label + "\"}}"); }

  // False: ends.
  bool Answer(const std::string& text) {
    const Json message(text.c_str());
    const std::string command = message.GetObject("/cmd");
    if (label == "mortal") {
      return false;
    }
    if (command == "disconnect" || command == "disconnect_all") {
      events.write(R"({"cmd":"fs_event","data":{"method":"last"}})");
      Result("result", label == "stays" ? 5 : 0);
      return label == "stays" && command == "disconnect";
    }
    const std::map<std::string, std::string> replies = {
        {"get_username", R"({"cmd":"result_username","result":"who"})"},
        {"set_size", R"({"cmd":"result_credential","result":"text"})"},
        {"set_speedlimit", "not json"}};
    if (const auto reply = replies.find(command); reply != replies.end()) {
      requests.write(reply->second);
    } else if (command == "set_speedlimit_all") {
      Tell();
      Result("result", 5);
    } else if (command == "spindle_add_protocol") {
      events.write("not json");
      events.write(R"({"cmd":"other"})");
      Tell();
      Result("result", 7);
    } else if (command == "spindle_remove_protocol") {
      events.write(R"({"cmd":"request_quota","data":{"drive":"another"}})");
      const Json quota(Wait(events).c_str());
      Result("result", static_cast<int>(quota.GetObject("/data/total")) +
                           static_cast<int>(quota.GetObject("/data/error")));
    } else if (label == "hangs") {
      Tell();
    } else {
      Result("result", 0);
    }
    return true;
  }

  const std::string label;
  const std::wstring name;
  CPipeSession requests;
  CPipeSession events;
};

}  // namespace

int main(int count, char** arguments) {
  if (count == 4 && std::strcmp(arguments[1], "-c") == 0) {
    Drive(arguments[2], arguments[3]).Run();
  }
  return 0;
}
