#include <cstring>
#include <gtest/gtest.h>

#include "interfaces/cache.h"
#include "interfaces/fs_feature.h"
#include "interfaces/iasyncq.h"
#include "interfaces/iauth.h"
#include "interfaces/ifsdrive.h"
#include "interfaces/ifsevent.h"
#include "interfaces/ilog.h"
#include "interfaces/iprotocol_v2.h"

namespace {

// A pointer to a virtual method starts with its offset in the table of operations, on some
// processors plus one; one to a method that is not virtual starts with an address.
template <typename Method>
size_t PositionOf(Method method) {
  size_t words[2];
  static_assert(sizeof words == sizeof method);
  std::memcpy(words, &method, sizeof words);
  return words[0] / sizeof(void*);
}

template <typename... Methods>
void ExpectOrder(Methods... methods) {
  size_t expected = 0;
  for (const size_t position : {PositionOf(methods)...}) {
    EXPECT_EQ(position, expected++);
  }
}

// Libraries and modules that were built elsewhere find an operation by its position.
TEST(PositionsTest, OperationsStandWhereOthersLookForThem) {
  using P = IProtocol_V2;
  ExpectOrder(&P::Release, &P::GetUserName, &P::GetSize, &P::SetSize, &P::List, &P::GetInfo,
              &P::Read, &P::Upload, &P::CreateFolder, &P::DeleteFile, &P::DeleteFolder, &P::Move,
              &P::SetModifiedTime, &P::GetIdentity, &P::Cancel, &P::GetCapabilities, &P::Reserved16,
              &P::SetOption, &P::Reserved18, &P::GetCredential, &P::SetKeyFile, &P::Connect,
              &P::Disconnect, &P::SetQuotaCallback, &P::FreeString);
  using D = IFSDrive;
  ExpectOrder(&D::AddProtocol, &D::Reserved1, &D::Reserved2, &D::Reserved3, &D::Reserved4,
              &D::Reserved5, &D::GetProtocolCount, &D::GetProtocolAt, &D::SetFeatures,
              &D::Reserved9, &D::GetFeatures, &D::SetEventSink);
  using E = IFSEvent;
  ExpectOrder(&E::Release, &E::BeginUpload, &E::Uploading, &E::EndUpload, &E::Error, &E::UserAction,
              &E::Unmounted);
  ExpectOrder(&IRefObject::Release);
  ExpectOrder(&IAsyncQ::Push, &IAsyncQ::Release);
  ExpectOrder(&ILog::SetLevel, &ILog::GetLevel, &ILog::Write);
  ExpectOrder(&IAuth::GetValue, &IAuth::Refresh);
  ExpectOrder(&ICache::ReadBlock, &ICache::WriteBlock, &ICache::Drop, &ICache::GetUsed,
              &ICache::GetCapacity, &ICache::GetFolder);
}

TEST(FeatureTest, CombiningKeepsTheLow32BitsAndTheirSign) {
  const auto combine = [](std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<FS_FEATURE>(a) | static_cast<FS_FEATURE>(b));
  };
  EXPECT_EQ(combine(FS_FEATURE_CLIENT, 0x1), 0x21);
  EXPECT_EQ(combine(0x7'0000'0020, 0x1'0000'0000), 0x20);
  EXPECT_EQ(combine(0x8000'0000, 0x20), -0x7FFF'FFE0);
}

}  // namespace
