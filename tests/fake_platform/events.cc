// SPDX-License-Identifier: Apache-2.0
// Application events and the bundles that they carry.

#include <app_event.h>
#include <bundle.h>

#include <algorithm>
#include <cstring>

#include "internal.h"

using fake::Kind;
using fake::internal::Adopt;
using fake::internal::Begin;
using fake::internal::BeginRelease;
using fake::internal::BeginUnrecorded;
using fake::internal::Destroy;
using fake::internal::Find;
using fake::internal::Guard;
using fake::internal::Name;
using fake::internal::Perform;
using fake::internal::Quote;
using fake::internal::Shielded;
using fake::internal::state;
using Type = _bundle_t::Value::Type;

namespace {

_bundle_t::Value* Lookup(const char* function, bundle* b, const char* key, Type type) {
  auto* const object = Find<_bundle_t>(function, b, Kind::kBundle);
  if (object == nullptr || key == nullptr) return nullptr;
  const auto found = object->values.find(key);
  if (found == object->values.end() || found->second.type != type) return nullptr;
  return &found->second;
}

int Add(const char* function, bundle* b, const char* key, _bundle_t::Value value) {
  auto* const object = Find<_bundle_t>(function, b, Kind::kBundle);
  if (object == nullptr || key == nullptr) return fake::kInvalidParameter;
  return object->values.emplace(key, std::move(value)).second ? 0 : fake::kInvalidParameter;
}

void Run(const event_handler* handler, const char* name, bundle* data) {
  event_cb callback = nullptr;
  void* user_data = nullptr;
  {
    const Guard guard;
    if (!handler->alive) return;
    callback = handler->callback;
    user_data = handler->data;
  }
  Shielded("event handler", [&] { callback(name, data, user_data); });
}

std::vector<const event_handler*> HandlersOf(const std::string& name) {
  const Guard guard;
  std::vector<const event_handler*> handlers;
  for (const event_handler* handler : state().handlers) {
    if (handler->alive && handler->name == name) handlers.push_back(handler);
  }
  return handlers;
}

}  // namespace

bundle* bundle_create(void) {
  const fake::internal::Inside inside;
  const fake::Step step = BeginUnrecorded(__func__);
  bundle* made = nullptr;
  Perform(__func__, step, &made, [&] {
    made = Adopt<_bundle_t>(Kind::kBundle);
    return 0;
  });
  return made;
}

int bundle_free(bundle* b) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  const fake::Step step = BeginUnrecorded(kFunction);
  return Perform(kFunction, step, [&] {
    const Guard guard;
    auto* const object = static_cast<_bundle_t*>(Destroy(kFunction, b, Kind::kBundle));
    if (object == nullptr) return fake::kInvalidParameter;
    object->values.clear();
    return 0;
  });
}

int bundle_add_str(bundle* b, const char* key, const char* str) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  const fake::Step step = BeginUnrecorded(kFunction);
  return Perform(kFunction, step, [&] {
    const Guard guard;
    if (str == nullptr) return fake::kInvalidParameter;
    _bundle_t::Value value;
    value.text = str;
    return Add(kFunction, b, key, std::move(value));
  });
}

int bundle_get_str(bundle* b, const char* key, char** str) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  const fake::Step step = Begin(kFunction, Name(b) + ", " + Quote(key));
  return Perform(kFunction, step, str, [&] {
    const Guard guard;
    auto* const value = Lookup(kFunction, b, key, Type::kStr);
    if (value == nullptr || str == nullptr) return fake::kInvalidParameter;
    *str = value->text.data();
    return 0;
  });
}

int bundle_add_byte(bundle* b, const char* key, const void* byte, const size_t size) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  const fake::Step step = BeginUnrecorded(kFunction);
  return Perform(kFunction, step, [&] {
    const Guard guard;
    _bundle_t::Value value;
    value.type = Type::kByte;
    value.bytes = std::make_unique<unsigned char[]>(size + 1);
    value.size = size;
    if (size > 0) std::memcpy(value.bytes.get() + 1, byte, size);
    return Add(kFunction, b, key, std::move(value));
  });
}

int bundle_get_byte(bundle* b, const char* key, void** byte, size_t* size) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  const fake::Step step = Begin(kFunction, Name(b) + ", " + Quote(key));
  return Perform(kFunction, step, byte, [&] {
    const Guard guard;
    auto* const value = Lookup(kFunction, b, key, Type::kByte);
    if (value == nullptr || byte == nullptr || size == nullptr) return fake::kInvalidParameter;
    *byte = value->bytes.get() + 1;
    *size = value->size;
    return 0;
  });
}

