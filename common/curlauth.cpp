#include "common/curlauth.h"

#include <utility>
#include <vector>

namespace {

constexpr int kTokenBufferBytes = 0x10000;

}  // namespace

CURLAuth::CURLAuth(std::shared_ptr<IAuth> auth) : provider(std::move(auth)) {
  parameters.max_load_factor(1.0F);
}

void CURLAuth::SignAuthentication(CURLImpl& request) {
  SignAuthentication(&request);
}

// By value, because the three forms of this operation are a fixed table.
void CURLAuth::SignAuthentication(
    std::shared_ptr<CURLImpl> request) {  // NOLINT(performance-unnecessary-value-param)
  SignAuthentication(request.get());
}

void CURLAuth::SignAuthentication(CURLImpl* request) {
  if (request == nullptr) {
    return;
  }
  const tarn::MutexLock lock(signing);
  for (const auto& [name, value] : parameters) {
    request->AddQuery(name, value);
  }
  request->AddHeader("Authorization", "Bearer " + GetToken());
}

std::string CURLAuth::GetToken() const {
  std::vector<char> buffer(kTokenBufferBytes);  // zeros: the empty text unless a token comes
  int length = kTokenBufferBytes;
  if (provider != nullptr) {
    (void)provider->GetValue("access_token", buffer.data(), &length);  // the buffer tells
  }
  buffer.back() = '\0';
  return buffer.data();
}

void CURLAuth::AddAuth(const std::string& name, const std::string& value) {
  parameters[name] = value;
}

std::string CURLAuth::GetAuth(const char* name) const {
  const auto found = parameters.find(name);
  return found == parameters.end() ? std::string() : found->second;
}

void CURLAuth::RefreshAuth() {
  const tarn::MutexLock lock(signing);
  if (provider != nullptr) {
    provider->Refresh();
  }
}
