// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_SUPPORT_FAKE_BUS_H_
#define TESTS_SUPPORT_FAKE_BUS_H_

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

/**
 * Takes the place of a bus: accepts every client, lets it authenticate, and says nothing but what
 * the test makes it say. It runs in a thread of its own.
 */
class FakeBus {
 public:
  /** Gets each message of a client, on the bus's thread; nothing else answers. */
  using Answer = std::function<void(sd_bus* client, sd_bus_message* message)>;

  /** Without `answer` it never greets. */
  explicit FakeBus(Answer answer = nullptr);
  ~FakeBus();
  FakeBus(const FakeBus&) = delete;
  FakeBus& operator=(const FakeBus&) = delete;

  /** As in DBUS_SESSION_BUS_ADDRESS. */
  std::string address() const { return "unix:path=" + folder_ + "/bus"; }

 private:
  static int OnClient(sd_event_source* source, int listener, uint32_t events, void* self);
  static int OnMessage(sd_bus_message* message, void* self, sd_bus_error* error);
  void Serve();

  const Answer answer_;
  std::string folder_;
  int listener_ = -1;
  int end_ = -1;  // readable when the thread is to end
  std::vector<sd_bus*> clients_;
  std::thread thread_;
};

#endif  // TESTS_SUPPORT_FAKE_BUS_H_
