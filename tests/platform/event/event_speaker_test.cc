// SPDX-License-Identifier: Apache-2.0
// Whose events are accepted, on a bus that says what the test wants about its clients.

#include <app_event.h>
#include <gmock/gmock.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <optional>
#include <vector>

#include "private_bus.h"
#include "support/fake_bus.h"

using testing::ContainsRegex;
using testing::ElementsAre;

namespace {

constexpr char kStatus[] = "event.com.example.agent.status";
constexpr char kPackage[] = "com.example.agent";
constexpr char kBusName[] = "org.freedesktop.DBus";
constexpr char kSelf[] = ":1.1";
// The bus's number for the user of this process need not be the process's own.
constexpr uint32_t kUser = 70000;
constexpr uint32_t kOtherUser = 70001;

using Texts = std::vector<std::string>;

void Record(const char*, bundle* data, void* texts) {
  char* text = nullptr;
  bundle_get_str(data, "key", &text);
  static_cast<Texts*>(texts)->push_back(text ? text : "(none)");
}

void SendEvent(sd_bus* client, const char* sender, const std::string& text) {
  const std::string payload = std::string("key\0\0\0\0\0", 8) + text + std::string("\0\0s\4", 4) +
                              static_cast<char>(12 + text.size());
  sd_bus_message* message = nullptr;
  ASSERT_GE(sd_bus_message_new_signal(client, &message, "/org/desktop/ApplicationEvents",
                                      "org.desktop.ApplicationEvents", "Event"),
            0);
  ASSERT_GE(sd_bus_message_set_sender(message, sender), 0);
  ASSERT_GE(sd_bus_message_append(message, "s", kStatus), 0);
  ASSERT_GE(sd_bus_message_append_array(message, 'y', payload.data(), payload.size()), 0);
  ASSERT_GE(sd_bus_send(client, message, nullptr), 0);
  sd_bus_message_unref(message);
}

void SendOwnerChange(sd_bus* client, const char* owner) {
  sd_bus_message* message = nullptr;
  ASSERT_GE(sd_bus_message_new_signal(client, &message, "/org/freedesktop/DBus", kBusName,
                                      "NameOwnerChanged"),
            0);
  ASSERT_GE(sd_bus_message_set_sender(message, kBusName), 0);
  ASSERT_GE(sd_bus_message_append(message, "sss", kPackage, "", owner), 0);
  ASSERT_GE(sd_bus_send(client, message, nullptr), 0);
  sd_bus_message_unref(message);
}

// Acts as a bus does, except for what the test says about the owners of the package's name.
class ABusOfManyUsers : public testing::Test {
 protected:
  void Begin(const char* first_owner) {
    first_owner_ = first_owner;
    setenv("DBUS_SESSION_BUS_ADDRESS", bus_.address().c_str(), 1);
  }
  void Subscribe() { ASSERT_EQ(event_add_event_handler(kStatus, Record, &texts_, &handler_), 0); }
  void WaitForEvents(size_t count) {
    RunUntil([&] { return texts_.size() >= count; });
  }

  // On the bus's thread: asked for the user of a client; null for one that is gone.
  std::function<std::optional<uint32_t>(sd_bus* bus, const std::string& client)> user_of_;
  std::function<bool()> allows_match_ = [] { return true; };
  std::function<void(const char* rule)> forget_ = [](const char*) {};
  std::function<void()> before_greeting_ = [] {};
  std::atomic<int> questions_ = 0;
  Texts texts_;
  event_handler_h handler_ = nullptr;

 private:
  void Answer(sd_bus* client, sd_bus_message* message) {
    const std::string member = sd_bus_message_get_member(message);
    if (member == "Hello") {
      before_greeting_();
      sd_bus_reply_method_return(message, "s", kSelf);
    } else if (member == "RemoveMatch") {
      const char* rule = nullptr;
      ASSERT_GE(sd_bus_message_read(message, "s", &rule), 0);
      forget_(rule);
    } else if (member == "AddMatch") {
      if (allows_match_()) {
        sd_bus_reply_method_return(message, "");
      } else {
        sd_bus_reply_method_errorf(message, SD_BUS_ERROR_LIMITS_EXCEEDED, "too many");
      }
    } else if (member == "GetNameOwner") {
      if (*first_owner_) {
        sd_bus_reply_method_return(message, "s", first_owner_);
      } else {
        sd_bus_reply_method_errorf(message, SD_BUS_ERROR_NAME_HAS_NO_OWNER, "nobody");
      }
    } else if (member == "GetConnectionUnixUser") {
      AnswerUser(client, message);
    }
  }

  void AnswerUser(sd_bus* bus, sd_bus_message* message) {
    const char* client = nullptr;
    ASSERT_GE(sd_bus_message_read(message, "s", &client), 0);
    if (std::string(client) == kSelf) {
      sd_bus_reply_method_return(message, "u", kUser);
      return;
    }
    ++questions_;
    if (const auto user = user_of_(bus, client)) {
      sd_bus_reply_method_return(message, "u", *user);
    } else {
      sd_bus_reply_method_errorf(message, SD_BUS_ERROR_NAME_HAS_NO_OWNER, "gone");
    }
  }

