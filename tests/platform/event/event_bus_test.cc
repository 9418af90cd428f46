// SPDX-License-Identifier: Apache-2.0
// What becomes of subscriptions when there is no bus, or it goes away.

#include <app_event.h>
#include <app_event_desktop.h>
#include <gmock/gmock.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <memory>
#include <thread>

#include "private_bus.h"

namespace {

constexpr char kStatus[] = "event.com.example.agent.status";
constexpr char kOther[] = "event.com.example.agent.other";

void Count(const char*, bundle*, void* calls) { ++*static_cast<int*>(calls); }

int Publish(const char* name) {
  bundle* data = bundle_create();
  const int result = event_publish_app_event(name, data);
  bundle_free(data);
  return result;
}

// Adding and publishing fail, nothing is handed out, nothing is left open.
void ExpectNoBus() {
  const int before = OpenDescriptors();
  int mark = 0;
  auto* handler = reinterpret_cast<event_handler_h>(&mark);
  EXPECT_EQ(event_add_event_handler(kStatus, Count, nullptr, &handler), -5);
  EXPECT_EQ(handler, reinterpret_cast<event_handler_h>(&mark));
  EXPECT_EQ(Publish(kStatus), -5);
  EXPECT_EQ(event_desktop_own_package("com.example.agent"), -5);
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST(AMissingBus, FailsASubscription) {
  unsetenv("DBUS_SESSION_BUS_ADDRESS");
  unsetenv("XDG_RUNTIME_DIR");
  // The first use makes a main context.
  PolledDescriptors();
  ExpectNoBus();
  setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
  ExpectNoBus();
  setenv("DBUS_SESSION_BUS_ADDRESS", "nonsense", 1);
  ExpectNoBus();
}

TEST(AMissingBus, MayBeAProgramThatSaysNothing) {
  setenv("DBUS_SESSION_BUS_ADDRESS", "unixexec:path=/bin/true", 1);
  event_handler_h handler = nullptr;
  const int first = event_add_event_handler(kStatus, Count, nullptr, &handler);
  EXPECT_THAT(first, testing::AnyOf(0, -5));
  if (first == 0) {
    EXPECT_EQ(event_remove_event_handler(handler), 0);
  }
  setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus;unixexec:path=/bin/true", 1);
  EXPECT_EQ(Publish(kStatus), -5);
}

TEST(AMissingBus, MayBeASocketWhoseOwnerHangsUp) {
  std::string pattern = testing::TempDir() + "/bus-XXXXXX";
  const std::filesystem::path folder = mkdtemp(pattern.data());
  const std::string path = folder / "bus";
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener, 4), 0);
  setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + path).c_str(), 1);
  std::thread owner([listener] {
    for (int client; (client = accept(listener, nullptr, nullptr)) >= 0;) close(client);
  });
  event_handler_h handler = nullptr;
  // A slow machine may need longer than a subscription waits.
  while (event_add_event_handler(kStatus, Count, nullptr, &handler) != -5) {
    EXPECT_EQ(event_remove_event_handler(handler), 0);
  }
  shutdown(listener, SHUT_RDWR);
  owner.join();
  close(listener);
  std::filesystem::remove_all(folder);
}

class ADyingBus : public testing::Test {
 protected:
  void SubscribeTo(const char* name, event_handler_h* handler) {
    ASSERT_EQ(event_add_event_handler(name, Count, &calls_, handler), 0);
  }
  // Ends once an event of the next bus is heard.
  void LoseItAndHearTheNext() {
    event_handler_h handler = nullptr;
    ASSERT_NO_FATAL_FAILURE(SubscribeTo(kStatus, &handler));
    const int with_bus = PolledDescriptors();
    bus_.Kill();
    RunUntil([&] { return PolledDescriptors() < with_bus; });
    bus_.Start();
    // What is sent before the subscriptions are renewed is not heard.
    Publisher publisher;
    publisher.PublishUntil(kStatus, [&] { return calls_ > 0; });
  }

