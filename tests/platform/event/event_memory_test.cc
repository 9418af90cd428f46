// SPDX-License-Identifier: Apache-2.0
// Subscribers whose memory runs out for a while. A program of its own, because it replaces the
// allocators.

#include <app_event.h>
#include <glib.h>
#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "private_bus.h"
#include "sweep/failing_allocations.h"
#include "sweep/places.h"

using sweep::Uncounted;
using testing::AnyOf;
using testing::ElementsAre;

namespace {

constexpr char kStatus[] = "event.com.example.agent.status";
constexpr char kOther[] = "event.com.example.agent.other";

constexpr long kAll = 1000000;
// More allocations than there are.
constexpr long kMost = 500;

// Not GLib, which ends the process when it gets no memory, nor the test itself.
bool IsOfThePlatform(void* caller) {
  for (const char* library : {"libcapi-appfw-event.", "libbundle.", "libsystemd.", "libstdc++."}) {
    if (sweep::IsIn(caller, library)) return true;
  }
  return false;
}

// While it exists, allocations fail.
class Shortage {
 public:
  static Shortage Nth(long n) { return {n, 1}; }
  static Shortage Lasting() { return {1, kAll}; }
  ~Shortage() { sweep::Disarm(); }
  Shortage(const Shortage&) = delete;

  long failed() const { return failures_.failed; }

 private:
  Shortage(long first, long burst) { sweep::Arm(first, burst, &failures_, IsOfThePlatform); }

  sweep::Failures failures_;
};

class ASubscriberShortOfMemory : public testing::Test {
 protected:
  // Allocates what the first stack and the first main loop need.
  ASubscriberShortOfMemory() {
    sweep::Stack().Capture();
    PolledDescriptors();
  }

  static void Record(const char*, bundle* data, void* self) {
    const Uncounted own;
    char* text = nullptr;
    bundle_get_str(data, "key", &text);
    static_cast<ASubscriberShortOfMemory*>(self)->texts_.emplace_back(text ? text : "(none)");
  }

  int Add(const char* name, event_handler_h* handler) {
    return event_add_event_handler(name, Record, this, handler);
  }
  event_handler_h Subscribe(const char* name) {
    event_handler_h handler = nullptr;
    EXPECT_EQ(Add(name, &handler), 0);
    AwaitSubscriptions();
    return handler;
  }

  void Publish(const char* name, const char* text) {
    const Uncounted own;
    if (!publisher_) publisher_ = std::make_unique<Publisher>();
    ASSERT_EQ(publisher_->Publish(name, "key", text), 0);
  }
  // The next event comes from another process.
  void ChangePublisher() {
    const Uncounted own;
    publisher_.reset();
  }
  // Whether this many come, and no more.
  bool Hears(size_t count) {
    RunUntil([&] { return texts_.size() >= count; });
    return texts_.size() == count;
  }

  // Runs `work` with the first, second, third ... allocation failing, until none is left to fail;
  // `judge` runs after it, when all succeed again. Returns how many failed.
  template <typename Work, typename Judge>
  static long ForEachFailure(Work work, Judge judge) {
    for (long n = 1; n < kMost; ++n) {
      SCOPED_TRACE("allocation " + std::to_string(n));
      long failed = 0;
      {
        const auto shortage = Shortage::Nth(n);
        work();
        failed = shortage.failed();
      }
      judge();
      if (failed == 0 || HasFailure()) return n - 1;
    }
    ADD_FAILURE() << "the allocations do not end";
    return kMost;
  }

