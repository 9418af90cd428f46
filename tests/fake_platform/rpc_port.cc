// SPDX-License-Identifier: Apache-2.0
#include <endian.h>
#include <rpc-port.h>

#include <cstring>
#include <ostream>

#include "internal.h"

namespace fake {

using internal::Guard;
using internal::Message;
using internal::ProxyObject;
using internal::state;

/* Items. */

bool operator==(const Item& a, const Item& b) {
  return a.type == b.type && a.number == b.number && a.text == b.text;
}

std::ostream& operator<<(std::ostream& out, const Item& item) {
  switch (item.type) {
    case Item::Type::kInt32:
      return out << "int32 " << item.number;
    case Item::Type::kBool:
      return out << (item.number != 0 ? "true" : "false");
    case Item::Type::kString:
      return out << '"' << item.text << '"';
    case Item::Type::kNullString:
      return out << "null text";
    case Item::Type::kCount:
      return out << "count " << item.number;
    case Item::Type::kUnreadable:
    case Item::Type::kGarbage:
      return out << "unreadable";
    case Item::Type::kEnd:
      return out << "end";
  }
  return out;
}

Item Count(int count) { return {Item::Type::kCount, count}; }
Item NullText() { return {Item::Type::kNullString, 0}; }
Item Unreadable() { return {Item::Type::kUnreadable, 0}; }
Item UnreadableWithGarbage() { return {Item::Type::kGarbage, 0}; }

Items CutAfter(const Items& items, std::size_t n) {
  Items cut(items.begin(), items.begin() + static_cast<std::ptrdiff_t>(n));
  cut.push_back(Unreadable());
  return cut;
}

Items operator+(Items a, const Items& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

namespace {

void AppendInt32(std::vector<std::uint8_t>* bytes, std::uint32_t value) {
  for (unsigned shift = 0; shift < 32; shift += 8) {
    bytes->push_back(static_cast<std::uint8_t>(value >> shift));
  }
}

void AppendItem(std::vector<std::uint8_t>* bytes, const Item& item) {
  switch (item.type) {
    case Item::Type::kInt32:
    case Item::Type::kCount:
      AppendInt32(bytes, static_cast<std::uint32_t>(item.number));
      return;
    case Item::Type::kBool:
      bytes->push_back(item.number != 0 ? 1 : 0);
      return;
    case Item::Type::kString:
      AppendInt32(bytes, static_cast<std::uint32_t>(item.text.size() + 1));
      bytes->insert(bytes->end(), item.text.begin(), item.text.end());
      bytes->push_back(0);
      return;
    default:
      Fault("an item without a wire form");
  }
}

std::string FromHex(const std::string& hex) {
  std::string bytes;
  std::string digits;
  for (const char c : hex) {
    if (c == ' ' || c == '\n') continue;
    digits.push_back(c);
    if (digits.size() < 2) continue;
    bytes.push_back(static_cast<char>(std::stoi(digits, nullptr, 16)));
    digits.clear();
  }
  return bytes;
}

Message Typed(Items items) { return {std::move(items), false, {}}; }
Message Untyped(const std::string& hex) { return {{}, true, FromHex(hex)}; }

}  // namespace

std::vector<std::uint8_t> Bytes(const Items& items) {
  std::vector<std::uint8_t> bytes;
  for (const Item& item : items) AppendItem(&bytes, item);
  return bytes;
}

std::string Hex(const std::vector<std::uint8_t>& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (const std::uint8_t byte : bytes) {
    if (!hex.empty()) hex.push_back(' ');
    hex.push_back(kDigits[byte >> 4]);
    hex.push_back(kDigits[byte & 15]);
  }
  return hex;
}

/* Messages. */

std::vector<Sent> SentParcels() { return SentParcels(RPC_PORT_PORT_MAIN); }

std::vector<Sent> SentParcels(rpc_port_port_type_e port) {
  const Guard guard;
  std::vector<Sent> sent;
  for (const Sent& parcel : state().sent) {
    if (parcel.port == port) sent.push_back(parcel);
  }
  return sent;
}

void OnSend(std::function<void(const Sent&)> agent) {
  const Guard guard;
  state().on_send = std::move(agent);
}

void QueueMessage(Items items) {
  const Guard guard;
  state().main_messages.push_back(Typed(std::move(items)));
}

void QueueReply(const Items& values) { QueueMessage(Items{0} + values); }

void QueueStray(int command, const Items& rest) { QueueMessage(Items{command} + rest); }

void QueueBytes(const std::string& hex) {
  const Guard guard;
  state().main_messages.push_back(Untyped(hex));
}

std::size_t WaitingMessages() {
  const Guard guard;
  return state().main_messages.size();
}

void ForgetMessages() {
  const Guard guard;
  state().main_messages.clear();
}

void DeliverDelegateMessage(int id, int seq, const Items& payload, bool once) {
  const internal::Inside inside;
  DeliverMessage(Items{1, id, seq, once} + payload);
}

void DeliverMessage(const Items& items) {
  const internal::Inside inside;
  const ProxyControl proxy = Proxy();
  proxy.QueueCallbackMessage(items);
  proxy.FireReceived();
}

void DeliverBytes(const std::string& hex) {
  const internal::Inside inside;
  const ProxyControl proxy = Proxy();
  proxy.QueueCallbackBytes(hex);
  proxy.FireReceived();
}

/* Proxies. */

namespace {

ProxyObject* FindProxy(const char* what, const void* handle) {
  return internal::Find<ProxyObject>(what, handle, Kind::kProxy);
}

/** Runs what is registered under `member`, as long as the proxy lives. */
template <typename List, typename Call>
void Fire(const char* what, void* handle, List ProxyObject::* member, Call call) {
  const internal::Inside inside;
  List callbacks;
  std::string target;
  std::string port_name;
  {
    const Guard guard;
    const ProxyObject* const proxy = FindProxy(what, handle);
    if (proxy == nullptr) return;
    callbacks = proxy->*member;
    target = proxy->target;
    port_name = proxy->port_name;
  }
  if (callbacks.empty()) Fault(std::string(what) + ": no callback is registered");
  for (const auto& registered : callbacks) {
    internal::Shielded(what, [&] { call(registered, target.c_str(), port_name.c_str()); });
  }
}

template <typename List>
void FireSimple(const char* what, void* handle, List ProxyObject::* member) {
  Fire(what, handle, member, [](const auto& registered, const char* endpoint, const char* port) {
    registered.callback(endpoint, port, registered.data);
  });
}

}  // namespace

bool ProxyControl::Alive() const {
  const Guard guard;
  const auto found = state().objects.find(handle_);
  return found != state().objects.end() && found->second->alive;
}

std::string ProxyControl::Target() const {
  const Guard guard;
  const auto found = state().objects.find(handle_);
  return found == state().objects.end() ? ""
                                        : static_cast<ProxyObject*>(found->second.get())->target;
}

std::string ProxyControl::PortName() const {
  const Guard guard;
  const auto found = state().objects.find(handle_);
  return found == state().objects.end() ? ""
                                        : static_cast<ProxyObject*>(found->second.get())->port_name;
}

void ProxyControl::FireConnected() const {
  rpc_port_h port = nullptr;
  {
    const Guard guard;
    ProxyObject* const proxy = FindProxy("connected event", handle_);
    if (proxy == nullptr) return;
    proxy->connected = true;
    port = &proxy->main;
  }
  Fire("connected event", handle_, &ProxyObject::connected_callbacks,
       [port](const auto& registered, const char* endpoint, const char* port_name) {
         registered.callback(endpoint, port_name, port, registered.data);
       });
}

void ProxyControl::FireDisconnected() const {
  FireSimple("disconnected event", handle_, &ProxyObject::disconnected_callbacks);
}

void ProxyControl::FireRejected() const {
  FireSimple("rejected event", handle_, &ProxyObject::rejected_callbacks);
}

void ProxyControl::FireReceived() const {
  FireSimple("received event", handle_, &ProxyObject::received_callbacks);
}

void ProxyControl::QueueCallbackMessage(Items items) const {
  const Guard guard;
  if (ProxyObject* const proxy = FindProxy("queued message", handle_)) {
    proxy->messages.push_back(Typed(std::move(items)));
  }
}

void ProxyControl::QueueCallbackBytes(const std::string& hex) const {
  const Guard guard;
  if (ProxyObject* const proxy = FindProxy("queued message", handle_)) {
    proxy->messages.push_back(Untyped(hex));
  }
}

ProxyControl Proxy() { return Proxy(ProxyCount()); }

ProxyControl Proxy(int n) {
  const Guard guard;
  if (n < 1 || n > ProxyCount()) {
    Fault("there is no proxy " + std::to_string(n));
    return ProxyControl(nullptr);
  }
  return ProxyControl(state().proxies[static_cast<std::size_t>(n) - 1]);
}

int ProxyCount() {
  const Guard guard;
  return static_cast<int>(state().proxies.size());
}

}  // namespace fake

using fake::Item;
using fake::Kind;
using fake::Step;
using fake::internal::Adopt;
using fake::internal::Begin;
using fake::internal::BeginRelease;
using fake::internal::Destroy;
using fake::internal::Find;
using fake::internal::Guard;
using fake::internal::Message;
using fake::internal::Name;
using fake::internal::Object;
using fake::internal::Parcel;
using fake::internal::Perform;
using fake::internal::Port;
using fake::internal::ProxyObject;
using fake::internal::Quote;
using fake::internal::state;

namespace {

/**
 * The port of a handle whose proxy is alive. Otherwise null, and a fault unless the handle is null,
 * which the platform refuses as any caller may expect.
 */
Port* FindPort(const char* function, const void* handle) {
  if (handle == nullptr) return nullptr;
  const auto found = state().ports.find(handle);
  if (found == state().ports.end()) {
    fake::Fault(std::string(function) + ": unknown handle where a port is expected");
    return nullptr;
  }
  if (!found->second->proxy->alive) {
    if (state().ports_after_their_proxy) return nullptr;
    fake::Fault(std::string(function) + ": " + Name(handle) + " is used after its proxy");
    return nullptr;
  }
  return found->second;
}

int Write(const char* function, rpc_port_parcel_h h, const std::string& rendered,
          const std::optional<Item>& item) {
  const Step step = Begin(function, Name(h) + ", " + rendered);
  return Perform(function, step, [&] {
    const Guard guard;
    auto* const parcel = Find<Parcel>(function, h, Kind::kParcel);
    if (parcel == nullptr || !item.has_value()) return fake::kInvalidParameter;
    parcel->items.push_back(*item);
    return 0;
  });
}

bool TakeBytes(Parcel* parcel, void* out, std::size_t size) {
  if (parcel->bytes.size() - parcel->position < size) return false;
  std::memcpy(out, parcel->bytes.data() + parcel->position, size);
  parcel->position += size;
  return true;
}

int ReadUntyped(const char*, Parcel* parcel, int* out) {
  std::uint32_t little = 0;
  if (!TakeBytes(parcel, &little, sizeof little)) return fake::kIoError;
  *out = static_cast<int>(le32toh(little));
  return 0;
}

int ReadUntyped(const char*, Parcel* parcel, bool* out) {
  unsigned char byte = 0;
  if (!TakeBytes(parcel, &byte, 1)) return fake::kIoError;
  *out = byte != 0;
  return 0;
}

int ReadUntyped(const char* function, Parcel* parcel, char** out) {
  int length = 0;
  if (ReadUntyped(function, parcel, &length) != 0) return fake::kIoError;
  const std::size_t left = parcel->bytes.size() - parcel->position;
  if (length <= 0 || static_cast<std::size_t>(length) > left) return fake::kIoError;
  const std::string text = parcel->bytes.substr(parcel->position, static_cast<std::size_t>(length));
  if (text.back() != '\0') return fake::kIoError;
  parcel->position += text.size();
  // NOLINTNEXTLINE(readability-redundant-string-cstr): ends at the first NUL, which may be inside.
  *out = fake::internal::HandOut(function, text.c_str());
  return 0;
}

void Take(const char*, const Item& item, int* out) { *out = item.number; }
void Take(const char*, const Item& item, bool* out) { *out = item.number != 0; }
void Take(const char* function, const Item& item, char** out) {
  *out =
      item.type == Item::Type::kNullString ? nullptr : fake::internal::HandOut(function, item.text);
}

bool Fits(Item::Type wanted, Item::Type found) {
  return wanted == found || (wanted == Item::Type::kString && found == Item::Type::kNullString);
}

template <typename Out>
int ReadTyped(const char* function, Parcel* parcel, Item::Type wanted, Out* out) {
  if (parcel->position >= parcel->items.size()) {
    fake::Fault(std::string(function) + ": " + Name(parcel) + " is read past its end");
    return fake::kIoError;
  }
  const Item& item = parcel->items[parcel->position];
  if (item.type == Item::Type::kUnreadable) return fake::kIoError;
  if (item.type == Item::Type::kGarbage) {
    fake::internal::Spoil(out);
    return fake::kIoError;
  }
  if (!Fits(wanted, item.type)) {
    fake::Fault(std::string(function) + ": item " + std::to_string(parcel->position) + " of " +
                Name(parcel) + " has another type");
    return fake::kIoError;
  }
  Take(function, item, out);
  ++parcel->position;
  return 0;
}

template <typename Out>
int Read(const char* function, rpc_port_parcel_h h, Item::Type wanted, Out* out) {
  const Step step = Begin(function, Name(h));
  return Perform(function, step, out, [&] {
    const Guard guard;
    auto* const parcel = Find<Parcel>(function, h, Kind::kParcel);
    if (parcel == nullptr || out == nullptr) return fake::kInvalidParameter;
    return parcel->untyped ? ReadUntyped(function, parcel, out)
                           : ReadTyped(function, parcel, wanted, out);
  });
}

template <typename Callback>
int AddCallback(const char* function, rpc_port_proxy_h h, Callback callback, void* data,
                std::vector<fake::internal::Registered<Callback>> ProxyObject::* member) {
  const Step step = Begin(function, Name(h));
  return Perform(function, step, [&] {
    const Guard guard;
    auto* const proxy = Find<ProxyObject>(function, h, Kind::kProxy);
    if (proxy == nullptr || callback == nullptr) return fake::kInvalidParameter;
    (proxy->*member).push_back({callback, data});
    return 0;
  });
}

int WithStub(const char* function, rpc_port_stub_h h) {
  const Step step = Begin(function, Name(h));
  return Perform(function, step, [&] {
    return Find<Object>(function, h, Kind::kStub) != nullptr ? 0 : fake::kInvalidParameter;
  });
}

}  // namespace

/* Parcels. */

int rpc_port_parcel_create(rpc_port_parcel_h* h) {
  const fake::internal::Inside inside;
  const Step step = Begin(__func__, "");
  return Perform(__func__, step, h, [&] {
    *h = Adopt<Parcel>(Kind::kParcel);
    return 0;
  });
}

int rpc_port_parcel_create_from_port(rpc_port_parcel_h* h, rpc_port_h port) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  const Step step = Begin(kFunction, Name(port));
  return Perform(kFunction, step, h, [&] {
    const Guard guard;
    Port* const found = FindPort(kFunction, port);
    if (found == nullptr) return fake::kInvalidParameter;
    auto& messages =
        found->type == RPC_PORT_PORT_MAIN ? state().main_messages : found->proxy->messages;
    if (messages.empty()) return fake::kIoError;
    Message message = std::move(messages.front());
    messages.pop_front();
    auto* const parcel = Adopt<Parcel>(Kind::kParcel);
    parcel->items = std::move(message.items);
    parcel->untyped = message.untyped;
    parcel->bytes = std::move(message.bytes);
    *h = parcel;
    return 0;
  });
}

