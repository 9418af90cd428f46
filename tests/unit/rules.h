/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_TESTS_UNIT_RULES_H
#define SVCMGR_TESTS_UNIT_RULES_H

/* The rules of the interface as one table: a row for each exported function. */

#include <fake_platform.h>
#include <velmora_svcmgr.h>

#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "client_level_support.h"

namespace rules {

/** Where outputs that nobody has written point to. */
extern char untouched[];
inline constexpr int kUntouched = -4321;

/**
 * What exported functions are called with: a handle of each kind that is filled, one of each kind
 * to be destroyed, callbacks, and outputs. The installed packages hold one that declares the
 * category, and the application's folder a marker. Releases all of it, and leaves a clear record.
 */
struct Stage {
  Stage();
  ~Stage();
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  /** The outputs, and what the filled handles hold. */
  std::string Contents() const;

  velmora_svcmgr_agent_list_h agents = nullptr;
  velmora_svcmgr_ai_model_info_h info = nullptr;
  velmora_svcmgr_ai_model_list_h models = nullptr;
  velmora_svcmgr_ai_progress_h progress = nullptr;
  velmora_svcmgr_agent_list_h spare_agents = nullptr;
  velmora_svcmgr_ai_model_info_h spare_info = nullptr;
  velmora_svcmgr_ai_model_list_h spare_models = nullptr;
  velmora_svcmgr_ai_progress_h spare_progress = nullptr;

  velmora_svcmgr_connection_cb on_connection = [](int, int, void*) {};
  velmora_svcmgr_update_status_cb on_update_status = [](int, void*) {};
  velmora_svcmgr_ai_status_cb on_model_status = [](int, int, void*) {};
  velmora_svcmgr_ai_model_list_cb on_models = [](int, velmora_svcmgr_ai_model_list_h list, void*) {
    velmora_svcmgr_ai_model_list_destroy(list);
  };
  velmora_svcmgr_ai_progress_cb on_progress = [](int, velmora_svcmgr_ai_progress_h record, void*) {
    velmora_svcmgr_ai_progress_destroy(record);
  };
  void* user_data = this;
  const char* text = "text";
  const char* category = "vision";
  int index = 0;
  int number = 7;

  velmora_svcmgr_agent_list_h out_agents = reinterpret_cast<velmora_svcmgr_agent_list_h>(untouched);
  velmora_svcmgr_ai_model_info_h out_info =
      reinterpret_cast<velmora_svcmgr_ai_model_info_h>(untouched);
  velmora_svcmgr_ai_model_list_h out_models =
      reinterpret_cast<velmora_svcmgr_ai_model_list_h>(untouched);
  velmora_svcmgr_ai_progress_h out_progress =
      reinterpret_cast<velmora_svcmgr_ai_progress_h>(untouched);
  char* out_text = untouched;
  int out_number = kUntouched;
  bool out_flag = true;

 private:
  client_level::TemporaryFolder folder_;
};

/* The arguments of a call, each a member of the stage. */

enum class Role {
  kNeeded,  // may not be null
  kTaken,   // may not be null, and is gone if the call succeeds
  kOutput,  // where a result is written to; may not be null
  kGiven,   // anything
};

template <Role role, typename T>
struct Argument {
  static constexpr unsigned kNeeded = role == Role::kGiven ? 0 : 1;
  T Stage::* member;
};

template <typename T>
Argument<Role::kNeeded, T> Needed(T Stage::* member) {
  return {member};
}
template <typename T>
Argument<Role::kTaken, T> Taken(T Stage::* member) {
  return {member};
}
template <typename T>
Argument<Role::kOutput, T> Output(T Stage::* member) {
  return {member};
}
template <typename T>
Argument<Role::kGiven, T> Given(T Stage::* member) {
  return {member};
}

/** Passes arguments to a function, with null for a set of the needed ones. */
class Caller {
 public:
  Caller(Stage& stage, unsigned nulls) : stage_(stage), nulls_(nulls) {}

  template <Role role, typename T>
  auto Pass(Argument<role, T> argument) {
    if constexpr (role == Role::kGiven) {
      return stage_.*argument.member;
    } else if constexpr (role == Role::kOutput) {
      return TakeNull() ? nullptr : &(stage_.*argument.member);
    } else {
      if (role == Role::kTaken) {
        on_success_ = [this, argument] { stage_.*argument.member = nullptr; };
      }
      return TakeNull() ? nullptr : stage_.*argument.member;
    }
  }

