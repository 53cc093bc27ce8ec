#include "common/json.h"

#include <cmath>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>

#include "common/frame.h"

namespace {

// The code that `action` throws; SUCCESS when it throws none.
template <typename Action>
AERROR Thrown(Action action) {
  try {
    action();
  } catch (AERROR code) {
    return code;
  }
  return SUCCESS;
}

AERROR ParseResult(const std::string& text) {
  return Thrown([&] { Json(text.data(), static_cast<unsigned int>(text.size())); });
}

TEST(JsonTest, PathsNameMembersFromTheRootDown) {
  const Json document(R"({"cmd":"mount","data":{"type":"x","list":[1,2]}})");
  for (const char* path : {"/data/type", "data/type", "//data//type/"}) {
    EXPECT_EQ(static_cast<std::string>(document.GetObject(path)), "x") << path;
  }
  EXPECT_EQ(document.GetObject("/").ToText(), document.ToText());
  for (const char* path :
       {"/data/type/more", "/cmd/x", "/data/list/0", "/DATA", "/dat", "/data "}) {
    EXPECT_FALSE(document.HasObject(path)) << path;
    EXPECT_EQ(Thrown([&] { (void)document.GetObject(path); }), ACCESS_VIOLATION) << path;
  }
}

// Texts come from peers: a deep one must not use up the stack, nor take long.
TEST(JsonTest, OnlyOneWholeObjectOrArrayOfBoundedDepthParses) {
  const std::string deep = std::string(2000, '[') + std::string(2000, ']');
  for (const std::string& text : {std::string("{}"), std::string(" [1] \n"), deep}) {
    EXPECT_EQ(ParseResult(text), SUCCESS) << text;
  }
  EXPECT_EQ(Json(deep.c_str()).GetObject("/").Copy().ToText(), deep);
  for (const char* text : {"", " ", "5", R"("x")", "{", "{}{}", "[1],", "{'a':1}", "\xC3"}) {
    EXPECT_EQ(ParseResult(text), JSON_PARSE_FAILED) << text;
    EXPECT_EQ(Thrown([&] { Json parsed(text); }), JSON_PARSE_FAILED) << text;
  }
  EXPECT_EQ(ParseResult(std::string("{\0}", 3)), JSON_PARSE_FAILED);
  EXPECT_EQ(ParseResult(std::string(tarn::kMaxFrameBytes, '[')), JSON_PARSE_FAILED);
  EXPECT_EQ(Json(nullptr).ToText(), "{}");

  Json broken("{\n?", 3, 0);  // with flags: no root, and nothing thrown
  EXPECT_FALSE(broken);
  EXPECT_EQ(broken.ParseError().line, 2);
  EXPECT_FALSE(broken.Insert("a", 1));
  broken.DeleteObject("a");
  EXPECT_EQ(broken.ToText(), "");
}

TEST(JsonTest, ConversionsNeverParseNorConvertBetweenTypes) {
  using Converted = std::tuple<std::string, std::wstring, long long, int, double, bool>;
  const std::pair<const char*, Converted> cases[] = {
      {R"({"a":"12"})", {"12", L"12", 0, 0, 0.0, false}},
      {R"({"a":4294967298})", {"", L"", 4294967298, 2, 0.0, false}},
      {R"({"a":1.5})", {"", L"", 0, 0, 1.5, false}},
      {R"({"a":true})", {"", L"", 0, 0, 0.0, true}},
      {R"({"a":["12"]})", {"", L"", 0, 0, 0.0, false}},
  };
  for (const auto& [text, expected] : cases) {
    const JsonObject view = Json(text).GetObject("a");
    EXPECT_EQ(Converted(view, view, view, view, view, view), expected) << text;
  }
}

TEST(JsonTest, AnEmptyViewIsHarmless) {
  JsonObject view(nullptr);
  EXPECT_EQ(std::string(view), "");
  EXPECT_EQ(Thrown([&] { (void)view.GetObject("/"); }), ACCESS_VIOLATION);
  EXPECT_EQ(view[0].ToText(), "");
  EXPECT_EQ(view.IterKey(view.Iter()), "");
  EXPECT_EQ(view.IterValue(view.Iter()).Copy().ToText(), "");
  EXPECT_FALSE(view.Insert("a", "b"));
  EXPECT_FALSE(Json().Insert("a", view));
}

TEST(JsonTest, InsertReplacesAndRefusesWhatJsonCannotHold) {
  Json document(R"({"gone":[]})");
  document.DeleteObject("gone");
  EXPECT_TRUE(document.Insert("a", 4) && document.Insert("a", 5));
  EXPECT_TRUE(document.Insert("a/b", "/\"\n") && document.Insert("é", L"é\x1F600"));
  EXPECT_TRUE(document.Insert("real", 0.5) && document.Insert("large", ~0ULL >> 1));
  EXPECT_FALSE(document.Insert("a", "\xFF") || document.Insert("\xFF", 1));
  EXPECT_FALSE(document.Insert("a", std::nan("")));
  EXPECT_FALSE(document.Insert("a", document.GetObject("/")));
  EXPECT_THROW(document.Insert("a", std::wstring(1, wchar_t{0x110000})), std::range_error);
  EXPECT_EQ(document.ToText(),
            R"({"a":5,"a/b":"/\"\n","é":"é😀","real":0.5,"large":9223372036854775807})");
}

// The address sanitizer finds what is given back too often or never.
TEST(JsonTest, ViewsShareUntilCopiedOrRebound) {
  Json document(R"({"inner":{"n":1}})");
  JsonObject view = document.GetObject("inner");
  JsonObject copy = view.Copy();
  const Json same = document;
  document.Insert("other", view);
  view.Insert("n", 2);
  view = "text";
  EXPECT_EQ(static_cast<std::string>(view), "text");
  EXPECT_EQ(same.ToText(), R"({"inner":{"n":2},"other":{"n":2}})");
  EXPECT_EQ(copy.ToText(), R"({"n":1})");
  copy = Json(R"({"outlives":"its document"})").GetObject("outlives");
  EXPECT_EQ(static_cast<std::string>(copy), "its document");
}

TEST(JsonTest, ArraysTakeTextsAtTheEndAndViewsAtTheFront) {
  const Json document(R"({"data":{"was":"object"}})");
  JsonObject list = document.GetObject("data");
  EXPECT_TRUE(list.InsertArrayItem("one") && list.InsertArrayItem("two"));
  EXPECT_TRUE(list.InsertArrayItem(document.GetObject("data")) && list.InsertArrayItem(list[1]));
  EXPECT_FALSE(list.InsertArrayItem("\xFF") || list.InsertArrayItem(list));
  EXPECT_EQ(list.ToText(), R"(["one",{"was":"object"},"one","two"])");
  EXPECT_EQ(list.GetArraySize(), 4u);
  EXPECT_EQ(list[4].ToText(), "");
}

}  // namespace
