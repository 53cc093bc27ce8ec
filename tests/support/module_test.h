#pragma once

#include <algorithm>
#include <cstring>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "interfaces/module.h"

namespace tarn::test {

struct ReleaseProtocol {
  void operator()(IProtocol_V2* protocol) const { protocol->Release(); }
};
using Protocol = std::unique_ptr<IProtocol_V2, ReleaseProtocol>;

// A text as the content of an upload; `fail_at` makes reading fail there.
struct TextSource {
  explicit TextSource(std::string text) : content(std::move(text)) {
    source.context = this;
    source.read = [](void* self, void* buffer, long long length) {
      return static_cast<TextSource*>(self)->Read(buffer, length);
    };
    source.rewind = [](void* self) {
      static_cast<TextSource*>(self)->position = 0;
      return 0;
    };
  }
  long long Read(void* buffer, long long length) {
    if (position >= fail_at) {
      return -1;
    }
    const size_t count = std::min(static_cast<size_t>(length), content.size() - position);
    std::memcpy(buffer, content.data() + position, count);
    position += count;
    return static_cast<long long>(count);
  }

  std::string content;
  size_t position = 0;
  size_t fail_at = static_cast<size_t>(-1);
  FS_SOURCE source{};
};

// Loads a protocol module from its file, as the service does, and talks to one protocol object of
// it, which a derived fixture makes.
class ModuleTest : public testing::Test {
 protected:
  void Load(const char* module_file) {
    module.reset(::dlopen(module_file, RTLD_NOW | RTLD_LOCAL));
    ASSERT_NE(module, nullptr) << ::dlerror();
  }
  void TearDown() override { protocol.reset(); }

  template <typename Function>
  Function* Export(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(module.get(), name));
  }
  Protocol Make(const std::string& connection_id) {
    IProtocol_V2* made = nullptr;
    EXPECT_TRUE(
        Export<decltype(GetProtocol)>("GetProtocol")(connection_id.c_str(), nullptr, &made));
    return Protocol(made);
  }
  static AERROR Connect(IProtocol_V2& made, std::string* message = nullptr) {
    char* text = nullptr;
    const AERROR error = made.Connect(&text);
    if (message != nullptr && text != nullptr) {
      *message = text;
    }
    made.FreeString(text);
    return error;
  }

  std::map<std::string, FS_INFO> List(const char* path) {
    std::map<std::string, FS_INFO> entries;
    const auto collect = [](void* context, const char* name, const FS_INFO* info) {
      static_cast<std::map<std::string, FS_INFO>*>(context)->emplace(name, *info);
      return 1;
    };
    EXPECT_EQ(protocol->List(path, collect, &entries), SUCCESS) << path;
    return entries;
  }
  std::vector<std::string> Names(const char* path) {
    std::vector<std::string> names;
    for (const auto& [name, info] : List(path)) {
      names.push_back(name);
    }
    return names;
  }
  AERROR Put(const char* path, const std::string& content, const char* replaces = nullptr,
             std::string* version = nullptr) {
    TextSource text(content);
    text.source.replaces = replaces;
    const AERROR error = protocol->Upload(path, &text.source, content.size(), nullptr, nullptr);
    if (version != nullptr) {
      *version = text.source.version;
    }
    return error;
  }
  AERROR Get(const char* path, std::string& content) {
    content.resize(1 << 20);
    unsigned long long received = 0;
    const AERROR error = protocol->Read(path, 0, content.data(), content.size(), &received);
    content.resize(received);
    return error;
  }
  std::string Version(const char* path) {
    FS_INFO info{};
    EXPECT_EQ(protocol->GetInfo(path, &info), SUCCESS) << path;
    return info.version;
  }

  struct CloseModule {
    void operator()(void* handle) const { ::dlclose(handle); }
  };
  std::unique_ptr<void, CloseModule> module;
  Protocol protocol;
};

}  // namespace tarn::test