int rpc_port_parcel_send(rpc_port_parcel_h h, rpc_port_h port) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  const Step step = Begin(kFunction, Name(h) + ", " + Name(port));
  return Perform(kFunction, step, [&] {
    fake::Sent sent;
    std::function<void(const fake::Sent&)> agent;
    {
      const Guard guard;
      const auto* const parcel = Find<Parcel>(kFunction, h, Kind::kParcel);
      const Port* const found = FindPort(kFunction, port);
      if (parcel == nullptr || found == nullptr) return fake::kInvalidParameter;
      sent = {found->proxy->number, found->type, parcel->items};
      if (state().recording) state().sent.push_back(sent);
      agent = state().on_send;
    }
    if (agent) {
      const fake::internal::Outside outside;
      agent(sent);
    }
    return 0;
  });
}

int rpc_port_parcel_destroy(rpc_port_parcel_h h) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  const Step step = BeginRelease(kFunction, h);
  return Perform(kFunction, step, [&] {
    const Guard guard;
    auto* const parcel = static_cast<Parcel*>(Destroy(kFunction, h, Kind::kParcel));
    if (parcel == nullptr) return fake::kInvalidParameter;
    fake::Items().swap(parcel->items);
    std::string().swap(parcel->bytes);
    return 0;
  });
}