  const char* first_owner_ = "";
  FakeBus bus_{[this](sd_bus* client, sd_bus_message* message) { Answer(client, message); }};
};

TEST_F(ABusOfManyUsers, PassesNoEventOfAnotherUsersProcess) {
  user_of_ = [](sd_bus* bus, const std::string& client) -> std::optional<uint32_t> {
    if (client == ":1.8") return kUser;
    SendEvent(bus, ":1.7", "before it is known");
    SendOwnerChange(bus, ":1.8");
    SendEvent(bus, ":1.8", "genuine");
    return kOtherUser;
  };
  testing::internal::CaptureStderr();
  Begin(":1.7");
  Subscribe();
  WaitForEvents(1);
  EXPECT_THAT(texts_, ElementsAre("genuine"));
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              ContainsRegex(" W APP_EVENT [0-9]+: Events of :1.7 are dropped: it is another user's "
                            "process\n"));
}

TEST_F(ABusOfManyUsers, PassesNoEventOfAnotherUsersProcessThatIsKnown) {
  user_of_ = [](sd_bus* bus, const std::string& client) -> std::optional<uint32_t> {
    if (client == ":1.7") {
      SendOwnerChange(bus, ":1.8");
      return kUser;
    }
    if (client == ":1.8") {
      SendEvent(bus, ":1.8", "early");
      SendOwnerChange(bus, ":1.9");
      return kOtherUser;
    }
    SendEvent(bus, ":1.8", "late");
    SendEvent(bus, ":1.9", "genuine");
    return kUser;
  };
  Begin(":1.7");
  Subscribe();
  WaitForEvents(1);
  EXPECT_THAT(texts_, ElementsAre("genuine"));
}

TEST_F(ABusOfManyUsers, KeepsEventsUntilItHasToldWhoseTheyAre) {
  user_of_ = [](sd_bus* bus, const std::string& client) -> std::optional<uint32_t> {
    if (client == ":1.7") {
      SendEvent(bus, ":1.7", "one");
      SendEvent(bus, ":1.7", "two");
      SendOwnerChange(bus, ":1.8");
      SendEvent(bus, ":1.8", "three");
    } else {
      SendEvent(bus, ":1.8", "four");
    }
    return kUser;
  };
  Begin(":1.7");
  Subscribe();
  WaitForEvents(4);
  EXPECT_THAT(texts_, ElementsAre("one", "two", "three", "four"));
}

TEST_F(ABusOfManyUsers, LosesNoEventOfAProcessThatHasEndedAtOnce) {
  user_of_ = [](sd_bus* bus, const std::string&) -> std::optional<uint32_t> {
    SendEvent(bus, ":1.7", "last");
    SendOwnerChange(bus, "");
    return std::nullopt;
  };
  Begin(":1.7");
  Subscribe();
  WaitForEvents(1);
  EXPECT_THAT(texts_, ElementsAre("last"));
}

TEST_F(ABusOfManyUsers, IsAskedOnceForEachOwner) {
  user_of_ = [](sd_bus* bus, const std::string&) -> std::optional<uint32_t> {
    for (int i = 0; i < 50; ++i) SendEvent(bus, ":1.7", "one of many");
    return kUser;
  };
  Begin(":1.7");
  Subscribe();
  WaitForEvents(50);
  EXPECT_EQ(questions_, 1);
}

TEST_F(ABusOfManyUsers, HearsWhatNobodyListensToAnyMore) {
  std::promise<std::string> forgotten;
  forget_ = [&](const char* rule) { forgotten.set_value(rule); };
  Begin("");
  Subscribe();
  event_handler_h other = nullptr;
  ASSERT_EQ(event_add_event_handler("event.com.example.agent.other", Record, &texts_, &other), 0);
  EXPECT_EQ(event_remove_event_handler(other), 0);
  EXPECT_EQ(forgotten.get_future().get(),
            "type='signal',path='/org/desktop/ApplicationEvents',interface='org.desktop."
            "ApplicationEvents',member='Event',sender='com.example.agent',arg0='event.com.example."
            "agent.other'");
  forget_ = [](const char*) {};
}

TEST_F(ABusOfManyUsers, FailsASubscriptionThatItRefuses) {
  allows_match_ = [] { return false; };
  testing::internal::CaptureStderr();
  Begin("");
  // A slow machine may need longer than a subscription waits.
  while (event_add_event_handler(kStatus, Record, &texts_, &handler_) != -5) {
    EXPECT_EQ(event_remove_event_handler(handler_), 0);
  }
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              ContainsRegex(" W APP_EVENT [0-9]+: The session bus refuses events: too many\n"));
}

TEST_F(ABusOfManyUsers, IsAskedAgainForWhatItRefusesLate) {
  std::promise<void> subscribed;
  std::atomic<int> matches = 0;
  before_greeting_ = [greeted = subscribed.get_future().share()] { greeted.wait(); };
  allows_match_ = [&] { return ++matches > 2; };
  user_of_ = [&](sd_bus* bus, const std::string&) -> std::optional<uint32_t> {
    if (matches > 2) SendEvent(bus, ":1.7", "heard");
    return kUser;
  };
  Begin(":1.7");
  Subscribe();
  subscribed.set_value();
  WaitForEvents(1);
  EXPECT_THAT(texts_, ElementsAre("heard"));
  EXPECT_EQ(matches, 4);
}

}  // namespace
