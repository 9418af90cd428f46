// SPDX-License-Identifier: Apache-2.0
// A bus that exists but does not answer: nobody may have to wait for it.

#include <app_event.h>
#include <app_event_desktop.h>
#include <dlfcn.h>
#include <dlog.h>
#include <glib.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

#include "private_bus.h"
#include "support/fake_bus.h"

using testing::ContainsRegex;
using testing::ElementsAre;

namespace {

// How often the bus has been waited for in vain.
int waits_in_vain = 0;

}  // namespace

// What sd-bus waits with.
#pragma GCC visibility push(default)
extern "C" int ppoll(pollfd* polled, nfds_t count, const timespec* limit, const sigset_t* mask) {
  static const auto next = reinterpret_cast<decltype(&ppoll)>(dlsym(RTLD_NEXT, "ppoll"));
  const int result = next(polled, count, limit, mask);
  if (result == 0 && limit && (limit->tv_sec > 0 || limit->tv_nsec > 0)) ++waits_in_vain;
  return result;
}
#pragma GCC visibility pop

namespace {

constexpr char kStatus[] = "event.com.example.agent.status";
constexpr char kOther[] = "event.com.example.agent.other";
constexpr char kElsewhere[] = "event.com.example.other.status";

// Far longer than anything here takes, and far shorter than a wait without a limit.
constexpr std::chrono::seconds kSoon(60);

using Texts = std::vector<std::string>;

void Record(const char*, bundle* data, void* texts) {
  char* text = nullptr;
  bundle_get_str(data, "key", &text);
  static_cast<Texts*>(texts)->push_back(text ? text : "(none)");
}

class ASilentBus : public testing::Test {
 protected:
  ASilentBus() { setenv("VELMORA_LOG_FILE", log_.c_str(), 1); }
  ~ASilentBus() override {
    EXPECT_LT(std::chrono::steady_clock::now() - begin_, kSoon);
    std::filesystem::remove(log_);
  }

  event_handler_h Subscribe(const char* name) {
    event_handler_h handler = nullptr;
    EXPECT_EQ(event_add_event_handler(name, Record, &texts_, &handler), 0) << name;
    return handler;
  }
  void WaitForEvents(size_t count) {
    RunUntil([&] { return texts_.size() >= count; });
  }
  std::string Log() const {
    // An error record takes what was logged before it to the file.
    dlog_print(DLOG_ERROR, "TEST", "so far");
    std::ifstream file(log_);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  const std::string log_ = testing::TempDir() + "/silent-bus-" + std::to_string(getpid()) + ".log";
  Texts texts_;
};

class AStoppedBus : public ASilentBus {
 protected:
  // Subscribes while the bus still answers.
  void SubscribeBefore(const char* name) {
    Subscribe(name);
    AwaitSubscriptions();
  }