int rpc_port_parcel_write_int32(rpc_port_parcel_h h, int i) {
  const fake::internal::Inside inside;
  return Write(__func__, h, std::to_string(i), Item(i));
}

int rpc_port_parcel_write_bool(rpc_port_parcel_h h, bool b) {
  const fake::internal::Inside inside;
  return Write(__func__, h, b ? "true" : "false", Item(b));
}

int rpc_port_parcel_write_string(rpc_port_parcel_h h, const char* str) {
  const fake::internal::Inside inside;
  return Write(__func__, h, Quote(str),
               str != nullptr ? std::optional<Item>(str) : std::optional<Item>());
}

int rpc_port_parcel_write_array_count(rpc_port_parcel_h h, int count) {
  const fake::internal::Inside inside;
  return Write(__func__, h, std::to_string(count), fake::Count(count));
}

int rpc_port_parcel_read_int32(rpc_port_parcel_h h, int* i) {
  const fake::internal::Inside inside;
  return Read(__func__, h, Item::Type::kInt32, i);
}

int rpc_port_parcel_read_bool(rpc_port_parcel_h h, bool* b) {
  const fake::internal::Inside inside;
  return Read(__func__, h, Item::Type::kBool, b);
}

int rpc_port_parcel_read_string(rpc_port_parcel_h h, char** str) {
  const fake::internal::Inside inside;
  return Read(__func__, h, Item::Type::kString, str);
}