  PrivateBus bus_;
  std::unique_ptr<Publisher> publisher_;
  std::vector<std::string> texts_;
};

TEST_F(ASubscriberShortOfMemory, GetsEachEventOnceAndInItsOrder) {
  Subscribe(kStatus);
  Subscribe(kOther);
  Publish(kStatus, "introduction");
  ASSERT_TRUE(Hears(1));
  const long failures = ForEachFailure(
      [&] {
        texts_.clear();
        Publish(kStatus, "one");
        Publish(kOther, "two");
        Publish(kStatus, "three");
        Hears(3);
      },
      [&] { EXPECT_THAT(texts_, ElementsAre("one", "two", "three")); });
  EXPECT_GT(failures, 20);
}

TEST_F(ASubscriberShortOfMemory, GetsTheEventsOfASuccessor) {
  Subscribe(kStatus);
  const long failures = ForEachFailure(
      [&] {
        texts_.clear();
        ChangePublisher();
        Publish(kStatus, "one");
        Publish(kStatus, "two");
        Hears(2);
      },
      [&] { EXPECT_THAT(texts_, ElementsAre("one", "two")); });
  EXPECT_GT(failures, 20);
}

TEST_F(ASubscriberShortOfMemory, GetsAllEventsOnceThereIsMemoryAndLooksNowAndThenOnly) {
  Subscribe(kStatus);
  Publish(kStatus, "introduction");
  ASSERT_TRUE(Hears(1));
  gint64 took = 0;
  {
    const auto shortage = Shortage::Lasting();
    Publish(kStatus, "one");
    Publish(kStatus, "two");
    RunUntil([&] { return shortage.failed() >= 1; });
    const gint64 begin = g_get_monotonic_time();
    // An attempt that fails throws, which is an allocation too.
    RunUntil([&] { return shortage.failed() >= 7; });
    took = g_get_monotonic_time() - begin;
  }
  EXPECT_GE(took, 3 * G_USEC_PER_SEC / 20);
  EXPECT_TRUE(Hears(3));
  EXPECT_THAT(texts_, ElementsAre("introduction", "one", "two"));
  EXPECT_FALSE(LooksAgain());
}

TEST_F(ASubscriberShortOfMemory, IsSubscribedOrToldAndKeepsWhatItHad) {
  Subscribe(kStatus);
  Publish(kStatus, "introduction");
  ASSERT_TRUE(Hears(1));
  event_handler_h handler = nullptr;
  int added = 0;
  const long failures = ForEachFailure([&] { added = Add(kOther, &handler); },
                                       [&] {
                                         EXPECT_THAT(added, AnyOf(0, -12));
                                         texts_.clear();
                                         Publish(kStatus, "had");
                                         EXPECT_TRUE(Hears(1));
                                         if (added != 0) return;
                                         AwaitSubscriptions();
                                         Publish(kOther, "new");
                                         EXPECT_TRUE(Hears(2));
                                         EXPECT_EQ(event_remove_event_handler(handler), 0);
                                       });
  EXPECT_GT(failures, 10);
}

TEST_F(ASubscriberShortOfMemory, IsSubscribedOrToldAtFirstAndLeavesNothingOpen) {
  event_handler_h handler = nullptr;
  int added = 0;
  int before = 0;
  const long failures = ForEachFailure(
      [&] {
        before = OpenDescriptors();
        added = Add(kStatus, &handler);
      },
      [&] {
        EXPECT_THAT(added, AnyOf(0, -5, -12));
        texts_.clear();
        if (added == 0) {
          AwaitSubscriptions();
          const int with_publisher = publisher_ ? 0 : 2;  // its pipes
          Publish(kStatus, "one");
          EXPECT_TRUE(Hears(1));
          EXPECT_EQ(event_remove_event_handler(handler), 0);
          before += with_publisher;
        }
        EXPECT_EQ(OpenDescriptors(), before);
      });
  EXPECT_GT(failures, 50);
}

TEST_F(ASubscriberShortOfMemory, EndsItsSubscriptions) {
  const int before = PolledDescriptors();
  const event_handler_h status = Subscribe(kStatus);
  const event_handler_h other = Subscribe(kOther);
  {
    const auto shortage = Shortage::Lasting();
    EXPECT_EQ(event_remove_event_handler(other), 0);
    EXPECT_EQ(event_remove_event_handler(status), 0);
  }
  EXPECT_EQ(PolledDescriptors(), before);
}

}  // namespace
