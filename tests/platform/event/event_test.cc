// SPDX-License-Identifier: Apache-2.0
// Subscriptions and publications on a bus that works.

#include <app_event.h>
#include <app_event_desktop.h>
#include <fcntl.h>
#include <glib-unix.h>
#include <gmock/gmock.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <utility>
#include <vector>

#include "private_bus.h"

using testing::ElementsAre;
using testing::Pair;

namespace {

constexpr char kStatus[] = "event.com.example.agent.status";
constexpr char kOther[] = "event.com.example.agent.other";

// The names of the events that came, each with its text under the key "key".
using Events = std::vector<std::pair<std::string, std::string>>;

void Record(const char* name, bundle* data, void* events) {
  char* text = nullptr;
  bundle_get_str(data, "key", &text);
  static_cast<Events*>(events)->emplace_back(name, text ? text : "(none)");
}

class ASubscriber : public testing::Test {
 protected:
  event_handler_h Subscribe(const char* name, event_cb callback, void* user_data) {
    event_handler_h handler = nullptr;
    EXPECT_EQ(event_add_event_handler(name, callback, user_data, &handler), 0) << name;
    AwaitSubscriptions();
    return handler;
  }
  event_handler_h Subscribe(const char* name) { return Subscribe(name, Record, &events_); }

  void WaitForEvents(size_t count) {
    RunUntil([&] { return events_.size() >= count; });
  }

  PrivateBus bus_;
  Events events_;
};
class APublisher : public ASubscriber {};

TEST_F(ASubscriber, GetsTheEventsOfAnotherProcessInTheirOrder) {
  Subscribe(kStatus);
  Publisher publisher;
  for (const char* value : {"one", "two", "three"}) {
    ASSERT_EQ(publisher.Publish(kStatus, "key", value), 0);
  }
  WaitForEvents(3);
  EXPECT_THAT(events_,
              ElementsAre(Pair(kStatus, "one"), Pair(kStatus, "two"), Pair(kStatus, "three")));
  EXPECT_FALSE(LooksAgain());
}

TEST_F(ASubscriber, GetsEventsOfAPublisherThatWasThereBefore) {
  Publisher publisher;
  ASSERT_EQ(publisher.Publish(kStatus, "key", "before"), 0);
  Subscribe(kStatus);
  ASSERT_EQ(publisher.Publish(kStatus, "key", "after"), 0);
  WaitForEvents(1);
  EXPECT_THAT(events_, ElementsAre(Pair(kStatus, "after")));
}

TEST_F(ASubscriber, GetsEventsOfThePublishersSuccessor) {
  Subscribe(kStatus);
  for (const char* value : {"first", "second", "third"}) {
    Publisher publisher;
    ASSERT_EQ(publisher.Publish(kStatus, "key", value), 0);
  }
  WaitForEvents(3);
  EXPECT_EQ(events_.back().second, "third");
}

// What a port does when it finds that its server has ended.
class TheEndOfAPort {
 public:
  explicit TheEndOfAPort(Events* events) : events_(events) {
    EXPECT_EQ(pipe2(ends_, O_CLOEXEC), 0);
    source_ = g_unix_fd_source_new(ends_[0], G_IO_HUP);
    g_source_set_priority(source_, G_PRIORITY_DEFAULT + 1);
    g_source_set_callback(source_, G_SOURCE_FUNC(OnEnd), this, nullptr);
    g_source_attach(source_, nullptr);
  }
  ~TheEndOfAPort() {
    g_source_unref(source_);
    close(ends_[0]);
  }
  void Come() { close(ends_[1]); }

 private:
  static gboolean OnEnd(gint, GIOCondition, void* self) {
    static_cast<TheEndOfAPort*>(self)->events_->emplace_back("end", "");
    return G_SOURCE_REMOVE;
  }

