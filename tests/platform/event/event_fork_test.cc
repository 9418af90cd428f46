// SPDX-License-Identifier: Apache-2.0
// A forked child has none of its parent's subscriptions.

#include <app_event.h>
#include <glib.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "private_bus.h"
#include "support/forked_child.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char kStatus[] = "event.com.example.agent.status";

void Record(const char*, bundle* data, void* texts) {
  char* text = nullptr;
  bundle_get_str(data, "key", &text);
  static_cast<std::vector<std::string>*>(texts)->emplace_back(text ? text : "(none)");
}

void RunAllReady() {
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
}

class AForkedSubscriber : public testing::Test {
 protected:
  AForkedSubscriber() {
    EXPECT_EQ(event_add_event_handler(kStatus, Record, &texts_, &handler_), 0);
    AwaitSubscriptions();
  }
  void Publish(const char* text) { ASSERT_EQ(publisher_.Publish(kStatus, "key", text), 0); }
  void WaitFor(size_t count) {
    RunUntil([&] { return texts_.size() >= count; });
  }

  PrivateBus bus_;
  Publisher publisher_;
  std::vector<std::string> texts_;
  event_handler_h handler_ = nullptr;
};

TEST_F(AForkedSubscriber, LeavesEventsToItsParent) {
  Publish("one");
  EXPECT_TRUE(HoldsInAChild([this] {
    RunAllReady();
    EXPECT_THAT(texts_, IsEmpty());
    EXPECT_EQ(event_remove_event_handler(handler_), -22);
    RunAllReady();
  }));
  WaitFor(1);
  EXPECT_THAT(texts_, ElementsAre("one"));
}

TEST_F(AForkedSubscriber, LeavesTheEventOfASuccessorToItsParent) {
  Publish("one");
  WaitFor(1);
  publisher_.End();
  Publisher successor;
  ASSERT_EQ(successor.Publish(kStatus, "key", "two"), 0);
  // An endless source above it keeps the successor's event from being delivered.
  const guint busy = g_idle_add_full(
      G_PRIORITY_DEFAULT, [](void*) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
  const int read = ReadDescriptors();
  RunUntil([&] { return ReadDescriptors() == read - 1; });
  g_source_remove(busy);
  EXPECT_TRUE(HoldsInAChild([this] {
    RunAllReady();
    EXPECT_THAT(texts_, ElementsAre("one"));
  }));
  WaitFor(2);
  EXPECT_THAT(texts_, ElementsAre("one", "two"));
}

TEST_F(AForkedSubscriber, MadeByAHandlerCallsNoFurtherOne) {
  static pid_t child;
  child = -1;
  event_handler_h forking = nullptr;
  std::vector<std::string> after;
  event_handler_h last = nullptr;
  const auto fork_once = [](const char*, bundle*, void*) {
    if (child == -1) child = fork();
  };
  ASSERT_EQ(event_add_event_handler(kStatus, fork_once, nullptr, &forking), 0);
  ASSERT_EQ(event_add_event_handler(kStatus, Record, &after, &last), 0);
  AwaitSubscriptions();
  Publish("one");
  Publish("two");
  RunUntil([&] { return child == 0 || after.size() >= 2; });
  if (child == 0) {
    RunAllReady();
    _exit(after.empty() && texts_.size() == 1 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_THAT(after, ElementsAre("one", "two"));
}

TEST_F(AForkedSubscriber, SubscribesAnew) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    std::vector<std::string> own;
    event_handler_h handler = nullptr;
    EXPECT_EQ(event_add_event_handler(kStatus, Record, &own, &handler), 0);
    AwaitSubscriptions();
    EXPECT_EQ(write(ready[1], "", 1), 1);
    RunUntil([&] { return own.size() >= 2; });
    EXPECT_THAT(own, ElementsAre("one", "two"));
    EXPECT_EQ(event_remove_event_handler(handler), 0);
    EXPECT_THAT(texts_, IsEmpty());
    _exit(HasFailure() ? 1 : 0);
  }
  char byte;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  Publish("one");
  Publish("two");
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  WaitFor(2);
  EXPECT_THAT(texts_, ElementsAre("one", "two"));
  EXPECT_EQ(event_remove_event_handler(handler_), 0);
}

}  // namespace
