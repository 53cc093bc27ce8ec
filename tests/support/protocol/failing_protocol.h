#pragma once

#include <utility>

#include "interfaces/iprotocol_v2.h"

namespace tarn::test {

// Forwards every call to another protocol, which must outlive it. A test derives from it and
// overrides the one call that is to fail.
class FailingProtocol : public IProtocol_V2 {
 public:
  explicit FailingProtocol(IProtocol_V2& served) : next(served) {}

  void Release() override {}
  int GetUserName(char* buffer, int* length) override { return next.GetUserName(buffer, length); }
  AERROR GetSize(unsigned long long* total, unsigned long long* free) override {
    return next.GetSize(total, free);
  }
  int SetSize(unsigned long long total, unsigned long long used) override {
    return next.SetSize(total, used);
  }
  AERROR List(const char* path, FS_LIST_SINK sink, void* context) override {
    return next.List(path, sink, context);
  }
  AERROR GetInfo(const char* path, FS_INFO* info) override { return next.GetInfo(path, info); }
  AERROR Read(const char* path, unsigned long long offset, void* buffer, unsigned long long length,
              unsigned long long* received) override {
    return next.Read(path, offset, buffer, length, received);
  }
  AERROR Upload(const char* path, FS_SOURCE* source, unsigned long long size, FS_PROGRESS progress,
                void* context) override {
    return next.Upload(path, source, size, progress, context);
  }
  AERROR CreateFolder(const char* path) override { return next.CreateFolder(path); }
  AERROR DeleteFile(const char* path) override { return next.DeleteFile(path); }
  AERROR DeleteFolder(const char* path) override { return next.DeleteFolder(path); }
  AERROR Move(const char* from, const char* to) override { return next.Move(from, to); }
  AERROR SetModifiedTime(const char* path, const FS_TIME* time) override {
    return next.SetModifiedTime(path, time);
  }
  AERROR GetIdentity(char* buffer, int* length) override {
    return next.GetIdentity(buffer, length);
  }
  AERROR Cancel() override { return next.Cancel(); }
  unsigned long long GetCapabilities() override { return next.GetCapabilities(); }
  void Reserved16() override {}
  int SetOption(const char* key, const char* value) override { return next.SetOption(key, value); }
  void Reserved18() override {}
  int GetCredential(char* buffer, int* length) override {
    return next.GetCredential(buffer, length);
  }
  void SetKeyFile(const char* path) override { next.SetKeyFile(path); }
  AERROR Connect(char** message) override { return next.Connect(message); }
  AERROR Disconnect() override { return next.Disconnect(); }
  void SetQuotaCallback(void* context, QUOTA_CALLBACK callback) override {
    next.SetQuotaCallback(context, callback);
  }
  void FreeString(char* text) override { next.FreeString(text); }

 private:
  IProtocol_V2& next;
};

}  // namespace tarn::test