  PrivateBus bus_;
};

TEST_F(AStoppedBus, KeepsNoSubscriberWaiting) {
  bus_.Stop();
  std::vector<event_handler_h> handlers;
  for (int i = 0; i < 1000; ++i) {
    handlers.push_back(Subscribe(("event.com.example.a" + std::to_string(i) + ".status").c_str()));
  }
  RunUntil([&] { return Log().find("The session bus does not answer") != std::string::npos; });
  EXPECT_THAT(Log(),
              ContainsRegex(" W APP_EVENT [0-9]+: The session bus does not answer: there are "
                            "no events until then\n"));
  for (const event_handler_h handler : handlers) EXPECT_EQ(event_remove_event_handler(handler), 0);
}

TEST_F(AStoppedBus, IsWaitedForByWhoeverAsksThatNoEventBeMissed) {
  bus_.Stop();
  Subscribe(kStatus);
  std::thread continuing([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    bus_.Continue();
  });
  EXPECT_EQ(event_desktop_await_subscriptions(), 0);
  continuing.join();
}

TEST_F(AStoppedBus, KeepsNoSubscriberWaitingOnAConnectionThatStands) {
  SubscribeBefore(kStatus);
  bus_.Stop();
  Subscribe(kOther);
  Subscribe(kElsewhere);
  for (int i = 0; i < 10; ++i) Subscribe(("event.com.example.a.s" + std::to_string(i)).c_str());
  bus_.Continue();
  ASSERT_EQ(PublishHere(kElsewhere, "one"), 0);
  WaitForEvents(1);
  ASSERT_EQ(PublishHere(kOther, "two"), 0);
  WaitForEvents(2);
  ASSERT_EQ(PublishHere(kStatus, "three"), 0);
  WaitForEvents(3);
  EXPECT_THAT(texts_, ElementsAre("one", "two", "three"));
}

TEST_F(AStoppedBus, KeepsOneCallWaitingUntilItSpeaksAgain) {
  SubscribeBefore(kStatus);
  bus_.Stop();
  const int before = waits_in_vain;
  Subscribe(kOther);
  EXPECT_EQ(waits_in_vain, before + 1);
  for (int i = 0; i < 10; ++i) Subscribe(("event.com.example.a.s" + std::to_string(i)).c_str());
  EXPECT_EQ(PublishHere(kStatus, "one"), 0);
  EXPECT_EQ(waits_in_vain, before + 1);
  bus_.Continue();
  WaitForEvents(1);
  bus_.Stop();
  Subscribe(kElsewhere);
  EXPECT_EQ(waits_in_vain, before + 2);
}

TEST_F(AStoppedBus, SendsTheEventsOfASubscriptionOnceItGoesOn) {
  bus_.Stop();
  Subscribe(kStatus);
  bus_.Continue();
  // After the subscription, on the same connection.
  ASSERT_EQ(PublishHere(kStatus, "one"), 0);
  WaitForEvents(1);
  EXPECT_THAT(texts_, ElementsAre("one"));
}

TEST_F(AStoppedBus, SendsTheEventsOfAnotherProcessOnceItGoesOn) {
  bus_.Stop();
  Subscribe(kStatus);
  bus_.Continue();
  Publisher publisher;
  publisher.PublishUntil(kStatus, [&] { return !texts_.empty(); });
}

// Its predecessor may have ended meanwhile, and the end of a port shows behind other sources.
TEST_F(AStoppedBus, SendsTheEventsOfAPublisherThatItNamesLateBehindTheEndOfPorts) {
  SubscribeBefore(kStatus);
  RawClient publisher;
  ASSERT_TRUE(publisher.OwnName("com.example.other"));
  bus_.Stop();
  Subscribe(kElsewhere);
  bus_.Continue();
  EXPECT_NE(publisher.OwnerOf("com.example.other"), "");
  EXPECT_NE(publisher.OwnerOf("com.example.other"), "");
  publisher.SendEvent(kElsewhere, std::string("key\0\0\0\0\0late\0\0s\4\20", 17), nullptr);
  const guint endless = g_idle_add_full(
      G_PRIORITY_DEFAULT + 1, [](void*) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr,
      nullptr);
  const int read = ReadDescriptors();
  RunUntil([&] { return ReadDescriptors() == read - 1 || !texts_.empty(); });
  EXPECT_THAT(texts_, testing::IsEmpty());
  g_source_remove(endless);
  WaitForEvents(1);
  EXPECT_THAT(texts_, ElementsAre("late"));
}

TEST_F(AStoppedBus, DoesNotStopTheMainLoop) {
  SubscribeBefore(kStatus);
  bus_.Stop();
  const event_handler_h handler = Subscribe(kOther);
  for (int i = 0; i < 100; ++i) g_main_context_iteration(nullptr, FALSE);
  EXPECT_EQ(event_remove_event_handler(handler), 0);
  for (int i = 0; i < 100; ++i) g_main_context_iteration(nullptr, FALSE);
}

TEST_F(AStoppedBus, TakesWhatWasPublishedOnceItGoesOn) {
  SubscribeBefore(kStatus);
  bus_.Stop();
  EXPECT_EQ(PublishHere(kStatus, "one"), 0);
  const std::string large(1000000, 'x');
  for (int i = 0; i < 10; ++i) EXPECT_EQ(PublishHere(kStatus, large.c_str()), 0);
  bus_.Continue();
  WaitForEvents(11);
  EXPECT_EQ(texts_.front(), "one");
  EXPECT_EQ(texts_.back(), large);
}

TEST_F(AStoppedBus, IsNotSentMoreThanCanBeKept) {
  bus_.Stop();
  const std::string large(1000000, 'x');
  int taken = 0;
  while (taken < 200 && PublishHere(kStatus, large.c_str()) == 0) ++taken;
  EXPECT_EQ(taken, 67);  // 64 MiB
  EXPECT_EQ(PublishHere(kStatus, large.c_str()), -5);
}

TEST_F(AStoppedBus, TellsLateThatANameIsAnothers) {
  SubscribeBefore(kStatus);
  Publisher publisher;
  ASSERT_EQ(publisher.Publish(kStatus, "key", "genuine"), 0);
  bus_.Stop();
  EXPECT_EQ(PublishHere(kStatus, "not mine"), 0);
  EXPECT_EQ(event_desktop_own_package("com.example.agent"), -110);
  bus_.Continue();
  RunUntil([&] { return Log().find("another process owns") != std::string::npos; });
  EXPECT_THAT(Log(), ContainsRegex(" E APP_EVENT [0-9]+: Published events are dropped: another "
                                   "process owns the package's name on the session bus\n"));
  EXPECT_EQ(PublishHere(kStatus, "not mine"), -13);
  ASSERT_EQ(publisher.Publish(kStatus, "key", "end"), 0);
  WaitForEvents(2);
  EXPECT_THAT(texts_, ElementsAre("genuine", "end"));
}

class ABusThatNeverGreets : public ASilentBus {
 protected:
  ABusThatNeverGreets() { setenv("DBUS_SESSION_BUS_ADDRESS", bus_.address().c_str(), 1); }

