// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_PLATFORM_EVENT_PRIVATE_BUS_H_
#define TESTS_PLATFORM_EVENT_PRIVATE_BUS_H_

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>
#include <systemd/sd-bus.h>

#include <filesystem>
#include <functional>
#include <string>

#include "support/open_descriptors.h"

// A private bus daemon, which the process under test takes for the session's.
class PrivateBus {
 public:
  PrivateBus();
  ~PrivateBus();

  // Kills the daemon; Start brings another one up at the same address.
  void Kill();
  void Start();
  // Suspends the daemon, and resumes it.
  void Stop() { Signal(SIGSTOP); }
  void Continue() { Signal(SIGCONT); }

  const std::filesystem::path& folder() const { return folder_; }

 private:
  void Signal(int signal);

  std::filesystem::path folder_;
  pid_t daemon_ = -1;
};

// A client of the bus that sends what it likes.
class RawClient {
 public:
  RawClient();
  ~RawClient();

  // An event as the platform sends it, but from this client; to everybody if `destination` is null.
  // The bus has passed it on when the call returns.
  void SendEvent(const char* name, const std::string& payload, const char* destination);
  // Claims, to one client, that a name has another owner.
  void SendOwnerChange(const char* id, const char* owner, const char* destination);
  bool OwnName(const char* name) { return sd_bus_request_name(bus_, name, 0) > 0; }
  // Gets the name as soon as its owner gives it up.
  void QueueForName(const char* name) {
    ASSERT_EQ(sd_bus_request_name(bus_, name, SD_BUS_NAME_QUEUE), 0);
  }
  const char* unique_name() const;
  // The unique name that owns a name; empty if there is none.
  std::string OwnerOf(const char* name);
  // The one unique name on the bus besides this client's own.
  std::string OnlyOtherClient();

  sd_bus* get() { return bus_; }

 private:
  void Send(sd_bus_message* message, const char* destination);

  sd_bus* bus_ = nullptr;
};

// Another process that publishes.
class Publisher {
 public:
  Publisher();
  ~Publisher();
  void End();
  // Returns the result of event_publish_app_event there.
  int Publish(const std::string& name, const std::string& key, const std::string& value);
  // Publishes again and again, and runs the main context of this process, until the condition
  // holds.
  void PublishUntil(const std::string& name, const std::function<bool()>& condition);

 private:
  FILE* to_ = nullptr;
  FILE* from_ = nullptr;
  pid_t process_ = -1;
};

// Publishes from this process, with a text under the key "key"; returns the result.
int PublishHere(const char* name, const char* value);

// Runs the default main context until the condition holds; fails the test after a generous time.
void RunUntil(const std::function<bool()>& condition);

// Runs it until the bus has all subscriptions of this process, however long it takes to answer.
void AwaitSubscriptions();

// Number of descriptors that the default main context polls, and of those that it would read.
int PolledDescriptors();
int ReadDescriptors();
// Whether the default main context would look again although nothing happens.
bool LooksAgain();

#endif  // TESTS_PLATFORM_EVENT_PRIVATE_BUS_H_