int rpc_port_parcel_read_array_count(rpc_port_parcel_h h, int* count) {
  const fake::internal::Inside inside;
  return Read(__func__, h, Item::Type::kCount, count);
}

/* Client side. */

int rpc_port_proxy_create(rpc_port_proxy_h* h) {
  const fake::internal::Inside inside;
  const Step step = Begin(__func__, "");
  return Perform(__func__, step, h, [&] {
    const Guard guard;
    auto* const proxy = Adopt<ProxyObject>(Kind::kProxy);
    proxy->main = {proxy, RPC_PORT_PORT_MAIN};
    proxy->callback = {proxy, RPC_PORT_PORT_CALLBACK};
    state().ports[&proxy->main] = &proxy->main;
    state().ports[&proxy->callback] = &proxy->callback;
    state().proxies.push_back(proxy);
    *h = proxy;
    return 0;
  });
}

int rpc_port_proxy_destroy(rpc_port_proxy_h h) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  const Step step = BeginRelease(kFunction, h);
  return Perform(kFunction, step, [&] {
    return Destroy(kFunction, h, Kind::kProxy) != nullptr ? 0 : fake::kInvalidParameter;
  });
}

int rpc_port_proxy_connect(rpc_port_proxy_h h, const char* appid, const char* port) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  {
    const Guard guard;
    if (auto* const proxy = Find<ProxyObject>(kFunction, h, Kind::kProxy)) {
      proxy->target = appid != nullptr ? appid : "";
      proxy->port_name = port != nullptr ? port : "";
    }
  }
  const Step step = Begin(kFunction, Name(h) + ", " + Quote(appid) + ", " + Quote(port));
  return Perform(kFunction, step, [] { return 0; });
}