  Events* const events_;
  int ends_[2] = {-1, -1};
  GSource* source_;
};

TEST_F(ASubscriber, HearsOfThePublishersEndBetweenItsEventsAndThoseOfItsSuccessor) {
  Subscribe(kStatus);
  Publisher introduction;
  ASSERT_EQ(introduction.Publish(kStatus, "key", "introduction"), 0);
  WaitForEvents(1);
  TheEndOfAPort end(&events_);
  ASSERT_EQ(introduction.Publish(kStatus, "key", "last"), 0);
  ASSERT_EQ(introduction.Publish(kOther, "key", "not asked for"), 0);
  introduction.End();
  end.Come();
  Publisher successor;
  ASSERT_EQ(successor.Publish(kStatus, "key", "first"), 0);
  ASSERT_EQ(successor.Publish(kStatus, "key", "second"), 0);
  WaitForEvents(5);
  EXPECT_THAT(events_,
              ElementsAre(Pair(kStatus, "introduction"), Pair(kStatus, "last"), Pair("end", ""),
                          Pair(kStatus, "first"), Pair(kStatus, "second")));
}

TEST_F(ASubscriber, LeavesNoEventBehindThatASuccessorHasSent) {
  const event_handler_h handler = Subscribe(kStatus);
  {
    Publisher publisher;
    ASSERT_EQ(publisher.Publish(kStatus, "key", "one"), 0);
    WaitForEvents(1);
  }
  Publisher successor;
  ASSERT_EQ(successor.Publish(kStatus, "key", "two"), 0);
  // An endless source above it keeps the successor's event from being delivered.
  const guint busy = g_idle_add_full(
      G_PRIORITY_DEFAULT, [](void*) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
  const int read = ReadDescriptors();
  RunUntil([&] { return ReadDescriptors() == read - 1; });
  EXPECT_EQ(events_.size(), 1u);
  EXPECT_EQ(event_remove_event_handler(handler), 0);
  g_source_remove(busy);
  EXPECT_FALSE(g_main_context_pending(nullptr));
  EXPECT_EQ(events_.size(), 1u);
}

TEST_F(ASubscriber, GetsOnlyWhatItAskedFor) {
  Subscribe(kOther);
  Publisher publisher;
  ASSERT_EQ(publisher.Publish(kStatus, "key", "no"), 0);
  ASSERT_EQ(publisher.Publish("event.com.example.agent2.other", "key", "no"), 0);
  ASSERT_EQ(publisher.Publish(kOther, "key", "yes"), 0);
  WaitForEvents(1);
  EXPECT_THAT(events_, ElementsAre(Pair(kOther, "yes")));
}

TEST_F(ASubscriber, GetsAnEventOncePerSubscription) {
  Events others;
  Subscribe(kStatus);
  Subscribe(kStatus, Record, &others);
  Subscribe(kOther);
  ASSERT_EQ(PublishHere(kStatus, "one"), 0);
  ASSERT_EQ(PublishHere(kOther, "end"), 0);
  WaitForEvents(2);
  EXPECT_THAT(events_, ElementsAre(Pair(kStatus, "one"), Pair(kOther, "end")));
  EXPECT_THAT(others, ElementsAre(Pair(kStatus, "one")));
}

TEST_F(ASubscriber, GetsEveryKindOfValue) {
  bool right = false;
  const auto check = [](const char*, bundle* data, void* user_data) {
    char* text = nullptr;
    void* bytes = nullptr;
    size_t size = 0;
    int count = 0;
    const char** texts = bundle_get_str_array(data, "texts", &count);
    *static_cast<bool*>(user_data) =
        bundle_get_str(data, "text", &text) == 0 && strcmp(text, "\xc3\xa4") == 0 &&
        bundle_get_byte(data, "bytes", &bytes, &size) == 0 && size == 4 &&
        memcmp(bytes, "\0\1\2\xff", 4) == 0 && count == 2 && strcmp(texts[1], "two") == 0;
  };
  Subscribe(kStatus, check, &right);
  bundle* data = bundle_create();
  const char* texts[] = {"one", "two"};
  bundle_add_str(data, "text", "\xc3\xa4");
  bundle_add_byte(data, "bytes", "\0\1\2\xff", 4);
  bundle_add_str_array(data, "texts", texts, 2);
  ASSERT_EQ(event_publish_app_event(kStatus, data), 0);
  bundle_free(data);
  RunUntil([&] { return right; });
}

TEST_F(ASubscriber, GetsNoMoreOnceItHasRemovedItself) {
  const event_handler_h handler = Subscribe(kStatus);
  Subscribe(kOther);
  ASSERT_EQ(PublishHere(kStatus, "on its way"), 0);
  EXPECT_EQ(event_remove_event_handler(handler), 0);
  ASSERT_EQ(PublishHere(kStatus, "too late"), 0);
  ASSERT_EQ(PublishHere(kOther, "end"), 0);
  WaitForEvents(1);
  EXPECT_THAT(events_, ElementsAre(Pair(kOther, "end")));
}

struct Self {
  event_handler_h handler;
  int calls;
};

void RemoveSelf(const char*, bundle*, void* user_data) {
  auto* self = static_cast<Self*>(user_data);
  ++self->calls;
  EXPECT_EQ(event_remove_event_handler(self->handler), 0);
  EXPECT_EQ(event_remove_event_handler(self->handler), -22);
}

TEST_F(ASubscriber, MayRemoveItselfInsideItsHandlerAndIsNotCalledAgain) {
  Self self = {};
  self.handler = Subscribe(kStatus, RemoveSelf, &self);
  Subscribe(kOther);
  ASSERT_EQ(PublishHere(kStatus, "one"), 0);
  ASSERT_EQ(PublishHere(kStatus, "two"), 0);
  ASSERT_EQ(PublishHere(kOther, "end"), 0);
  WaitForEvents(1);
  EXPECT_EQ(self.calls, 1);
}

TEST_F(ASubscriber, MayRemoveItselfInsideItsHandlerWhenItIsTheLast) {
  Publisher publisher;
  // The main context opens its own descriptor at its first use.
  PolledDescriptors();
  const int before = OpenDescriptors();
  Self self = {};
  self.handler = Subscribe(kStatus, RemoveSelf, &self);
  ASSERT_EQ(publisher.Publish(kStatus, "key", "one"), 0);
  RunUntil([&] { return self.calls == 1; });
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(ASubscriber, MayRemoveAnotherWhichIsThenNotCalled) {
  Self first = {};
  Self second = {};
  const auto remove_other = [](const char*, bundle*, void* user_data) {
    auto* other = static_cast<Self*>(user_data);
    ++other->calls;
    event_remove_event_handler(other->handler);
  };
  // Each would remove the other: the one that comes first wins.
  first.handler = Subscribe(kStatus, remove_other, &second);
  second.handler = Subscribe(kStatus, remove_other, &first);
  Subscribe(kOther);
  ASSERT_EQ(PublishHere(kStatus, "one"), 0);
  ASSERT_EQ(PublishHere(kOther, "end"), 0);
  WaitForEvents(1);
  EXPECT_EQ(first.calls + second.calls, 1);
}

TEST_F(ASubscriber, MaySubscribeAndPublishInsideItsHandler) {
  struct Chain {
    Events* events;
    event_handler_h added;
  } chain = {&events_, nullptr};
  const auto go_on = [](const char*, bundle*, void* user_data) {
    auto* c = static_cast<Chain*>(user_data);
    if (c->added) return;
    EXPECT_EQ(event_add_event_handler(kOther, Record, c->events, &c->added), 0);
    EXPECT_EQ(PublishHere(kOther, "from inside"), 0);
  };
  Subscribe(kStatus, go_on, &chain);
  ASSERT_EQ(PublishHere(kStatus, "one"), 0);
  WaitForEvents(1);
  EXPECT_THAT(events_, ElementsAre(Pair(kOther, "from inside")));
}

TEST_F(ASubscriber, MayRunAMainLoopInsideItsHandler) {
  const auto nest = [](const char*, bundle*, void* user_data) {
    auto* events = static_cast<Events*>(user_data);
    EXPECT_EQ(PublishHere(kOther, "nested"), 0);
    RunUntil([events] { return !events->empty(); });
    events->emplace_back("after", "");
  };
  Subscribe(kStatus, nest, &events_);
  Subscribe(kOther);
  ASSERT_EQ(PublishHere(kStatus, "one"), 0);
  WaitForEvents(2);
  EXPECT_THAT(events_, ElementsAre(Pair(kOther, "nested"), Pair("after", "")));
}

TEST_F(ASubscriber, LeavesNothingBehind) {
  event_remove_event_handler(Subscribe(kStatus));
  const int descriptors = OpenDescriptors();
  const int polled = PolledDescriptors();
  for (int i = 0; i < 20; ++i) {
    const event_handler_h one = Subscribe(kStatus);
    const event_handler_h two = Subscribe(kOther);
    EXPECT_EQ(event_remove_event_handler(one), 0);
    EXPECT_EQ(event_remove_event_handler(two), 0);
  }
  EXPECT_EQ(OpenDescriptors(), descriptors);
  EXPECT_EQ(PolledDescriptors(), polled);
}

TEST_F(ASubscriber, HandsNoDescriptorToOtherPrograms) {
  const int before = OpenDescriptors();
  Subscribe(kStatus);
  EXPECT_GT(OpenDescriptors(), before);
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string target = std::filesystem::read_symlink(entry.path(), gone);
    if (target.rfind("socket:", 0) != 0) continue;
    const int fd = std::stoi(entry.path().filename());
    if (fd <= STDERR_FILENO) continue;
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC) << target;
  }
}

TEST_F(ASubscriber, MayComeAndGoInOtherThreadsWhileTheMainLoopRuns) {
  Subscribe(kOther);
  std::atomic<bool> done{false};
  std::thread thread([&] {
    Events none;
    for (int i = 0; i < 50; ++i) {
      event_handler_h handler = nullptr;
      EXPECT_EQ(event_add_event_handler(
                    kStatus, [](const char*, bundle*, void*) {}, nullptr, &handler),
                0);
      EXPECT_EQ(PublishHere(kOther, "from a thread"), 0);
      EXPECT_EQ(event_remove_event_handler(handler), 0);
    }
    done = true;
  });
  WaitForEvents(50);
  thread.join();
  EXPECT_TRUE(done);
  EXPECT_EQ(events_.size(), 50u);
}

// A main loop that finds nothing on the bus, because another thread has read it, and that only its
// own waking wakes.
std::atomic<int> waking{-1};
std::atomic<bool> sleeps{false};

gint PollForTheWaking(GPollFD* polled, guint count, gint timeout_ms) {
  if (waking < 0) waking = polled[0].fd;
  gint ready = 0;
  for (guint i = 0; i < count; ++i) {
    polled[i].revents = 0;
    if (polled[i].fd != waking) continue;
    sleeps = timeout_ms != 0;
    ready = g_poll(&polled[i], 1, timeout_ms);
  }
  return ready;
}

TEST_F(ASubscriber, HearsInASleepingMainLoopOfWhatAnotherThreadHasRead) {
  g_main_context_set_poll_func(nullptr, PollForTheWaking);
  g_main_context_iteration(nullptr, FALSE);
  ASSERT_EQ(PolledDescriptors(), 1);
  Subscribe(kStatus);
  std::thread reader([this] {
    while (!sleeps) std::this_thread::yield();
    EXPECT_EQ(PublishHere(kStatus, "read there"), 0);
    // The bus's answer comes after the event.
    Subscribe(kOther, [](const char*, bundle*, void*) {}, nullptr);
  });
  WaitForEvents(1);
  reader.join();
  g_main_context_set_poll_func(nullptr, nullptr);
  EXPECT_THAT(events_, ElementsAre(Pair(kStatus, "read there")));
}

TEST_F(ASubscriber, RefusesNullArgumentsAndNamesThatAreNone) {
  int mark = 0;
  auto* handler = reinterpret_cast<event_handler_h>(&mark);
  EXPECT_EQ(event_add_event_handler(nullptr, Record, nullptr, &handler), -22);
  EXPECT_EQ(event_add_event_handler(kStatus, nullptr, nullptr, &handler), -22);
  EXPECT_EQ(event_add_event_handler(kStatus, Record, nullptr, nullptr), -22);
  EXPECT_EQ(event_remove_event_handler(nullptr), -22);
  EXPECT_EQ(event_remove_event_handler(handler), -22);
  const std::string too_long = "event.com.example." + std::string(300, 'x');
  for (const char* name :
       {"", "event", "event.", "event..", "event.agent.status", "com.example.agent.status",
        "event.com.example.agent.", "event.com..example.status", "event.com.example.sta tus",
        "event.com.example'.status", "event.com.example.st'", "event.com.example.\xff",
        "event.com.7example.status", "event.:1.5.status", too_long.c_str()}) {
    EXPECT_EQ(event_add_event_handler(name, Record, nullptr, &handler), -22) << name;
    EXPECT_EQ(PublishHere(name, "x"), -22) << name;
  }
  EXPECT_EQ(handler, reinterpret_cast<event_handler_h>(&mark));
  EXPECT_EQ(event_publish_app_event(kStatus, nullptr), -22);
}

TEST_F(APublisher, CannotSpeakForAPackageThatAnotherProcessOwns) {
  Publisher publisher;
  ASSERT_EQ(publisher.Publish(kStatus, "key", "mine"), 0);
  EXPECT_EQ(PublishHere(kStatus, "not mine"), -13);
}

TEST_F(APublisher, CannotSendWhatIsNotUtf8OrTooLarge) {
  EXPECT_EQ(PublishHere(kStatus, "\xff"), -22);
  const std::string large(2 << 20, 'x');
  EXPECT_EQ(PublishHere(kStatus, large.c_str()), -22);
  EXPECT_EQ(PublishHere(kStatus, large.substr(0, 1000000).c_str()), 0);
}

TEST_F(APublisher, NeverQueuesForAName) {
  RawClient client;
  {
    Publisher publisher;
    ASSERT_EQ(publisher.Publish(kStatus, "key", "mine"), 0);
    EXPECT_EQ(PublishHere(kStatus, "not mine"), -13);
    EXPECT_EQ(event_desktop_own_package("com.example.agent"), -13);
  }
  EXPECT_EQ(client.OwnerOf("com.example.agent"), "");
}

TEST_F(APublisher, MayOwnItsNameBeforeItPublishes) {
  RawClient client;
  EXPECT_EQ(event_desktop_own_package("com.example.agent"), 0);
  EXPECT_NE(client.OwnerOf("com.example.agent"), "");
  EXPECT_EQ(event_desktop_own_package("com.example.agent"), 0);
  Publisher publisher;
  EXPECT_EQ(publisher.Publish(kStatus, "key", "not mine"), -13);
}

TEST_F(APublisher, CannotOwnANameThatIsTakenByWhoQueuedForIt) {
  RawClient squatter;
  {
    Publisher publisher;
    ASSERT_EQ(publisher.Publish(kStatus, "key", "mine"), 0);
    squatter.QueueForName("com.example.agent");
  }
  EXPECT_EQ(event_desktop_own_package("com.example.agent"), -13);
}

TEST_F(APublisher, CannotOwnANameThatNoPackageHas) {
  for (const char* name : {"", "agent", "com..example", ":1.5", "com.7example"}) {
    EXPECT_EQ(event_desktop_own_package(name), -22) << name;
  }
  EXPECT_EQ(event_desktop_own_package(nullptr), -22);
}

TEST_F(APublisher, GivesItsNameBackWhenItEnds) {
  RawClient client;
  {
    Publisher publisher;
    ASSERT_EQ(publisher.Publish(kStatus, "key", "x"), 0);
    EXPECT_NE(client.OwnerOf("com.example.agent"), "");
  }
  EXPECT_EQ(PublishHere(kStatus, "x"), 0);
}

// A client of the bus that is not the publisher, and its ways to pretend.
class AForgedEvent : public ASubscriber {
 protected:
  // Well-formed data, in which "key" is "forged".
  static std::string Payload() { return std::string("key\0\0\0\0\0forged\0\0s\4\22", 19); }
};

TEST_F(AForgedEvent, IsDroppedWhileNobodyOwnsTheName) {
  Subscribe(kStatus);
  RawClient forger;
  const std::string subscriber = forger.OnlyOtherClient();
  forger.SendEvent(kStatus, Payload(), nullptr);
  forger.SendEvent(kStatus, Payload(), subscriber.c_str());
  Publisher publisher;
  ASSERT_EQ(publisher.Publish(kStatus, "key", "genuine"), 0);
  WaitForEvents(1);
  EXPECT_THAT(events_, ElementsAre(Pair(kStatus, "genuine")));
}

TEST_F(AForgedEvent, IsDroppedWhileThePublisherOwnsTheName) {
  Subscribe(kStatus);
  RawClient forger;
  const std::string subscriber = forger.OnlyOtherClient();
  Publisher publisher;
  ASSERT_EQ(publisher.Publish(kStatus, "key", "genuine"), 0);
  forger.SendEvent(kStatus, Payload(), nullptr);
  forger.SendEvent(kStatus, Payload(), subscriber.c_str());
  ASSERT_EQ(publisher.Publish(kStatus, "key", "end"), 0);
  WaitForEvents(2);
  EXPECT_THAT(events_, ElementsAre(Pair(kStatus, "genuine"), Pair(kStatus, "end")));
}

TEST_F(AForgedEvent, IsDroppedAlsoAfterAForgedChangeOfOwner) {
  Subscribe(kStatus);
  RawClient forger;
  const std::string subscriber = forger.OnlyOtherClient();
  Publisher publisher;
  ASSERT_EQ(publisher.Publish(kStatus, "key", "genuine"), 0);
  forger.SendOwnerChange("com.example.agent", forger.unique_name(), subscriber.c_str());
  forger.SendOwnerChange("com.example.agent", forger.unique_name(), nullptr);
  forger.SendEvent(kStatus, Payload(), subscriber.c_str());
  ASSERT_EQ(publisher.Publish(kStatus, "key", "end"), 0);
  WaitForEvents(2);
  EXPECT_THAT(events_, ElementsAre(Pair(kStatus, "genuine"), Pair(kStatus, "end")));
}

TEST_F(AForgedEvent, WouldPassIfItsSenderOwnedTheName) {
  Subscribe(kStatus);
  RawClient owner;
  ASSERT_TRUE(owner.OwnName("com.example.agent"));
  owner.SendEvent(kStatus, Payload(), nullptr);
  WaitForEvents(1);
  EXPECT_THAT(events_, ElementsAre(Pair(kStatus, "forged")));
}

TEST_F(AForgedEvent, OfTheOwnersOwnMakingIsDroppedUnlessItIsWellFormed) {
  Subscribe(kStatus);
  Subscribe(kOther);
  RawClient owner;
  ASSERT_TRUE(owner.OwnName("com.example.agent"));
  owner.SendEvent(kStatus, "nonsense", nullptr);
  std::string not_utf8 = Payload();
  not_utf8[8] = '\xff';
  owner.SendEvent(kStatus, not_utf8, nullptr);
  std::string nul = Payload();
  nul[9] = '\0';
  owner.SendEvent(kStatus, nul, nullptr);
  owner.SendEvent(kStatus, std::string(2 << 20, '\0'), nullptr);
  sd_bus_message* other_types = nullptr;
  ASSERT_GE(sd_bus_message_new_signal(owner.get(), &other_types, "/org/desktop/ApplicationEvents",
                                      "org.desktop.ApplicationEvents", "Event"),
            0);
  ASSERT_GE(sd_bus_message_append(other_types, "si", kStatus, 7), 0);
  ASSERT_GE(sd_bus_send(owner.get(), other_types, nullptr), 0);
  sd_bus_message_unref(other_types);
  owner.SendEvent(kOther, Payload(), nullptr);
  WaitForEvents(1);
  EXPECT_THAT(events_, ElementsAre(Pair(kOther, "forged")));
}

}  // namespace
