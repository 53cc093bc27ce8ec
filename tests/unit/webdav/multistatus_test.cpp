#include "modules/webdav/multistatus.h"

#include <gtest/gtest.h>

namespace tarn::webdav {
namespace {

struct Outcome {
  bool complete = true;
  std::vector<Resource> resources;
};

// Feeds a document in parts of this many bytes.
Outcome Read(const std::string& document, size_t part_bytes = 4096) {
  Outcome outcome;
  MultistatusReader reader(
      [&](Resource resource) { outcome.resources.push_back(std::move(resource)); });
  for (size_t at = 0; at < document.size() && outcome.complete; at += part_bytes) {
    const std::string part = document.substr(at, part_bytes);
    outcome.complete = reader.Feed(part.data(), part.size());
  }
  outcome.complete = outcome.complete && reader.Finish();
  return outcome;
}

TEST(MultistatusTest, AnyPrefixAnyOrderAndAnySplitGiveTheSame) {
  const std::string document = R"(<?xml version="1.0" encoding="utf-8"?>
<multistatus xmlns="DAV:" xmlns:a="other"><response>
  <propstat><prop><getetag/><a:getetag>"theirs"</a:getetag><quota-used-bytes>5</quota-used-bytes>
    <getcontentlength>999</getcontentlength></prop><status>HTTP/1.1 404 Not Found</status></propstat>
  <href> /dav/a%20b&amp;c </href>
  <z:propstat xmlns:z="DAV:"><z:prop><z:getcontentlength>12345678901</z:getcontentlength>
    <z:resourcetype/><z:getlastmodified>Sun, 06 Nov 1994 08:49:37 GMT</z:getlastmodified>
    <z:getetag><![CDATA["tag"]]></z:getetag></z:prop><z:status>HTTP/1.1 200 OK</z:status></z:propstat>
</response><response><href>/dav/gone</href><status>HTTP/1.1 404 Not Found</status></response>
<response><href>/dav/sub/</href><propstat><prop><resourcetype><collection/><a:calendar/>
</resourcetype><getcontentlength>none</getcontentlength></prop><status>HTTP/1.1 200 OK</status>
</propstat></response></multistatus>)";
  for (const size_t part_bytes : {size_t{1}, size_t{7}, document.size()}) {
    const Outcome outcome = Read(document, part_bytes);
    ASSERT_TRUE(outcome.complete);
    ASSERT_EQ(outcome.resources.size(), 3U);
    const Resource& file = outcome.resources[0];
    EXPECT_EQ(file.href, "/dav/a%20b&c");
    EXPECT_FALSE(file.is_folder);
    EXPECT_EQ(file.size, 12345678901ULL);
    EXPECT_EQ(file.modified, 784111777);
    EXPECT_EQ(file.etag, "\"tag\"");
    EXPECT_EQ(file.quota_used, std::nullopt) << "of a propstat with status 404";
    EXPECT_EQ(outcome.resources[1].status, 404);
    EXPECT_TRUE(outcome.resources[2].is_folder);
    EXPECT_EQ(outcome.resources[2].size, std::nullopt);
  }
}

TEST(MultistatusTest, WhatIsNoMultistatusIsRefused) {
  const std::string start = R"(<multistatus xmlns="DAV:">)";
  const std::string end = "</multistatus>";
  std::string deep = start;
  std::string many;
  for (int i = 0; i < 100'000; ++i) {
    deep += i < 100 ? "<x>" : "";
    many += "<response><href>/dav/" + std::to_string(i) + "</href></response>";
  }
  const std::string whole = start + many + "<response/>" + end;  // one of no place
  EXPECT_EQ(Read(whole).resources.size(), 100'000U);
  EXPECT_FALSE(Read(start + many + many + many + many + many + many + end).complete);
  MultistatusReader throwing([](Resource) { throw std::bad_alloc(); });
  EXPECT_FALSE(throwing.Feed(whole.data(), whole.size()));
  EXPECT_FALSE(Read(start + many).complete) << "cut short";
  EXPECT_FALSE(Read(deep).complete);
  EXPECT_FALSE(Read(start + "<response><href>" + std::string(100'000, 'x')).complete);
  EXPECT_FALSE(Read("<html><body>Welcome</body></html>").complete);
  EXPECT_FALSE(Read("<multistatus/>").complete) << "of no namespace";
  EXPECT_FALSE(Read("").complete);
  const Outcome entities = Read(R"(<!DOCTYPE multistatus [<!ENTITY e SYSTEM "file:///etc/passwd">
    <!ENTITY a "aaaaaaaaaa"><!ENTITY b "&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;">]>
    <multistatus xmlns="DAV:"><response><href>&e;&b;</href></response></multistatus>)");
  EXPECT_FALSE(entities.complete);
  EXPECT_TRUE(entities.resources.empty());
}

}  // namespace
}  // namespace tarn::webdav
