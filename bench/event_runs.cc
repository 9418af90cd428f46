// SPDX-License-Identifier: Apache-2.0
// An event on its way from the process that publishes it to the application's callback in another
// one, many times in a row:
//
//     event_runs library|limit TIMES
//
// prints the nanoseconds of each time, from the moment before it is published. `library` needs a
// session bus, over which the agent's own function publishes what the library subscribes to;
// `limit` is a socket between two processes, and nothing else.

#include <app_event.h>
#include <app_event_desktop.h>
#include <bundle.h>
#include <glib-unix.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <velmora_svcmgr.h>

#include <array>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "bench_world.h"
#include "times.h"

namespace {

// What an event of the library holds: name of the package, of the event and its data.
constexpr std::size_t kEventSize = 128;

// ---- The publisher ------------------------------------------------------------------------------

// When the last event was published; both processes have it.
Clock::time_point* published = nullptr;

struct Sockets {
  int orders;  // a byte for each event that is wanted
  int events;  // of the limit
};

template <typename Publish>
[[noreturn]] void PublishForEver(int orders, Publish publish) {
  for (char order = 0; recv(orders, &order, 1, 0) == 1;) {
    *published = Clock::now();
    publish();
  }
  _exit(0);
}

[[noreturn]] void PublishOverTheBus(int orders) {
  Require(event_desktop_own_package(AGENT_PACKAGE_ID) == 0, "have the agent's name on the bus");
  bundle* const data = bundle_create();
  std::array agents = {AGENT_PACKAGE_ID};
  bundle_add_str_array(data, "Start", agents.data(), static_cast<int>(agents.size()));
  PublishForEver(orders, [data] {
    Require(event_publish_app_event("event." AGENT_PACKAGE_ID ".update_status", data) == 0,
            "publish");
  });
}

[[noreturn]] void PublishOverASocket(int orders, int events) {
  const std::array<char, kEventSize> event = {};
  PublishForEver(orders, [&] {
    Require(send(events, event.data(), event.size(), 0) == kEventSize, "send an event");
  });
}

// Before the first use of GLib. The child ends with this process.
Sockets StartPublisher(bool over_the_bus) {
  int orders[2];
  int events[2];
  Require(socketpair(AF_UNIX, SOCK_STREAM, 0, orders) == 0 &&
              socketpair(AF_UNIX, SOCK_STREAM, 0, events) == 0,
          "make sockets");
  void* const memory =
      mmap(nullptr, sizeof *published, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  Require(memory != MAP_FAILED, "share memory");
  published = new (memory) Clock::time_point();
  const pid_t pid = fork();
  Require(pid >= 0, "start a publisher");
  if (pid == 0) {
    close(orders[0]);
    close(events[0]);
    over_the_bus ? PublishOverTheBus(orders[1]) : PublishOverASocket(orders[1], events[1]);
  }
  close(orders[1]);
  close(events[1]);
  return {orders[0], events[0]};
}

// ---- The subscriber -----------------------------------------------------------------------------

class Subscriber {
 public:
  Subscriber(int orders, std::size_t times) : orders_(orders), times_(times) {}

  void Arrive() { arrived_ = Clock::now(); }

  void Run() {
    for (Clock::duration& time : times_) {
      arrived_ = {};
      Require(send(orders_, "", 1, 0) == 1, "order an event");
      while (arrived_ == Clock::time_point()) g_main_context_iteration(nullptr, TRUE);
      time = arrived_ - *published;
    }
    PrintTimes(times_);
  }

 private:
  int orders_;
  Clock::time_point arrived_;
  std::vector<Clock::duration> times_;
};

void OnStatus(int, void* subscriber) { static_cast<Subscriber*>(subscriber)->Arrive(); }

void SubscribeToTheLibrary(Subscriber* subscriber) {
  Require(velmora_svcmgr_set_update_status_cb(OnStatus, subscriber) == 0 &&
              event_desktop_await_subscriptions() == 0,
          "subscribe");
}

gboolean OnEvent(gint fd, GIOCondition, gpointer subscriber) {
  std::array<char, kEventSize> event;
  Require(recv(fd, event.data(), event.size(), 0) == kEventSize, "receive an event");
  static_cast<Subscriber*>(subscriber)->Arrive();
  return G_SOURCE_CONTINUE;
}

void SubscribeToASocket(int events, Subscriber* subscriber) {
  GSource* const source = g_unix_fd_source_new(events, G_IO_IN);
  g_source_set_can_recurse(source, TRUE);
  g_source_set_callback(source, G_SOURCE_FUNC(OnEvent), subscriber, nullptr);
  g_source_attach(source, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string side = argc == 3 ? argv[1] : "";
  if (side != "library" && side != "limit") {
    std::fprintf(stderr, "usage: %s library|limit TIMES\n", argv[0]);
    return 2;
  }
  const BenchWorld world;
  const Sockets sockets = StartPublisher(side == "library");
  Subscriber subscriber(sockets.orders, std::strtoul(argv[2], nullptr, 10));
  side == "library" ? SubscribeToTheLibrary(&subscriber)
                    : SubscribeToASocket(sockets.events, &subscriber);
  subscriber.Run();
  return 0;
}
