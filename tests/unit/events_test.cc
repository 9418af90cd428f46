// SPDX-License-Identifier: Apache-2.0
// Subscriptions to the agent's events: what the three subscribers share, and the client exceptions.

#include <AgentStatusEventHandler.h>
#include <ModelUpdateEventHandler.h>
#include <SvcmgrException.h>
#include <UpdateStatusEventHandler.h>

#include <cstddef>
#include <exception>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "client.h"
#include "event_support.h"

namespace {

using events::Errors;
using events::kAdd;
using events::kRemove;
using fake::IsError;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kEventFile[] = "VorlaEventHandler.h";

/* Exceptions. */

template <typename T>
std::string TextOf() {
  try {
    throw T();
  } catch (const std::exception& exception) {
    return exception.what();
  }
}

TEST(AnException, HasItsOwnText) {
  EXPECT_EQ(TextOf<AppInfoException>(), "Failed to get app info.");
  EXPECT_EQ(TextOf<NoSuchAppException>(), "No such package for the category.");
  EXPECT_EQ(TextOf<RegisterEventException>(), "Failed to register app event.");
  EXPECT_EQ(TextOf<DeregisterEventException>(), "Failed to deregister app event.");
}

TEST(AnException, OfNoKindHasTheStandardText) {
  EXPECT_EQ(TextOf<SvcmgrException>(), std::exception().what());
}

TEST(AnException, IsOfTheClientFamilyAndNothingButItsType) {
  EXPECT_TRUE((std::is_base_of_v<std::exception, SvcmgrException>));
  EXPECT_TRUE((std::is_base_of_v<SvcmgrException, AppInfoException>));
  EXPECT_TRUE((std::is_base_of_v<SvcmgrException, NoSuchAppException>));
  EXPECT_TRUE((std::is_base_of_v<SvcmgrException, RegisterEventException>));
  EXPECT_TRUE((std::is_base_of_v<SvcmgrException, DeregisterEventException>));
  EXPECT_EQ(sizeof(AppInfoException), sizeof(std::exception));
  EXPECT_EQ(sizeof(DeregisterEventException), sizeof(std::exception));
}

/* Subscribers. */

TEST(ASubscriber, IsTheSameWhoeverAsks) {
  EXPECT_EQ(&AgentStatusEventHandler::GetInstance(), &AgentStatusEventHandler::GetInstance());
  EXPECT_EQ(&UpdateStatusEventHandler::GetInstance(), &UpdateStatusEventHandler::GetInstance());
  EXPECT_EQ(&ModelUpdateEventHandler::GetInstance(), &ModelUpdateEventHandler::GetInstance());
}

TEST(ASubscriber, HasTheSingletonAsItsBaseAndCannotBeCopied) {
  EXPECT_TRUE((std::is_base_of_v<Singleton<AgentStatusEventHandler>, AgentStatusEventHandler>));
  EXPECT_TRUE((std::is_base_of_v<Singleton<UpdateStatusEventHandler>, UpdateStatusEventHandler>));
  EXPECT_TRUE((std::is_base_of_v<Singleton<ModelUpdateEventHandler>, ModelUpdateEventHandler>));
  EXPECT_TRUE(std::has_virtual_destructor_v<UpdateStatusEventHandler>);
  EXPECT_FALSE(std::is_polymorphic_v<VorlaEventHandler>);
  EXPECT_FALSE(std::is_copy_constructible_v<UpdateStatusEventHandler>);
  EXPECT_FALSE(std::is_copy_assignable_v<ModelUpdateEventHandler>);
  EXPECT_FALSE(std::is_default_constructible_v<AgentStatusEventHandler>);
}

/* The two subscribers that an application sets callbacks for. */

struct Subscriber {
  const char* name;
  const char* event;
  const char* file;
  const char* unset_function;  // the exported function
  const char* unset_file;
  int unset_refused;             // what unsetting returns when the removal is refused
  std::size_t set_records;       // records of the exported functions themselves
  std::function<int(int*)> set;  // with a callback that counts
  std::function<int()> set_null;
  std::function<int()> unset;
  std::function<bool()> fire;  // an event that the callback hears of
};

void CountStatus(int, void* count) { ++*static_cast<int*>(count); }
void CountModelStatus(int, int, void* count) { ++*static_cast<int*>(count); }

const std::vector<Subscriber> kSubscribers = {
    {"UpdateStatus", events::kUpdateStatus, "UpdateStatusEventHandler.cc",
     "velmora_svcmgr_unset_update_status_cb", "velmora_svcmgr.cc", 0, 0,
     [](int* count) { return velmora_svcmgr_set_update_status_cb(CountStatus, count); },
     [] { return velmora_svcmgr_set_update_status_cb(nullptr, nullptr); },
     velmora_svcmgr_unset_update_status_cb, [] { return events::AnnounceStart() > 0; }},
    {"ModelStatus", events::kModelStatus, "ModelUpdateEventHandler.cc",
     "velmora_svcmgr_ai_deregister_status_cb", "service_status_cb.cc", -38, 1,
     [](int* count) { return velmora_svcmgr_ai_register_status_cb(CountModelStatus, count); },
     [] { return velmora_svcmgr_ai_register_status_cb(nullptr, nullptr); },
     velmora_svcmgr_ai_deregister_status_cb,
     [] { return events::Announce(events::kModelStatus, {"START"}) > 0; }},
};

class EachSubscriber : public fake::PlatformTest, public testing::WithParamInterface<std::size_t> {
 protected:
  static const Subscriber& It() { return kSubscribers[GetParam()]; }

