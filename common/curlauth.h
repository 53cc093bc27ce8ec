#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include "common/curlimpl.h"
#include "common/sync.h"
#include "interfaces/iauth.h"

// Signs requests with a bearer token from a provider, and with fixed parameters.
// Owns:    a share of the provider and the parameters.
// Threads: signing and refreshing on any thread, one at a time. AddAuth before the first of them.
// Locks:   signing, held while the provider is asked, so that no token is read half refreshed.
// Errors:  a token that the provider could not give is the empty text.
class CURLAuth {
 public:
  explicit CURLAuth(std::shared_ptr<IAuth> auth);
  virtual ~CURLAuth() = default;

  // Adds the parameters and "Authorization: Bearer <token>"; what a request had under these names
  // is replaced. A derived class overrides the last form, which the others call.
  virtual void SignAuthentication(CURLImpl& request);
  virtual void SignAuthentication(std::shared_ptr<CURLImpl> request);
  virtual void SignAuthentication(CURLImpl* request);

  [[nodiscard]] std::string GetToken() const;
  void AddAuth(const std::string& name, const std::string& value);
  [[nodiscard]] std::string GetAuth(const char* name) const;  // empty when there is none
  [[nodiscard]] std::shared_ptr<IAuth> GetAuth() const { return provider; }
  void RefreshAuth();

 private:
  std::shared_ptr<IAuth> provider;
  std::unordered_map<std::string, std::string> parameters;
  tarn::Mutex signing;
};
