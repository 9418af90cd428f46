// SPDX-License-Identifier: Apache-2.0
// GDBus, as gdbus-example-server and gdbus-example-peer of its manual do it: registered objects in a
// GLib main loop, synchronous calls.
//
//     gdbus_peer daemon|direct int32|licence|models QUERIES MODELS    see query_runs.h
//     gdbus_peer daemon event TIMES 0

#include <gio/gio.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "bench_world.h"
#include "peer_runs.h"
#include "query_runs.h"

namespace {

using Ready = std::function<void()>;

constexpr char kName[] = "com.example.Peer";
constexpr char kPath[] = "/com/example/Peer";
constexpr char kInterface[] = "com.example.Peer";
constexpr char kSignal[] = "Event";
constexpr char kXml[] = R"(
  <node>
    <interface name='com.example.Peer'>
      <method name='Int32'><arg type='i' direction='out'/></method>
      <method name='Licence'><arg type='s' direction='out'/></method>
      <method name='Models'><arg type='a(ssss)' direction='out'/></method>
    </interface>
  </node>)";

void Check(const GError* error, const char* what) {
  if (error != nullptr) std::fprintf(stderr, "%s\n", error->message);
  Require(error == nullptr, what);
}

// ---- The server ---------------------------------------------------------------------------------

// Made once: a value may be sent any number of times.
struct Answers {
  GVariant* level;
  GVariant* licence;
  GVariant* models;

  explicit Answers(int count) {
    level = g_variant_ref_sink(g_variant_new("(i)", kLevel));
    licence = g_variant_ref_sink(g_variant_new("(s)", TextOfLicence().c_str()));
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a(ssss)"));
    for (const ModelTexts& model : TextsOfModels(count)) {
      g_variant_builder_add(&builder, "(ssss)", model.id.c_str(), model.version.c_str(),
                            model.title.c_str(), model.description.c_str());
    }
    models = g_variant_ref_sink(g_variant_new("(a(ssss))", &builder));
  }
};

void OnCall(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method,
            GVariant*, GDBusMethodInvocation* call, gpointer data) {
  const Answers& answers = *static_cast<const Answers*>(data);
  GVariant* answer = answers.models;
  if (g_str_equal(method, "Int32")) answer = answers.level;
  if (g_str_equal(method, "Licence")) answer = answers.licence;
  g_dbus_method_invocation_return_value(call, answer);
}

void Register(GDBusConnection* connection, Answers* answers) {
  static GDBusNodeInfo* const node = g_dbus_node_info_new_for_xml(kXml, nullptr);
  static const GDBusInterfaceVTable table = {OnCall, nullptr, nullptr, {}};
  GError* error = nullptr;
  g_dbus_connection_register_object(connection, kPath, node->interfaces[0], &table, answers,
                                    nullptr, &error);
  Check(error, "register an object");
}

void OnName(GDBusConnection*, const gchar*, gpointer ready) {
  (*static_cast<const Ready*>(ready))();
}

gboolean OnNewConnection(GDBusServer*, GDBusConnection* connection, gpointer answers) {
  g_object_ref(connection);
  Register(connection, static_cast<Answers*>(answers));
  return TRUE;
}

GDBusConnection* OpenBus() {
  GError* error = nullptr;
  GDBusConnection* const bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
  Check(error, "open the bus");
  return bus;
}

void ServeBus(Answers* answers, const Ready& ready) {
  GDBusConnection* const bus = OpenBus();
  Register(bus, answers);
  g_bus_own_name_on_connection(bus, kName, G_BUS_NAME_OWNER_FLAGS_NONE, OnName, nullptr,
                               const_cast<Ready*>(&ready), nullptr);
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}

void ServeAddress(const std::string& address, Answers* answers, const Ready& ready) {
  gchar* const guid = g_dbus_generate_guid();
  GError* error = nullptr;
  GDBusServer* const server = g_dbus_server_new_sync(address.c_str(), G_DBUS_SERVER_FLAGS_NONE,
                                                     guid, nullptr, nullptr, &error);
  Check(error, "listen");
  g_signal_connect(server, "new-connection", G_CALLBACK(OnNewConnection), answers);
  g_dbus_server_start(server);
  ready();
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}

// ---- The client ---------------------------------------------------------------------------------