int rpc_port_proxy_add_connected_event_cb(rpc_port_proxy_h h, rpc_port_proxy_connected_event_cb cb,
                                          void* data) {
  const fake::internal::Inside inside;
  return AddCallback(__func__, h, cb, data, &ProxyObject::connected_callbacks);
}

int rpc_port_proxy_add_disconnected_event_cb(rpc_port_proxy_h h,
                                             rpc_port_proxy_disconnected_event_cb cb, void* data) {
  const fake::internal::Inside inside;
  return AddCallback(__func__, h, cb, data, &ProxyObject::disconnected_callbacks);
}

int rpc_port_proxy_add_rejected_event_cb(rpc_port_proxy_h h, rpc_port_proxy_rejected_event_cb cb,
                                         void* data) {
  const fake::internal::Inside inside;
  return AddCallback(__func__, h, cb, data, &ProxyObject::rejected_callbacks);
}

int rpc_port_proxy_add_received_event_cb(rpc_port_proxy_h h, rpc_port_proxy_received_event_cb cb,
                                         void* data) {
  const fake::internal::Inside inside;
  return AddCallback(__func__, h, cb, data, &ProxyObject::received_callbacks);
}

int rpc_port_proxy_get_port(rpc_port_proxy_h h, rpc_port_port_type_e type, rpc_port_h* port) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  const Step step = Begin(kFunction, Name(h) + ", " + std::to_string(static_cast<int>(type)));
  return Perform(kFunction, step, port, [&] {
    const Guard guard;
    auto* const proxy = Find<ProxyObject>(kFunction, h, Kind::kProxy);
    if (proxy == nullptr || port == nullptr) return fake::kInvalidParameter;
    if (!proxy->connected) return fake::kIoError;
    *port = type == RPC_PORT_PORT_MAIN ? &proxy->main : &proxy->callback;
    return 0;
  });
}