  int count = 0;
};

TEST_P(EachSubscriber, SubscribesWhenACallbackIsSet) {
  EXPECT_EQ(It().set(&count), 0);
  EXPECT_THAT(fake::Subscriptions(), ElementsAre(It().event));
  ASSERT_EQ(fake::Calls("event_").size(), 1U);
  EXPECT_EQ(fake::Calls("event_")[0].Text(),
            "event_add_event_handler(\"" + std::string(It().event) + "\", null)");
  EXPECT_THAT(Errors(), IsEmpty());
  EXPECT_EQ(fake::Logs().size(), It().set_records);
  EXPECT_TRUE(It().fire());
  EXPECT_EQ(count, 1);
  EXPECT_EQ(It().unset(), 0);
}

TEST_P(EachSubscriber, SubscribesOnceForTwoCallbacksAndHearsForTheSecond) {
  int second = 0;
  EXPECT_EQ(It().set(&count), 0);
  EXPECT_EQ(It().set(&second), 0);
  EXPECT_EQ(fake::CountCalls(kAdd), 1U);
  EXPECT_TRUE(It().fire());
  EXPECT_EQ(count, 0);
  EXPECT_EQ(second, 1);
  EXPECT_EQ(It().unset(), 0);
}

TEST_P(EachSubscriber, MayBeUnsetBeforeItIsSet) {
  EXPECT_EQ(It().unset(), 0);
  EXPECT_EQ(It().unset(), 0);
  EXPECT_THAT(fake::CallNames("event_"), IsEmpty());
  EXPECT_THAT(Errors(), IsEmpty());
}

TEST_P(EachSubscriber, SubscribesAfreshEachTimeThatNoneIsOpen) {
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(It().set(&count), 0);
    EXPECT_TRUE(It().fire());
    EXPECT_EQ(It().unset(), 0);
    EXPECT_FALSE(It().fire());
  }
  EXPECT_EQ(count, 3);
  EXPECT_EQ(fake::CountCalls(kAdd), 3U);
  EXPECT_EQ(fake::CountCalls(kRemove), 3U);
}

TEST_P(EachSubscriber, KeepsTheFormerCallbackIfAnotherOneIsRefused) {
  EXPECT_EQ(It().set(&count), 0);
  fake::ClearRecord();
  EXPECT_EQ(It().set_null(), -22);
  fake::RemoveAgent();
  EXPECT_EQ(It().set_null(), client::kNotSupported);
  EXPECT_EQ(It().unset(), client::kNotSupported);
  EXPECT_THAT(fake::CallNames("event_"), IsEmpty());
  EXPECT_TRUE(It().fire());
  EXPECT_EQ(count, 1);
  fake::InstallAgent("2.3.0");
  EXPECT_EQ(It().unset(), 0);
}

