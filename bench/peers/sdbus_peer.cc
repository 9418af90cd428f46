// SPDX-License-Identifier: Apache-2.0
// sd-bus, as its manual pages do it: an object's table, sd_bus_process and sd_bus_wait in turns, and
// synchronous calls.
//
//     sdbus_peer daemon|direct int32|licence|models QUERIES MODELS    see query_runs.h
//     sdbus_peer daemon event TIMES 0

#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-id128.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
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

int Check(int result, const char* what) {
  if (result < 0) std::fprintf(stderr, "%s\n", std::strerror(-result));
  Require(result >= 0, what);
  return result;
}

sd_bus* OpenBus() {
  sd_bus* bus = nullptr;
  Check(sd_bus_open_user(&bus), "open the bus");
  return bus;
}

// ---- The server ---------------------------------------------------------------------------------

struct Answers {
  std::string licence = TextOfLicence();
  ModelTextsList models;
};

int OnInt32(sd_bus_message* call, void*, sd_bus_error*) {
  return sd_bus_reply_method_return(call, "i", kLevel);
}

int OnLicence(sd_bus_message* call, void* answers, sd_bus_error*) {
  return sd_bus_reply_method_return(call, "s", static_cast<Answers*>(answers)->licence.c_str());
}

int OnModels(sd_bus_message* call, void* answers, sd_bus_error*) {
  sd_bus_message* reply = nullptr;
  Check(sd_bus_message_new_method_return(call, &reply), "make a reply");
  Check(sd_bus_message_open_container(reply, 'a', "(ssss)"), "make a reply");
  for (const ModelTexts& model : static_cast<Answers*>(answers)->models) {
    Check(sd_bus_message_append(reply, "(ssss)", model.id.c_str(), model.version.c_str(),
                                model.title.c_str(), model.description.c_str()),
          "make a reply");
  }
  Check(sd_bus_message_close_container(reply), "make a reply");
  const int sent = sd_bus_send(nullptr, reply, nullptr);
  sd_bus_message_unref(reply);
  return sent;
}

const sd_bus_vtable kTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Int32", "", "i", OnInt32, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Licence", "", "s", OnLicence, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Models", "", "a(ssss)", OnModels, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

// One turn: a message, or the wait for one.
void Turn(sd_bus* bus) {
  if (Check(sd_bus_process(bus, nullptr), "process") > 0) return;
  Check(sd_bus_wait(bus, UINT64_MAX), "wait");
}

void Serve(sd_bus* bus, Answers* answers, const Ready& ready) {
  Check(sd_bus_add_object_vtable(bus, nullptr, kPath, kInterface, kTable, answers),
        "add an object");
  ready();
  for (;;) Turn(bus);
}

// ---- The client ---------------------------------------------------------------------------------

class Client {
 public:
  Client(sd_bus* bus, const char* name) : bus_(bus), name_(name) {}

  int AskInt32() const {
    sd_bus_message* const reply = Call("Int32");
    std::int32_t number = 0;
    Check(sd_bus_message_read(reply, "i", &number), "read a number");
    sd_bus_message_unref(reply);
    return number;
  }

  std::string AskLicence() const {
    sd_bus_message* const reply = Call("Licence");
    const char* text = nullptr;
    Check(sd_bus_message_read(reply, "s", &text), "read a text");
    std::string licence = text;
    sd_bus_message_unref(reply);
    return licence;
  }

  ModelTextsList AskModels() const {
    sd_bus_message* const reply = Call("Models");
    Check(sd_bus_message_enter_container(reply, 'a', "(ssss)"), "read a list");
    ModelTextsList list;
    const char *id, *version, *title, *description;
    while (Check(sd_bus_message_read(reply, "(ssss)", &id, &version, &title, &description),
                 "read a model") > 0) {
      list.push_back({id, version, title, description});
    }
    Check(sd_bus_message_exit_container(reply), "read a list");
    sd_bus_message_unref(reply);
    return list;
  }

 private:
  sd_bus_message* Call(const char* method) const {
    sd_bus_message* reply = nullptr;
    Check(sd_bus_call_method(bus_, name_, kPath, kInterface, method, nullptr, &reply, ""), "call");
    return reply;
  }

  sd_bus* bus_;
  const char* name_;  // on the bus; null: there is none
};

void RunByDaemon(const QueryRuns& runs) {
  const PeerServer server([&](const Ready& ready) {
    Answers answers{.models = TextsOfModels(runs.models)};
    sd_bus* const bus = OpenBus();
    Check(sd_bus_request_name(bus, kName, 0), "own a name");
    Serve(bus, &answers, ready);
  });
  RunKind(runs, Client(OpenBus(), kName), ChecksumOfModels);
}

void RunDirectly(const QueryRuns& runs) {
  int ends[2];
  Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "make a socket");
  const PeerServer server([&](const Ready& ready) {
    close(ends[0]);
    Answers answers{.models = TextsOfModels(runs.models)};
    sd_bus* bus = nullptr;
    sd_id128_t id;
    Check(sd_bus_new(&bus), "make a connection");
    Check(sd_id128_randomize(&id), "make an ID");
    Check(sd_bus_set_server(bus, 1, id), "be a server");
    Check(sd_bus_set_fd(bus, ends[1], ends[1]), "use a socket");
    Check(sd_bus_start(bus), "serve");
    Serve(bus, &answers, ready);
  });
  close(ends[1]);
  sd_bus* bus = nullptr;
  Check(sd_bus_new(&bus), "make a connection");
  Check(sd_bus_set_fd(bus, ends[0], ends[0]), "use a socket");
  Check(sd_bus_start(bus), "connect");
  RunKind(runs, Client(bus, nullptr), ChecksumOfModels);
}

// ---- Events -------------------------------------------------------------------------------------

int OnSignal(sd_bus_message* signal, void* times, sd_bus_error*) {
  const char* name = nullptr;
  const void* data = nullptr;
  std::size_t size = 0;
  Check(sd_bus_message_read(signal, "s", &name), "read a name");
  Check(sd_bus_message_read_array(signal, 'y', &data, &size), "read data");
  static_cast<EventTimes*>(times)->Arrived(name, data, size);
  return 0;
}

std::function<void()> ConnectSender() {
  sd_bus* const bus = OpenBus();
  Check(sd_bus_flush(bus),
        "greet the bus");  // what is sent before waits for somebody to process it
  return [bus] {
    const std::string data = EventData();
    sd_bus_message* signal = nullptr;
    Check(sd_bus_message_new_signal(bus, &signal, kPath, kInterface, kSignal), "make a signal");
    Check(sd_bus_message_append(signal, "s", kEventName), "write a name");
    Check(sd_bus_message_append_array(signal, 'y', data.data(), data.size()), "write data");
    Check(sd_bus_send(bus, signal, nullptr), "send a signal");
    sd_bus_message_unref(signal);
  };
}

void RunEvents(std::size_t count) {
  EventTimes times(ConnectSender);
  sd_bus* const bus = OpenBus();
  Check(sd_bus_match_signal(bus, nullptr, nullptr, kPath, kInterface, kSignal, OnSignal, &times),
        "subscribe");
  times.Measure(count, [bus] { Turn(bus); });
}

}  // namespace

int main(int argc, char** argv) {
  return RunBusPeer(argc, argv,
                    {.by_daemon = RunByDaemon, .directly = RunDirectly, .events = RunEvents});
}