  int Return(int result) const {
    if (result == SVCMGR_ERROR_NONE && on_success_) on_success_();
    return result;
  }

 private:
  bool TakeNull() { return (nulls_ >> next_++ & 1) != 0; }

  Stage& stage_;
  unsigned nulls_;
  unsigned next_ = 0;
  std::function<void()> on_success_;
};

/** What a function needs of the connection. */
enum class Wants {
  kNothing,
  kConnection,  // an established one
  kProxy,       // one that was started and not ended
};

/** A row: the rules of a function, in the order in which they apply. */
class Function {
 public:
  /** Makes the next call of a function return a certain code. */
  using Occasion = std::function<void(Stage&)>;

  template <typename... Parameters, typename... Arguments>
  Function(const char* its_name, int (*function)(Parameters...), Arguments... arguments)
      : name(its_name), needed((0U + ... + Arguments::kNeeded)) {
    static_assert(sizeof...(Parameters) == sizeof...(Arguments));
    call_ = [=](Stage& stage, unsigned nulls) {
      Caller caller(stage, nulls);
      const std::tuple<Parameters...> values{caller.Pass(arguments)...};
      return caller.Return(std::apply(function, values));
    };
  }

  Function&& Enters(std::string value) && { return Set(entry, std::move(value)); }
  Function&& NeedsLevel(int value) && { return Set(level, value); }
  Function&& RefusesNull(const char* value) && { return Set(null_message, value); }
  Function&& NeedsConnection() && { return Set(wants, Wants::kConnection); }
  Function&& NeedsProxy() && { return Set(wants, Wants::kProxy); }
  Function&& IsAnswered(fake::Items value) && { return Set(reply, std::move(value)); }
  Function&& FailsWith(int value) && { return Set(failure, value); }
  Function&& Creates(const char* value) && { return Set(create_message, value); }
  Function&& WithoutMemory(std::set<int> value) && { return Set(exhausted, std::move(value)); }
  Function&& Returns(int code, Occasion occasion) && {
    occasions.emplace_back(code, std::move(occasion));
    return std::move(*this);
  }

  /** Calls it, with null for the needed arguments of a set. */
  int Call(Stage& stage, unsigned nulls = 0) const { return call_(stage, nulls); }

  /** Every code that it returns, and the tests of `AFunction` that see it return it. */
  std::map<int, std::set<std::string>> TestsOfCodes() const;
  std::set<int> Codes() const;
  /** The texts of its own log records, and the tests of `AFunction` that expect them. */
  std::map<std::string, std::string> TestsOfRecords() const;

  std::string name;
  unsigned needed;    // how many arguments may not be null
  std::string unit;   // its source, as log records name it
  std::string entry;  // the record that comes before all checks; empty for none
  int level = 0;      // of the agent; 0 if any will do
  std::string null_message = "parameter is NULL!!";
  Wants wants = Wants::kNothing;
  fake::Items reply;                             // the agent's; none if it is not asked
  int failure = SVCMGR_ERROR_INVALID_OPERATION;  // what an exception becomes
  std::string create_message;                    // the record when its handle cannot be allocated
  std::optional<std::set<int>> exhausted;  // without memory, if not `failure`; empty: it may abort
  std::vector<std::pair<int, Occasion>> occasions;  // of the codes that are its own

 private:
  template <typename Field, typename Value>
  Function&& Set(Field& field, Value&& value) {
    field = std::forward<Value>(value);
    return std::move(*this);
  }

  std::function<int(Stage&, unsigned)> call_;
};

inline void PrintTo(const Function& function, std::ostream* out) { *out << function.name; }

/** All of them. */
const std::vector<Function>& Functions();
/** The one of this name. */
const Function& Find(const std::string& name);

/** Names the instances of a test by their functions. */
struct NameOfFunction {
  std::string operator()(const testing::TestParamInfo<Function>& info) const {
    return info.param.name;
  }
};

}  // namespace rules

#endif  // SVCMGR_TESTS_UNIT_RULES_H
