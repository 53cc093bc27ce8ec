#pragma once

#include <string>
#include <vector>

#include "common/sync.h"
#include "interfaces/ifsevent.h"

namespace tarn::test {

// Keeps every event as a short text.
class RecordingEvents final : public IFSEvent {
 public:
  [[nodiscard]] std::vector<std::string> Texts() const {
    const MutexLock guard(lock);
    return texts;
  }

  void Release() override {}
  void BeginUpload(const char* path, const char* /*origin*/, const char* /*extra*/) override {
    Add(std::string("begin ") + path);
  }
  void Uploading(const char* path, const char* /*origin*/, long long total, long long sent,
                 double /*speed*/) override {
    Add(std::string("uploading ") + path + " " + std::to_string(sent) + "/" +
        std::to_string(total));
  }
  void EndUpload(AERROR error, const char* path, const char* /*origin*/,
                 const char* /*protmsg*/) override {
    Add(std::string("end ") + path + " " + std::to_string(error));
  }
  void Error(FS_EVENT operation, AERROR error, const char* path, const char* /*origin*/,
             const char* /*protmsg*/) override {
    Add("error " + std::to_string(operation) + " " + path + " " + std::to_string(error));
  }
  bool UserAction(AERROR /*error*/, const char* /*path*/, const char* /*origin*/, char* /*buffer*/,
                  int /*size*/) override {
    return true;
  }
  void Unmounted(const char* path) override { Add(std::string("unmounted ") + path); }

 private:
  void Add(std::string text) {
    const MutexLock guard(lock);
    texts.push_back(std::move(text));
  }

  mutable Mutex lock;
  std::vector<std::string> texts TARN_GUARDED_BY(lock);
};

}  // namespace tarn::test
