#include "common/json.h"

#include <cstdlib>
#include <mutex>
#include <string_view>
#include <utility>

#include "common/utils.h"

namespace {

using Value = std::shared_ptr<json_t>;

// Takes over the caller's reference.
Value Adopt(json_t* fresh) {
  return {fresh, json_decref};
}

Value Share(json_t* borrowed) {
  return Adopt(json_incref(borrowed));
}

// The value at `path` below `start`, borrowed; null when there is none.
json_t* Find(const Value& start, std::string_view path) {
  json_t* current = start.get();
  while (current != nullptr && !path.empty()) {
    const std::string_view name = path.substr(0, path.find('/'));
    path.remove_prefix(name.size() < path.size() ? name.size() + 1 : name.size());
    if (!name.empty()) {
      current = json_object_getn(current, name.data(), name.size());
    }
  }
  return current;
}

JsonObject Get(const Value& start, const char* path) {
  json_t* found = Find(start, path);
  if (found == nullptr) {
    throw ACCESS_VIOLATION;
  }
  return JsonObject(found);
}

// New references, null for what JSON cannot hold.
json_t* NewValue(const std::string& text) {
  return json_stringn(text.data(), text.size());
}

json_t* NewValue(const std::wstring& text) {
  return NewValue(ws2s(text));
}

json_t* NewValue(long long number) {
  return json_integer(number);
}

json_t* NewValue(unsigned long long number) {
  return json_integer(static_cast<json_int_t>(number));
}

json_t* NewValue(int number) {
  return json_integer(number);
}

json_t* NewValue(double number) {
  return json_real(number);
}

json_t* NewValue(const JsonObject& object) {
  return json_incref(static_cast<Value>(object).get());
}

template <typename Content>
bool Set(const Value& target, const char* key, const Content& content) {
  return target && json_object_set_new(target.get(), key, NewValue(content)) == 0;
}

std::string Dump(const Value& value) {
  const std::unique_ptr<char, decltype(&std::free)> text(json_dumps(value.get(), JSON_COMPACT),
                                                         &std::free);
  return text ? text.get() : std::string();
}

}  // namespace

void InitJson() {
  // Once, because jansson reads these functions without a lock while other threads parse.
  static std::once_flag once;
  std::call_once(once, [] { json_set_alloc_funcs(std::malloc, std::free); });
}

JsonObject::JsonObject() : value(Adopt(json_object())) {}

JsonObject::JsonObject(json_t* raw) : value(Share(raw)) {}

JsonObject::JsonObject(std::shared_ptr<json_t> shared) : value(std::move(shared)) {}

JsonObject& JsonObject::operator=(const std::string& text) {
  value = Adopt(NewValue(text));
  return *this;
}

JsonObject::operator std::string() const {
  const char* text = json_string_value(value.get());
  return text != nullptr ? std::string(text, json_string_length(value.get())) : std::string();
}

JsonObject::operator std::wstring() const {
  return s2ws(*this);
}

JsonObject::operator unsigned long long() const {
  return static_cast<unsigned long long>(json_integer_value(value.get()));
}

JsonObject::operator long long() const {
  return json_integer_value(value.get());
}

JsonObject::operator long() const {
  return static_cast<long>(json_integer_value(value.get()));
}

JsonObject::operator int() const {
  return static_cast<int>(json_integer_value(value.get()));
}

JsonObject::operator AERROR() const {
  return static_cast<AERROR>(static_cast<int>(*this));
}

JsonObject::operator double() const {
  return json_real_value(value.get());
}

JsonObject::operator bool() const {
  return json_is_true(value.get());
}

JsonObject::operator std::shared_ptr<json_t>() const {
  return value;
}

JsonObject JsonObject::GetObject(const char* path) const {
  return Get(value, path);
}

bool JsonObject::HasObject(const char* path) const {
  return Find(value, path) != nullptr;
}

JsonObject JsonObject::operator[](unsigned long index) const {
  return JsonObject(json_array_get(value.get(), index));
}

unsigned long JsonObject::GetArraySize() const {
  return json_array_size(value.get());
}

bool JsonObject::Insert(const char* key, const std::string& text) {
  return Set(value, key, text);
}

bool JsonObject::Insert(const char* key, const std::wstring& text) {
  return Set(value, key, text);
}

bool JsonObject::Insert(const char* key, unsigned long long number) {
  return Set(value, key, number);
}

bool JsonObject::Insert(const char* key, long long number) {
  return Set(value, key, number);
}

bool JsonObject::Insert(const char* key, int number) {
  return Set(value, key, number);
}

bool JsonObject::Insert(const char* key, double number) {
  return Set(value, key, number);
}

bool JsonObject::Insert(const char* key, const JsonObject& object) {
  return Set(value, key, object);
}

bool JsonObject::InsertArrayItem(const std::string& text) {
  BecomeArray();
  return json_array_append_new(value.get(), NewValue(text)) == 0;
}

bool JsonObject::InsertArrayItem(const JsonObject& object) {
  const Value added = object.value;  // `object` may be this view
  BecomeArray();
  return json_array_insert(value.get(), 0, added.get()) == 0;
}

void JsonObject::BecomeArray() {
  if (!json_is_array(value.get())) {
    value = Adopt(json_array());
  }
}

void* JsonObject::Iter() const {
  return json_object_iter(value.get());
}

void* JsonObject::IterNext(void* iter) const {
  return json_object_iter_next(value.get(), iter);
}

std::string JsonObject::IterKey(void* iter) const {
  return iter != nullptr ? std::string(json_object_iter_key(iter), json_object_iter_key_len(iter))
                         : std::string();
}

JsonObject JsonObject::IterValue(void* iter) const {
  return JsonObject(json_object_iter_value(iter));
}

JsonObject JsonObject::Copy() const {
  return JsonObject(Adopt(json_deep_copy(value.get())));
}

std::string JsonObject::ToText() const {
  return Dump(value);
}

Json::Json() : root(Adopt(json_object())) {}

Json::Json(const char* text) {
  InitJson();
  root = Adopt(text != nullptr ? json_loads(text, 0, &error) : json_object());
  if (!root) {
    throw JSON_PARSE_FAILED;
  }
}

Json::Json(const char* text, unsigned int length_bytes) : Json(text, length_bytes, 0) {
  if (!root) {
    throw JSON_PARSE_FAILED;
  }
}

Json::Json(const char* text, unsigned int length_bytes, unsigned long flags) {
  InitJson();
  root = Adopt(json_loadb(text, length_bytes, flags, &error));
}

Json::operator bool() const {
  return root != nullptr;
}

JsonObject Json::GetObject(const char* path) const {
  return Get(root, path);
}

bool Json::HasObject(const char* path) const {
  return Find(root, path) != nullptr;
}

bool Json::Insert(const char* key, const std::string& text) {
  return Set(root, key, text);
}

bool Json::Insert(const char* key, const std::wstring& text) {
  return Set(root, key, text);
}

bool Json::Insert(const char* key, unsigned long long number) {
  return Set(root, key, number);
}

bool Json::Insert(const char* key, long long number) {
  return Set(root, key, number);
}

bool Json::Insert(const char* key, int number) {
  return Set(root, key, number);
}

bool Json::Insert(const char* key, double number) {
  return Set(root, key, number);
}

bool Json::Insert(const char* key, const JsonObject& object) {
  return Set(root, key, object);
}

std::string Json::ToText() const {
  return Dump(root);
}

void Json::DeleteObject(const char* key) {
  if (root) {
    (void)json_object_del(root.get(), key);  // an absent member is as good as a removed one
  }
}