  FakeBus bus_;
};

TEST_F(ABusThatNeverGreets, KeepsNobodyWaitingAndNothingOpen) {
  const int before = PolledDescriptors();
  const event_handler_h first = Subscribe(kStatus);
  const event_handler_h second = Subscribe(kOther);
  for (int i = 0; i < 100; ++i) g_main_context_iteration(nullptr, FALSE);
  EXPECT_EQ(event_remove_event_handler(first), 0);
  EXPECT_EQ(event_remove_event_handler(second), 0);
  EXPECT_EQ(PolledDescriptors(), before);
  EXPECT_EQ(event_desktop_own_package("com.example.agent"), -110);
  EXPECT_EQ(PublishHere(kStatus, "one"), 0);
}

// So many wait to be accepted that one more is turned away.
TEST(ABusThatTakesNobody, IsAskedAgain) {
  std::string path;
  {
    PrivateBus gone;
    path = gone.folder() / "bus";
  }
  std::filesystem::create_directory(std::filesystem::path(path).parent_path());
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener, 0), 0);
  std::vector<int> waiting;
  do {
    waiting.push_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  } while (connect(waiting.back(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0);
  Texts texts;
  event_handler_h handler = nullptr;
  EXPECT_EQ(event_add_event_handler(kStatus, Record, &texts, &handler), 0);
  close(listener);
  for (const int fd : waiting) close(fd);
  std::filesystem::remove_all(std::filesystem::path(path).parent_path());
  PrivateBus bus;
  // The subscription is for whatever bus there is.
  ASSERT_EQ(PublishHere(kStatus, "one"), 0);
  RunUntil([&] { return !texts.empty(); });
  EXPECT_EQ(event_remove_event_handler(handler), 0);
}

}  // namespace