TEST_P(EachSubscriber, AllowsNullUserData) {
  static int calls;
  calls = 0;
  if (GetParam() == 0) {
    EXPECT_EQ(velmora_svcmgr_set_update_status_cb(
                  [](int, void* data) { calls += data == nullptr ? 1 : 100; }, nullptr),
              0);
  } else {
    EXPECT_EQ(velmora_svcmgr_ai_register_status_cb(
                  [](int, int, void* data) { calls += data == nullptr ? 1 : 100; }, nullptr),
              0);
  }
  EXPECT_TRUE(It().fire());
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(It().unset(), 0);
}

TEST_P(EachSubscriber, SucceedsWhenTheSubscriptionIsRefusedAndTriesAgain) {
  for (const fake::Step& step : {fake::Fail(-13), fake::FailWithGarbage(-5),
                                 fake::FailWithNull(-22), fake::FailAfterWork(-12)}) {
    fake::ClearRecord();
    fake::Next(kAdd, step);
    EXPECT_EQ(It().set(&count), 0);
    EXPECT_THAT(Errors(),
                ElementsAre(IsError(kEventFile, "RegisterEvent",
                                    events::RefusalOf(step.result, It().event)),
                            IsError(It().file, "SetEventCallback", "Failed to register event")));
  }
  EXPECT_EQ(It().unset(), 0);
  EXPECT_EQ(fake::CountCalls(kRemove), 0U);
  EXPECT_EQ(It().set(&count), 0);
  EXPECT_EQ(It().unset(), 0);
  EXPECT_EQ(fake::CountCalls(kRemove), 1U);
  fake::AllowHeld(fake::Kind::kEventHandler, 1);  // what the platform made despite its refusal
}

// Seen by an event that was under way: the platform has a subscription of an earlier set.
TEST_P(EachSubscriber, KeepsTheCallbackWhenTheSubscriptionIsRefused) {
  fake::Next(kAdd, fake::FailAfterWork(-5));
  EXPECT_EQ(It().set(&count), 0);
  EXPECT_TRUE(It().fire());
  EXPECT_EQ(count, 1);
  fake::AllowHeld(fake::Kind::kEventHandler, 1);
}

TEST_P(EachSubscriber, IsUnsubscribedAlsoWhenTheRemovalIsRefused) {
  for (const fake::Step& step : {fake::Fail(-13), fake::FailAfterWork(-5)}) {
    EXPECT_EQ(It().set(&count), 0);
    fake::ClearRecord();
    fake::Next(kRemove, step);
    EXPECT_EQ(It().unset(), It().unset_refused);
    std::vector<testing::Matcher<fake::LogRecord>> records = {
        IsError(kEventFile, "DeregisterEvent", "err: [" + std::to_string(step.result) + "]"),
        IsError(It().file, "UnsetEventCallback", "Failed to deregister event")};
    if (It().unset_refused != 0) {
      records.emplace_back(
          IsError(It().unset_file, It().unset_function, "UnsetEventCallback Error"));
    }
    EXPECT_THAT(Errors(), testing::ElementsAreArray(records));
    fake::ClearRecord();
    EXPECT_EQ(It().unset(), 0);
    EXPECT_THAT(fake::CallNames("event_"), IsEmpty());
    EXPECT_EQ(It().set(&count), 0);
    EXPECT_EQ(fake::CountCalls(kAdd), 1U);
    EXPECT_EQ(It().unset(), 0);
  }
  fake::AllowHeld(fake::Kind::kEventHandler, 1);  // the one whose removal was refused
}

TEST_P(EachSubscriber, CallsNobodyWhenTheRemovalIsRefused) {
  EXPECT_EQ(It().set(&count), 0);
  fake::Next(kRemove, fake::Fail(-5));
  EXPECT_EQ(It().unset(), It().unset_refused);
  EXPECT_TRUE(It().fire());
  EXPECT_EQ(count, 0);
  fake::AllowHeld(fake::Kind::kEventHandler, 1);
}

TEST_P(EachSubscriber, ClearsItsCallbackBeforeTheRemoval) {
  EXPECT_EQ(It().set(&count), 0);
  fake::Next(kRemove, fake::Succeed().Entering([] { It().fire(); }));
  EXPECT_EQ(It().unset(), 0);
  EXPECT_EQ(count, 0);
}