int bundle_add_str_array(bundle* b, const char* key, const char** str_array, const int len) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  const fake::Step step = BeginUnrecorded(kFunction);
  return Perform(kFunction, step, [&] {
    const Guard guard;
    _bundle_t::Value value;
    value.type = Type::kStrArray;
    for (int i = 0; i < len; ++i) value.texts.emplace_back(str_array[i]);
    return Add(kFunction, b, key, std::move(value));
  });
}

const char** bundle_get_str_array(bundle* b, const char* key, int* len) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  const fake::Step step = Begin(kFunction, Name(b) + ", " + Quote(key));
  const char** found = nullptr;
  Perform(kFunction, step, [&] {
    const Guard guard;
    auto* const value = Lookup(kFunction, b, key, Type::kStrArray);
    if (value == nullptr || len == nullptr) return fake::kInvalidParameter;
    value->pointers.clear();
    for (const std::string& text : value->texts) value->pointers.push_back(text.c_str());
    value->pointers.push_back(nullptr);
    found = value->pointers.data();
    *len = static_cast<int>(value->texts.size());
    return 0;
  });
  return found;
}

int event_add_event_handler(const char* event_name, event_cb callback, void* user_data,
                            event_handler_h* handler) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  const fake::Step step =
      Begin(kFunction, Quote(event_name) + (user_data == nullptr ? ", null" : ", data"));
  return Perform(kFunction, step, handler, [&] {
    const Guard guard;
    if (event_name == nullptr || callback == nullptr || handler == nullptr) {
      fake::Fault(std::string(kFunction) + ": null argument");
      return fake::kInvalidParameter;
    }
    auto* const made = Adopt<event_handler>(Kind::kEventHandler);
    made->name = event_name;
    made->callback = callback;
    made->data = user_data;
    state().handlers.push_back(made);
    *handler = made;
    return 0;
  });
}

int event_remove_event_handler(event_handler_h handler) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  const fake::Step step = BeginRelease(kFunction, handler);
  return Perform(kFunction, step, [&] {
    return Destroy(kFunction, handler, Kind::kEventHandler) != nullptr ? 0
                                                                       : fake::kInvalidParameter;
  });
}

int event_publish_app_event(const char* event_name, bundle* event_data) {
  const fake::internal::Inside inside;
  const fake::Step step = Begin(__func__, Quote(event_name) + ", " + Name(event_data));
  return Perform(__func__, step, [] { return 0; });
}

namespace fake {

BundleBuilder::BundleBuilder() : bundle_(bundle_create()) {}
BundleBuilder::~BundleBuilder() { bundle_free(bundle_); }

BundleBuilder& BundleBuilder::Str(const std::string& key, const std::string& value) {
  bundle_add_str(bundle_, key.c_str(), value.c_str());
  return *this;
}

BundleBuilder& BundleBuilder::Bytes(const std::string& key, const void* bytes, std::size_t size) {
  bundle_add_byte(bundle_, key.c_str(), bytes, size);
  return *this;
}

BundleBuilder& BundleBuilder::Int(const std::string& key, int value) {
  return Bytes(key, &value, sizeof value);
}

BundleBuilder& BundleBuilder::StrArray(const std::string& key,
                                       const std::vector<std::string>& values) {
  std::vector<const char*> pointers;
  for (const std::string& value : values) pointers.push_back(value.c_str());
  bundle_add_str_array(bundle_, key.c_str(), pointers.data(), static_cast<int>(pointers.size()));
  return *this;
}

std::vector<std::string> Subscriptions() {
  const Guard guard;
  std::vector<std::string> names;
  for (const event_handler* handler : state().handlers) {
    if (handler->alive) names.push_back(handler->name);
  }
  return names;
}

int FireEvent(const std::string& name, bundle* data) {
  const internal::Inside inside;
  int ran = 0;
  for (const event_handler* handler : HandlersOf(name)) {
    if (!handler->alive) continue;
    Run(handler, name.c_str(), data);
    ++ran;
  }
  return ran;
}

int FireEvent(const std::string& name, const BundleBuilder& data) {
  return FireEvent(name, data.get());
}

void FireEventAt(const std::string& subscribed, const char* name, bundle* data) {
  const internal::Inside inside;
  const auto handlers = HandlersOf(subscribed);
  if (handlers.empty()) Fault("nobody is subscribed to " + subscribed);
  for (const event_handler* handler : handlers) Run(handler, name, data);
}

}  // namespace fake
