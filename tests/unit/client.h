/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_TESTS_UNIT_CLIENT_H_
#define SVCMGR_TESTS_UNIT_CLIENT_H_

// An application as the tests of the client layer need it: it records what its callbacks receive,
// and can be told to do something inside them.

#include <fake_platform.h>
#include <velmora_svcmgr.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace client {

inline constexpr int kNotSupported = static_cast<int>(0xC0000002U);
inline constexpr int kInvalidApiLevel = static_cast<int>(0xBFFFFFFFU);
inline constexpr int kKyrDisabled = static_cast<int>(0xBFFFFFFEU);
inline constexpr int kUnsupportedAgentVersion = static_cast<int>(0xBFFFFFFDU);

inline constexpr char kHandlerFile[] = "SvcMgrAppProxyHandler.cc";
inline constexpr char kClientFile[] = "velmora_svcmgr.cc";

/** The log records, without those of the watch over the agent's own update. */
inline std::vector<fake::LogRecord> Logs() {
  std::vector<fake::LogRecord> records = fake::Logs();
  const auto of_the_watch = [](const fake::LogRecord& record) {
    return record.file == "AgentStatusEventHandler.cc" || record.file == "VorlaEventHandler.h";
  };
  records.erase(std::remove_if(records.begin(), records.end(), of_the_watch), records.end());
  return records;
}

/** What a connection callback received. */
struct Notice {
  int result;
  int state;
};
inline bool operator==(const Notice& a, const Notice& b) {
  return a.result == b.result && a.state == b.state;
}
inline std::ostream& operator<<(std::ostream& out, const Notice& notice) {
  return out << "(result " << notice.result << ", state " << notice.state << ')';
}

inline constexpr Notice kConnected{0, 0};
inline constexpr Notice kDisconnected{0, 1};
inline constexpr Notice kRejected{-13, 2};

/** Receives connection notices; passed as user data. */
struct Connection {
  std::vector<Notice> notices;
  std::function<void()> inside;  // runs inside the next callback, once

  static void Callback(int result, int state, void* user_data) {
    auto* const self = static_cast<Connection*>(user_data);
    self->notices.push_back({result, state});
    std::function<void()> action;
    action.swap(self->inside);
    if (action) action();
  }

  int Connect() { return velmora_svcmgr_connect(Callback, this); }
};

/** What a model list callback received; the list is read and destroyed. */
struct Answer {
  int error = 0;
  std::optional<int> size;  // absent if the list was null
};
inline bool operator==(const Answer& a, const Answer& b) {
  return a.error == b.error && a.size == b.size;
}
inline std::ostream& operator<<(std::ostream& out, const Answer& answer) {
  out << "(error " << answer.error << ", ";
  if (answer.size.has_value()) return out << *answer.size << " models)";
  return out << "no list)";
}

/** Receives model lists; passed as user data. */
struct Models {
  std::vector<Answer> answers;
  std::function<void()> inside;  // runs inside the next callback, once

  static void Callback(int error, velmora_svcmgr_ai_model_list_h list, void* user_data) {
    auto* const self = static_cast<Models*>(user_data);
    Answer answer;
    answer.error = error;
    int size = 0;
    if (list != nullptr && velmora_svcmgr_ai_model_list_get_size(list, &size) == 0) {
      answer.size = size;
    }
    self->answers.push_back(answer);
    if (list != nullptr) velmora_svcmgr_ai_model_list_destroy(list);
    std::function<void()> action;
    action.swap(self->inside);
    if (action) action();
  }

  int Request() { return velmora_svcmgr_ai_request_usable_model_list(Callback, this); }
};

/** An answer's payload: the agent's result and a list of no models. */
inline fake::Items EmptyList(int result) { return {result, fake::Count(0), 0}; }

/** Starts connected, with a clear record. */
class ConnectedTest : public fake::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    ASSERT_EQ(connection.Connect(), 0);
    fake::Proxy().FireConnected();
    ASSERT_THAT(connection.notices, testing::ElementsAre(kConnected));
    connection.notices.clear();
    fake::ClearRecord();
    fake::AllowHeldConnection();
  }

  Connection connection;
};

}  // namespace client

#endif  // SVCMGR_TESTS_UNIT_CLIENT_H_
