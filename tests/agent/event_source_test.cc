// SPDX-License-Identifier: Apache-2.0
#include "service/event_source.h"

#include <glib.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <utility>

namespace {

using sim::EventSource;

void RunWhatIsReady() {
  while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
  }
}

void RunUntil(const bool& done) {
  while (!done) {
    g_main_context_iteration(nullptr, TRUE);
  }
}

TEST(ATimer, RunsItsActionOnce) {
  EventSource timer;
  int times = 0;
  timer.After(0, [&] { ++times; });
  EXPECT_EQ(times, 0);
  bool later = false;
  EventSource end;
  end.After(1, [&] { later = true; });
  RunUntil(later);
  RunWhatIsReady();
  EXPECT_EQ(times, 1);
}

TEST(ATimer, DoesNothingOnceItIsGone) {
  bool ran = false;
  {
    EventSource().After(0, [&] { ran = true; });
  }
  EventSource stopped;
  stopped.After(0, [&] { ran = true; });
  stopped.Stop();
  RunWhatIsReady();
  EXPECT_FALSE(ran);
}

TEST(ATimer, WaitsForOneThingOnly) {
  EventSource timer;
  bool first = false;
  bool second = false;
  timer.After(0, [&] { first = true; });
  timer.After(0, [&] { second = true; });
  RunUntil(second);
  RunWhatIsReady();
  EXPECT_FALSE(first);
}

TEST(ATimer, MayBeSetAgainByItsAction) {
  EventSource timer;
  bool done = false;
  timer.After(0, [&] { timer.After(0, [&] { done = true; }); });
  RunUntil(done);
}

TEST(ATimer, MayBeEndedByItsAction) {
  auto timer = std::make_unique<EventSource>();
  bool done = false;
  const auto kept = std::make_shared<int>(7);
  int seen = 0;
  timer->After(0, [&, kept] {
    timer.reset();
    seen = *kept;  // what the action holds lives until it has returned
    done = true;
  });
  RunUntil(done);
  RunWhatIsReady();
  EXPECT_EQ(seen, 7);
  EXPECT_EQ(kept.use_count(), 1);
}

TEST(AWatch, RunsItsActionAsLongAsThereIsSomethingToReadAndMayBeEndedByIt) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(write(ends[1], "ab", 2), 2);
  auto watch = std::make_unique<EventSource>();
  int times = 0;
  watch->WhenReadable(ends[0], [&] {
    char byte = 0;
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
    if (++times == 2) {
      watch.reset();
    }
  });
  RunWhatIsReady();
  EXPECT_EQ(times, 2);
  ASSERT_EQ(write(ends[1], "c", 1), 1);
  RunWhatIsReady();
  EXPECT_EQ(times, 2);
  close(ends[0]);
  close(ends[1]);
}

}  // namespace