/* Server side: recorded, and nothing else. */

int rpc_port_stub_create(rpc_port_stub_h* h, const char* port_name) {
  const fake::internal::Inside inside;
  const Step step = Begin(__func__, Quote(port_name));
  return Perform(__func__, step, h, [&] {
    *h = Adopt<Object>(Kind::kStub);
    return 0;
  });
}

int rpc_port_stub_destroy(rpc_port_stub_h h) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  const Step step = Begin(kFunction, Name(h));
  return Perform(kFunction, step, [&] {
    return Destroy(kFunction, h, Kind::kStub) != nullptr ? 0 : fake::kInvalidParameter;
  });
}

int rpc_port_stub_listen(rpc_port_stub_h h) {
  const fake::internal::Inside inside;
  return WithStub(__func__, h);
}

int rpc_port_stub_add_connected_event_cb(rpc_port_stub_h h, rpc_port_stub_connected_event_cb,
                                         void*) {
  const fake::internal::Inside inside;
  return WithStub(__func__, h);
}

int rpc_port_stub_add_disconnected_event_cb(rpc_port_stub_h h, rpc_port_stub_disconnected_event_cb,
                                            void*) {
  const fake::internal::Inside inside;
  return WithStub(__func__, h);
}

int rpc_port_stub_add_received_event_cb(rpc_port_stub_h h, rpc_port_stub_received_event_cb, void*) {
  const fake::internal::Inside inside;
  return WithStub(__func__, h);
}

int rpc_port_stub_get_port(rpc_port_stub_h h, rpc_port_port_type_e, const char*, rpc_port_h* port) {
  const fake::internal::Inside inside;
  const Step step = Begin(__func__, Name(h));
  return Perform(__func__, step, port, [] { return fake::kIoError; });
}
