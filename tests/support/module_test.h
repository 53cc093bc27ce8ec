#pragma once

#include <dlfcn.h>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "interfaces/module.h"

namespace tarn::test {

// A text as the content of an upload; `fail_at` makes reading fail there.
struct TextSource {
  explicit TextSource(std::string text) : content(std::move(text)) {
    source.context = this;
    source.read = [](void* self, void* buffer, long long length) {
      auto& own = *static_cast<TextSource*>(self);
      const size_t limit = own.position < own.fail_at ? static_cast<size_t>(length) : 0;
      const size_t count = own.content.copy(static_cast<char*>(buffer), limit, own.position);
      own.position += count;
      return own.position > own.fail_at ? -1 : static_cast<long long>(count);
    };
    source.rewind = [](void* self) {
      static_cast<TextSource*>(self)->position = 0;
      return 0;
    };
  }

  std::string content;
  size_t position = 0;
  size_t fail_at = static_cast<size_t>(-1);
  FS_SOURCE source{};
};

// Bytes among which every part can be told from the others.
inline std::string Pattern(size_t bytes) {
  std::string text(bytes, '\0');
  for (size_t i = 0; i < bytes; ++i) {
    text[i] = static_cast<char>(i * 7919 >> 3);
  }
  return text;
}

// Loads a protocol module from its file, as the service does, and talks to one protocol object of
// it, which a derived fixture makes.
class ModuleTest : public testing::Test {
 protected:
  explicit ModuleTest(const char* module_file)
      : module(::dlopen(module_file, RTLD_NOW | RTLD_LOCAL), &::dlclose) {
    EXPECT_NE(module, nullptr) << ::dlerror();
  }

  template <typename Function>
  Function* Export(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(module.get(), name));
  }
  std::shared_ptr<IProtocol_V2> Make(const std::string& id) {
    IProtocol_V2* made = nullptr;
    EXPECT_TRUE(Export<decltype(GetProtocol)>("GetProtocol")(id.c_str(), nullptr, &made));
    return {made, std::mem_fn(&IProtocol_V2::Release)};
  }
  AERROR Connect(IProtocol_V2& made) {
    char* text = nullptr;
    const AERROR error = made.Connect(&text);
    message = text == nullptr ? "" : text;
    made.FreeString(text);
    return error;
  }
  // A text that the protocol object puts in a buffer, which must be large enough.
  template <typename Getter>
  std::string TextOf(Getter getter) {
    std::string text(65536, '\0');
    int length = 1;
    EXPECT_EQ((protocol.get()->*getter)(text.data(), &length), INSUFFICIENT_BUFFER);
    length = 65536;
    EXPECT_EQ((protocol.get()->*getter)(text.data(), &length), SUCCESS);
    return text.substr(0, static_cast<size_t>(length));
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
  AERROR Get(const char* path, std::string& content, const char* version = nullptr) {
    content.resize(1 << 20);
    unsigned long long received = 0;
    const AERROR error =
        version == nullptr
            ? protocol->Read(path, 0, content.data(), content.size(), &received)
            : protocol->ReadVersion(path, version, 0, content.data(), content.size(), &received);
    content.resize(received);
    return error;
  }
  std::string Version(const char* path) {
    FS_INFO info{};
    EXPECT_EQ(protocol->GetInfo(path, &info), SUCCESS) << path;
    return info.version;
  }

  const std::unique_ptr<void, int (*)(void*)> module;
  std::shared_ptr<IProtocol_V2> protocol;
  std::string message;  // of the last Connect
};

}  // namespace tarn::test
