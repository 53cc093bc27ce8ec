// A protocol module whose behaviour the connection id chooses: "denied" and "fails" do not connect,
// "null" makes no protocol, "slow" connects after a long time; anything else connects. No file
// operation is supported. GetCredential tells what the protocol was given; the option "ask_quota"
// asks for the drive's quota and notes the answer.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <unistd.h>

#include "interfaces/module.h"

namespace {

using Size = unsigned long long;

class TestProtocol final : public IProtocol_V2 {
 public:
  explicit TestProtocol(const char* connection_id) : id(connection_id) { Note("id", id); }

  void Release() override { const std::unique_ptr<TestProtocol> ends_here(this); }
  int GetUserName(char* buffer, int* length) override { return Put("t\xC3\xA9st", buffer, length); }
  AERROR GetSize(Size*, Size*) override { return NOT_SUPPORTED; }
  int SetSize(Size total, Size used) override {
    Note("size", std::to_string(total) + "/" + std::to_string(used));
    return 0;
  }
  AERROR List(const char*, FS_LIST_SINK, void*) override { return NOT_SUPPORTED; }
  AERROR GetInfo(const char*, FS_INFO*) override { return FAILED; }
  AERROR Read(const char*, Size, void*, Size, Size*) override { return NOT_SUPPORTED; }
  AERROR Upload(const char*, FS_SOURCE*, Size, FS_PROGRESS, void*) override { return FAILED; }
  AERROR CreateFolder(const char*) override { return NOT_SUPPORTED; }
  AERROR DeleteFile(const char*) override { return NOT_SUPPORTED; }
  AERROR DeleteFolder(const char*) override { return NOT_SUPPORTED; }
  AERROR Move(const char*, const char*) override { return NOT_SUPPORTED; }
  AERROR SetModifiedTime(const char*, const FS_TIME*) override { return NOT_SUPPORTED; }
  AERROR GetIdentity(char*, int*) override { return NOT_SUPPORTED; }
  AERROR Cancel() override { return SUCCESS; }
  Size GetCapabilities() override { return 0; }
  AERROR ReadVersion(const char*, const char*, Size, void*, Size, Size*) override {
    return NOT_SUPPORTED;
  }
  int SetOption(const char* key, const char* value) override {
    if (std::strcmp(key, "ask_quota") == 0) {
      long long total = -1;
      long long free = -1;
      const bool valid = ask_quota != nullptr && ask_quota(quota_context, nullptr, &total, &free);
      Note("quota",
           std::to_string(valid) + ":" + std::to_string(total) + ":" + std::to_string(free));
    } else {
      Note(key, std::strcmp(key, "ex_info") == 0 ? "given" : value);
    }
    return 0;
  }
  void Reserved18() override {}
  int GetCredential(char* buffer, int* length) override { return Put(notes, buffer, length); }
  void SetKeyFile(const char* path) override { Note("key_file", path); }
  AERROR Connect(char** message) override {
    if (id == "slow") {
      ::sleep(600);
    }
    *message = id == "fails" ? ::strdup("no such luck") : nullptr;
    return id == "denied" ? ACCESS_DENIED : id == "fails" ? FAILED : SUCCESS;
  }
  AERROR Disconnect() override { return SUCCESS; }
  void SetQuotaCallback(void* context, QUOTA_CALLBACK callback) override {
    quota_context = context;
    ask_quota = callback;
  }
  void FreeString(char* text) override { std::free(text); }

 private:
  void Note(const std::string& key, const std::string& value) { notes += key + "=" + value + ";"; }

  static int Put(const std::string& text, char* buffer, int* length) {
    *length = static_cast<int>(text.copy(buffer, static_cast<size_t>(*length) - 1));
    buffer[*length] = '\0';
    return 0;
  }

  const std::string id;
  std::string notes;
  void* quota_context = nullptr;
  QUOTA_CALLBACK ask_quota = nullptr;
};

}  // namespace

void GetSupportProtocol(char** list) {
  *list = ::strdup("none;ad_ftp;" MODULE_NAME);
}
#if !defined(TEST_MODULE_INCOMPLETE)
int GetProtocolVersion() {
  return 1;
}
#endif
void FreeP(char* text) {
  std::free(text);
}
bool GetProtocol(const char* connection_id, void* /*reserved*/, IProtocol_V2** protocol) {
  if (std::strcmp(connection_id, "null") != 0) {
    *protocol = std::make_unique<TestProtocol>(connection_id).release();
  }
  return true;
}