  PrivateBus bus_;
  int calls_ = 0;
};

TEST_F(ADyingBus, LeavesItsSubscribersQuietAndNothingOpen) {
  // The main context opens its own descriptor at its first use.
  const int polled = PolledDescriptors();
  const int before = OpenDescriptors();
  event_handler_h handler = nullptr;
  ASSERT_NO_FATAL_FAILURE(SubscribeTo(kStatus, &handler));
  bus_.Kill();
  RunUntil([&] { return PolledDescriptors() == polled; });
  EXPECT_EQ(OpenDescriptors(), before);
  EXPECT_EQ(calls_, 0);
  EXPECT_EQ(event_remove_event_handler(handler), 0);
}

TEST_F(ADyingBus, FailsASubscriptionUntilThereIsAnother) {
  event_handler_h first = nullptr;
  event_handler_h second = nullptr;
  ASSERT_NO_FATAL_FAILURE(SubscribeTo(kStatus, &first));
  bus_.Kill();
  // The main loop has had no chance to notice.
  EXPECT_EQ(event_add_event_handler(kOther, Count, &calls_, &second), -5);
  EXPECT_EQ(Publish(kOther), -5);
  EXPECT_EQ(second, nullptr);
  bus_.Start();
  EXPECT_EQ(event_add_event_handler(kOther, Count, &calls_, &second), 0);
  EXPECT_EQ(Publish(kOther), 0);
  RunUntil([&] { return calls_ == 1; });
  EXPECT_EQ(event_remove_event_handler(first), 0);
  EXPECT_EQ(event_remove_event_handler(second), 0);
}

TEST_F(ADyingBus, IsReplacedByAnotherAtOnceIfThereIsOne) {
  event_handler_h first = nullptr;
  event_handler_h second = nullptr;
  ASSERT_NO_FATAL_FAILURE(SubscribeTo(kStatus, &first));
  bus_.Kill();
  bus_.Start();
  EXPECT_EQ(event_add_event_handler(kOther, Count, &calls_, &second), 0);
  EXPECT_EQ(Publish(kOther), 0);
  RunUntil([&] { return calls_ == 1; });
}

TEST_F(ADyingBus, GivesItsSubscriptionsToItsSuccessor) {
  event_handler_h first = nullptr;
  event_handler_h second = nullptr;
  ASSERT_NO_FATAL_FAILURE(SubscribeTo(kStatus, &first));
  bus_.Kill();
  bus_.Start();
  ASSERT_NO_FATAL_FAILURE(SubscribeTo(kOther, &second));
  EXPECT_EQ(Publish(kStatus), 0);
  RunUntil([&] { return calls_ == 1; });
}

TEST_F(ADyingBus, IsLookedForUntilItReturns) { LoseItAndHearTheNext(); }

TEST_F(ADyingBus, IsSpokenOfInTheLogWhenItGoesAndWhenItHasReturned) {
  setenv("VELMORA_LOG_LEVEL", "info", 1);
  testing::internal::CaptureStderr();
  ASSERT_NO_FATAL_FAILURE(LoseItAndHearTheNext());
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_THAT(log, testing::Not(testing::HasSubstr("refuses")));
  EXPECT_THAT(log, testing::ContainsRegex(
                       " W APP_EVENT [0-9]+: The session bus is gone: there are no events "
                       "until it returns\n.* I APP_EVENT [0-9]+: The session bus sends events\n"));
  EXPECT_FALSE(LooksAgain());
}

TEST_F(ADyingBus, LetsASubscriptionBeRemovedInItsOwnTime) {
  event_handler_h handler = nullptr;
  ASSERT_NO_FATAL_FAILURE(SubscribeTo(kStatus, &handler));
  const int with_bus = PolledDescriptors();
  bus_.Kill();
  EXPECT_EQ(event_remove_event_handler(handler), 0);
  EXPECT_LT(PolledDescriptors(), with_bus);
  EXPECT_EQ(event_remove_event_handler(handler), -22);
}

}  // namespace
