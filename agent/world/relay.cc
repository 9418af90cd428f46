// SPDX-License-Identifier: Apache-2.0
#include "world/relay.h"

#include <app_event_desktop.h>
#include <bundle_desktop.h>
#include <glib.h>
#include <stdlib.h>

#include <chrono>
#include <cstring>
#include <exception>
#include <optional>
#include <thread>
#include <utility>

#include "owned.h"
#include "protocol/messages.h"
#include "service/packages.h"

namespace sim {
namespace {

constexpr char kPort[] = "SvcMgrAppPort";
constexpr int kNotRunning = -5;

std::int64_t Now() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

/** A variable of the environment, for as long as this object lives: the platform asks it each time. */
class Variable {
 public:
  Variable(const char* name, const std::string& value) : name_(name) {
    if (const char* before = getenv(name)) before_ = before;
    setenv(name, value.c_str(), 1);
  }
  ~Variable() {
    if (before_) {
      setenv(name_, before_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;

 private:
  const char* name_;
  std::optional<std::string> before_;
};

using Variant = base::Owned<GVariant, g_variant_unref>;

/** What an event carries, as a step of a scenario has it; nothing if that has no words for it. */
std::optional<Fields> StepOf(const std::string& suffix, bundle* event) {
  unsigned char* bytes = nullptr;
  std::size_t size = 0;
  if (bundle_desktop_encode(event, &bytes, &size) != 0) return std::nullopt;
  const Variant entries(g_variant_ref_sink(
      g_variant_new_from_data(G_VARIANT_TYPE_VARDICT, bytes, size, FALSE, free, bytes)));
  Fields step = {{"broadcast", suffix}};
  GVariantIter next;
  g_variant_iter_init(&next, entries.get());
  const gchar* key = nullptr;
  GVariant* entry = nullptr;
  while (g_variant_iter_next(&next, "{&sv}", &key, &entry)) {
    const Variant value(entry);
    gsize length = 0;
    std::int32_t number = 0;
    if (g_variant_is_of_type(entry, G_VARIANT_TYPE_STRING)) {
      step["texts"][key] = g_variant_get_string(entry, nullptr);
    } else if (g_variant_is_of_type(entry, G_VARIANT_TYPE_STRING_ARRAY)) {
      const base::Owned<const gchar*, g_free> texts(g_variant_get_strv(entry, &length));
      step["lists"][key] = std::vector<std::string>(texts.get(), texts.get() + length);
    } else {
      const void* raw = g_variant_get_fixed_array(entry, &length, 1);
      if (length != sizeof number) return std::nullopt;
      std::memcpy(&number, raw, sizeof number);
      step["numbers"][key] = number;
    }
  }
  return step;
}

}  // namespace

/** A client and its connection to the agent. Replies are read on a thread, because that blocks. */
struct Relay::Link {
  Relay* relay = nullptr;
  std::string sender;
  std::string instance;
  rpc_port_proxy_h proxy = nullptr;
  rpc_port_h main = nullptr;
  enum class State { kConnecting, kConnected, kRefused, kLost } state = State::kConnecting;
  std::thread reader;

  ~Link() {
    if (proxy != nullptr) rpc_port_proxy_destroy(proxy);
    if (reader.joinable()) reader.join();
  }
};

/** A message of the main port on its way from the thread that reads it. */
struct Relay::Arrival {
  Relay* relay;
  std::weak_ptr<Link> link;
  Parcel message;

  static gboolean Deliver(gpointer data) {
    auto* self = static_cast<Arrival*>(data);
    if (const auto link = self->link.lock()) {
      self->relay->recording_.Replied(Now(), link->instance, self->message.Bytes());
      self->relay->PassOn(link->instance, RPC_PORT_PORT_MAIN, self->message);
    }
    return G_SOURCE_REMOVE;
  }
};

Relay::Relay(const std::string& agent, const std::string& folder, Recording& recording)
    : agent_(agent), recording_(recording) {
  Check(rpc_port_stub_create(&stub_, kPort), "cannot make the port");
  rpc_port_desktop_stub_set_admission_cb(stub_, OnAdmission, this);
  rpc_port_stub_add_disconnected_event_cb(stub_, OnClientGone, this);
  rpc_port_stub_add_received_event_cb(stub_, OnRequest, this);
  for (const char* suffix : {"agent_status", "update_status", "model_status"}) Subscribe(suffix);
  if (event_desktop_await_subscriptions() != 0) {
    recording_.Lose("what is published before the session bus answers");
  }
  const Variable own("VELMORA_APP_ID", agent);
  const Variable runtime("VELMORA_RUNTIME_DIR", folder);
  Check(rpc_port_stub_listen(stub_), "cannot listen on the port");
}

Relay::~Relay() {
  for (const event_handler_h each : subscriptions_) event_remove_event_handler(each);
  rpc_port_stub_destroy(stub_);
  links_.clear();
}

// Without a bus there are no events.
void Relay::Subscribe(const char* suffix) {
  event_handler_h handler = nullptr;
  const std::string name = "event." + agent_ + "." + suffix;
  if (event_add_event_handler(name.c_str(), OnEvent, this, &handler) == 0) {
    subscriptions_.push_back(handler);
  }
}

void Relay::OnEvent(const char* name, bundle* event, void* data) {
  auto* self = static_cast<Relay*>(data);
  const std::string suffix = std::string(name).substr(self->agent_.size() + sizeof "event.");
  char* present = nullptr;
  if (suffix == "agent_status" && bundle_get_str(event, "Launch", &present) == 0) {
    self->NoteRestart();  // nobody was connected that could have seen it
  }
  if (auto step = StepOf(suffix, event)) {
    self->recording_.Published(Now(), std::move(*step));
  } else {
    self->recording_.Lose("an event with bytes that are no number");
  }
  if (suffix == "agent_status") self->updating_ = bundle_get_str(event, "Update", &present) == 0;
}

/** The client waits for this answer, and the agent's is known only when the loop has run. */
bool Relay::OnAdmission(const char* sender, const char* instance, void* data) {
  auto* self = static_cast<Relay*>(data);
  try {
    return self->Connect(sender, instance);
  } catch (const std::exception&) {
    self->recording_.Lose("a client that could not be connected");
    return false;
  }
}

bool Relay::Connect(const std::string& sender, const std::string& instance) {
  const auto link = std::make_shared<Link>();
  link->relay = this;
  link->sender = sender;
  link->instance = instance;
  Check(rpc_port_proxy_create(&link->proxy), "cannot make a proxy");
  rpc_port_proxy_add_connected_event_cb(link->proxy, OnConnected, link.get());
  rpc_port_proxy_add_disconnected_event_cb(link->proxy, OnDisconnected, link.get());
  rpc_port_proxy_add_rejected_event_cb(link->proxy, OnRejected, link.get());
  rpc_port_proxy_add_received_event_cb(link->proxy, OnMessage, link.get());
  int result = 0;
  {
    const Variable own("VELMORA_APP_ID", sender);
    result = rpc_port_proxy_connect(link->proxy, agent_.c_str(), kPort);
  }
  if (result == kNotRunning) recording_.NotRunning();
  if (result != 0) return false;
  while (link->state == Link::State::kConnecting) g_main_context_iteration(nullptr, TRUE);
  if (link->state == Link::State::kRefused) recording_.Refused(sender);
  if (link->state != Link::State::kConnected) return false;
  recording_.Connected();
  restarting_ = false;
  links_[instance] = link;
  link->reader = std::thread([this, port = link->main, weak = std::weak_ptr<Link>(link)] {
    try {
      for (;;) {
        auto* arrival = new Arrival{this, weak, Parcel::From(port)};
        g_idle_add_full(G_PRIORITY_DEFAULT, Arrival::Deliver, arrival,
                        [](gpointer each) { delete static_cast<Arrival*>(each); });
      }
    } catch (const std::exception&) {
      // The connection has ended, which its event tells.
    }
  });
  return true;
}

void Relay::OnConnected(const char*, const char*, rpc_port_h port, void* data) {
  auto* link = static_cast<Link*>(data);
  link->main = port;
  link->state = Link::State::kConnected;
}

void Relay::OnRejected(const char*, const char*, void* data) {
  static_cast<Link*>(data)->state = Link::State::kRefused;
}

void Relay::OnDisconnected(const char*, const char*, void* data) {
  auto* link = static_cast<Link*>(data);
  const bool connected = link->state == Link::State::kConnected;
  link->state = Link::State::kLost;
  if (connected) link->relay->LoseAgent(link->instance);
}

void Relay::LoseAgent(const std::string& instance) {
  const auto found = links_.find(instance);
  if (found == links_.end()) return;
  NoteRestart();
  found->second->reader.join();  // with the last reply that has come
  // Behind those replies.
  using Lost = std::pair<Relay*, std::shared_ptr<Link>>;
  auto* const lost = new Lost(this, found->second);
  g_idle_add_full(
      G_PRIORITY_DEFAULT_IDLE,
      [](gpointer data) -> gboolean {
        const auto& [relay, link] = *static_cast<Lost*>(data);
        relay->Unlink(link);
        return G_SOURCE_REMOVE;
      },
      lost, [](gpointer data) { delete static_cast<Lost*>(data); });
}

void Relay::Unlink(const std::shared_ptr<Link>& link) {
  if (links_.erase(link->instance) == 0) return;  // the client has gone meanwhile
  if (!restarting_) recording_.Dropped(Now(), link->instance, link->sender);
  rpc_port_desktop_stub_disconnect(stub_, link->instance.c_str());
}

void Relay::NoteRestart() {
  if (!std::exchange(updating_, false)) return;
  restarting_ = true;
  recording_.Restarted(Now(), InstalledVersion(agent_));
}

void Relay::OnMessage(const char*, const char*, void* data) {
  auto* link = static_cast<Link*>(data);
  rpc_port_h port = nullptr;
  if (rpc_port_proxy_get_port(link->proxy, RPC_PORT_PORT_CALLBACK, &port) != 0) return;
  try {
    const Parcel message = Parcel::From(port);
    link->relay->recording_.Answered(Now(), link->instance, message.Bytes());
    link->relay->PassOn(link->instance, RPC_PORT_PORT_CALLBACK, message);
  } catch (const PlatformError&) {
    link->relay->recording_.Lose("a message of the callback port that cannot be read");
  }
}

void Relay::PassOn(const std::string& instance, rpc_port_port_type_e type, const Parcel& message) {
  rpc_port_h port = nullptr;
  if (rpc_port_stub_get_port(stub_, type, instance.c_str(), &port) == 0) (void)message.Send(port);
}

int Relay::OnRequest(const char*, const char* instance, rpc_port_h port, void* data) {
  auto* self = static_cast<Relay*>(data);
  const auto found = self->links_.find(instance);
  try {
    const Parcel message = Parcel::From(port);
    if (found == self->links_.end()) return -1;
    Parcel read;
    read.SetBytes(message.Bytes());
    self->recording_.Asked(Now(), instance, ReadRequest(read));
    return message.Send(found->second->main) ? 0 : -1;
  } catch (const std::exception&) {
    self->recording_.Lose("a request that cannot be read");
    return -1;
  }
}

void Relay::OnClientGone(const char*, const char* instance, void* data) {
  static_cast<Relay*>(data)->links_.erase(instance);
}

}  // namespace sim