class Client {
 public:
  Client(GDBusConnection* connection, const char* name) : connection_(connection), name_(name) {}

  int AskInt32() const {
    GVariant* const reply = Call("Int32", "(i)");
    gint32 number = 0;
    g_variant_get(reply, "(i)", &number);
    g_variant_unref(reply);
    return number;
  }

  std::string AskLicence() const {
    GVariant* const reply = Call("Licence", "(s)");
    const gchar* text = nullptr;
    g_variant_get(reply, "(&s)", &text);
    std::string licence = text;
    g_variant_unref(reply);
    return licence;
  }

  ModelTextsList AskModels() const {
    GVariant* const reply = Call("Models", "(a(ssss))");
    GVariantIter* models = nullptr;
    g_variant_get(reply, "(a(ssss))", &models);
    ModelTextsList list;
    list.reserve(g_variant_iter_n_children(models));
    const gchar *id, *version, *title, *description;
    while (g_variant_iter_loop(models, "(&s&s&s&s)", &id, &version, &title, &description)) {
      list.push_back({id, version, title, description});
    }
    g_variant_iter_free(models);
    g_variant_unref(reply);
    return list;
  }

 private:
  GVariant* Call(const char* method, const char* type) const {
    GError* error = nullptr;
    GVariant* const reply = g_dbus_connection_call_sync(
        connection_, name_, kPath, kInterface, method, nullptr, G_VARIANT_TYPE(type),
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    Check(error, "call");
    return reply;
  }

  GDBusConnection* connection_;
  const char* name_;  // on the bus; null: there is none
};

void RunByDaemon(const QueryRuns& runs) {
  const PeerServer server([&](const Ready& ready) {
    Answers answers(runs.models);
    ServeBus(&answers, ready);
  });
  RunKind(runs, Client(OpenBus(), kName), ChecksumOfModels);
}

void RunDirectly(const QueryRuns& runs) {
  const SocketFolder folder;
  const std::string address = "unix:path=" + folder.socket();
  const PeerServer server([&](const Ready& ready) {
    Answers answers(runs.models);
    ServeAddress(address, &answers, ready);
  });
  GError* error = nullptr;
  GDBusConnection* const connection = g_dbus_connection_new_for_address_sync(
      address.c_str(), G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT, nullptr, nullptr, &error);
  Check(error, "connect");
  RunKind(runs, Client(connection, nullptr), ChecksumOfModels);
}

// ---- Events -------------------------------------------------------------------------------------

GVariant* EventParameters() {
  const std::string data = EventData();
  return g_variant_new("(s@ay)", kEventName,
                       g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, data.data(), data.size(), 1));
}

void OnSignal(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
              GVariant* parameters, gpointer times) {
  const gchar* name = nullptr;
  GVariant* array = nullptr;
  g_variant_get(parameters, "(&s@ay)", &name, &array);
  gsize size = 0;
  const void* const data = g_variant_get_fixed_array(array, &size, 1);
  static_cast<EventTimes*>(times)->Arrived(name, data, size);
  g_variant_unref(array);
}

std::function<void()> ConnectSender() {
  return [bus = OpenBus()] {
    GError* error = nullptr;
    g_dbus_connection_emit_signal(bus, nullptr, kPath, kInterface, kSignal, EventParameters(),
                                  &error);
    Check(error, "send a signal");
  };
}

void RunEvents(std::size_t count) {
  EventTimes times(ConnectSender);
  GDBusConnection* const bus = OpenBus();
  g_dbus_connection_signal_subscribe(bus, nullptr, kInterface, kSignal, kPath, nullptr,
                                     G_DBUS_SIGNAL_FLAGS_NONE, OnSignal, &times, nullptr);
  // What the bus answers now, it answers after it has heard of the subscription.
  GError* error = nullptr;
  g_variant_unref(g_dbus_connection_call_sync(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                              "org.freedesktop.DBus", "GetId", nullptr, nullptr,
                                              G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error));
  Check(error, "subscribe");
  times.Measure(count, [] { g_main_context_iteration(nullptr, TRUE); });
}

}  // namespace

int main(int argc, char** argv) {
  return RunBusPeer(argc, argv,
                    {.by_daemon = RunByDaemon, .directly = RunDirectly, .events = RunEvents});
}