TEST_P(EachSubscriber, StoresItsCallbackBeforeTheSubscription) {
  fake::Next(kAdd, fake::Hook([] { It().fire(); }));
  EXPECT_EQ(It().set(&count), 0);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(It().unset(), 0);
}

TEST_P(EachSubscriber, SurvivesAPlatformThatThrows) {
  fake::Next(kAdd, fake::Throw(std::runtime_error("no")));
  EXPECT_EQ(It().set(&count), 0);
  EXPECT_THAT(Errors(),
              ElementsAre(IsError(It().file, "SetEventCallback", "Failed to register event")));
  EXPECT_EQ(It().set(&count), 0);
  fake::ClearRecord();
  fake::Next(kRemove, fake::Throw(std::bad_alloc()));
  EXPECT_EQ(It().unset(), It().unset_refused);
  EXPECT_THAT(Errors()[0], IsError(It().file, "UnsetEventCallback", "Failed to deregister event"));
  fake::ClearRecord();
  EXPECT_EQ(It().unset(), 0);
  EXPECT_THAT(fake::CallNames("event_"), IsEmpty());
  fake::AllowHeld(fake::Kind::kEventHandler, 1);
}

TEST_P(EachSubscriber, ThatCannotBeBuiltIsBuiltByTheNextCall) {
  if (!fake::SeesOperatorNew()) GTEST_SKIP() << "operator new cannot be made to fail here";
  {
    const fake::FailingAllocation failing(fake::Allocator::kNew);
    EXPECT_EQ(It().set(&count), -38);
    ASSERT_TRUE(failing.Happened());
  }
  ASSERT_EQ(Errors().size(), 1U);
  EXPECT_EQ(Errors()[0].message, "Unknown Exception");
  EXPECT_EQ(Errors()[0].file, It().unset_file);
  {
    const fake::FailingAllocation failing(fake::Allocator::kNew);
    EXPECT_EQ(It().unset(), -38);
    ASSERT_TRUE(failing.Happened());
  }
  EXPECT_EQ(It().set(&count), 0);
  EXPECT_TRUE(It().fire());
  EXPECT_EQ(count, 1);
  EXPECT_EQ(It().unset(), 0);
}

TEST_P(EachSubscriber, HandlesTheEventThatItSubscribedToAndNoOther) {
  EXPECT_EQ(It().set(&count), 0);
  const Subscriber& other = kSubscribers[1 - GetParam()];
  EXPECT_FALSE(other.fire());
  EXPECT_EQ(count, 0);
  EXPECT_EQ(It().unset(), 0);
}

TEST_P(EachSubscriber, SubscribesOnceThoughSetInsideTheSubscription) {
  int second = 0;
  fake::Next(kAdd, fake::Succeed().Entering([&] { EXPECT_EQ(It().set(&second), 0); }));
  EXPECT_EQ(It().set(&count), 0);
  EXPECT_THAT(fake::Subscriptions(), ElementsAre(It().event));
  EXPECT_TRUE(It().fire());
  EXPECT_EQ(count, 0);
  EXPECT_EQ(second, 1);
  EXPECT_EQ(It().unset(), 0);
  EXPECT_THAT(fake::Subscriptions(), IsEmpty());
}

TEST_P(EachSubscriber, IsNotSubscribedIfUnsetInsideTheSubscription) {
  fake::Next(kAdd, fake::Succeed().Entering([] { EXPECT_EQ(It().unset(), 0); }));
  EXPECT_EQ(It().set(&count), 0);
  EXPECT_THAT(fake::Subscriptions(), IsEmpty());
}

TEST_P(EachSubscriber, MayBeSetInsideTheEndOfTheSubscription) {
  int second = 0;
  EXPECT_EQ(It().set(&count), 0);
  fake::Next(kRemove, fake::Succeed().Entering([&] { EXPECT_EQ(It().set(&second), 0); }));
  EXPECT_EQ(It().unset(), 0);
  EXPECT_TRUE(It().fire());
  EXPECT_EQ(second, 1);
  EXPECT_EQ(It().unset(), 0);
}

INSTANTIATE_TEST_SUITE_P(Each, EachSubscriber, testing::Range<std::size_t>(0, 2),
                         [](const auto& row) { return std::string(kSubscribers[row.param].name); });

}  // namespace
