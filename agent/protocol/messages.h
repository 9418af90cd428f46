// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_PROTOCOL_MESSAGES_H_
#define AGENT_PROTOCOL_MESSAGES_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/parcel.h"

/*
 * What travels between a client and the agent, field by field in wire order.
 *
 *   request    client to agent, main port      int32 method, arguments
 *   reply      agent to client, main port      int32 0, value
 *   answer     agent to client, callback port  int32 1, delegate, payload
 */

namespace sim {

constexpr std::uint32_t kMostBytes = 16u << 20;  // what a message may hold
constexpr std::size_t kLengthSize = 4;           // of the length that travels before it

constexpr std::int32_t kCommandReply = 0;
constexpr std::int32_t kCommandAnswer = 1;

/** The methods of the agent's port, by their numbers. */
enum class Method : int {
  kGetAgentApiLevel = 2,
  kGetLicense = 3,
  kRequestUpdate = 4,
  kGetUsableModelList = 5,
  kGetUsableModelListWithDesc = 6,
  kGetModelVersionList = 7,
  kRequestToUpdate = 8,
  kRequestToUninstall = 9,
  kRequestUpdateWithList = 10,
};

/** Whom an answer is for. */
struct Delegate {
  std::int32_t id = 0;
  std::int32_t seq = 0;
  bool once = false;
};

/** A model on the wire. */
struct ModelInfo {
  std::string id;
  std::string version;
  std::string title;
  std::string description;
};

/** A model to be sent, whose texts live elsewhere. */
struct ModelView {
  const char* id;
  const char* version;
  const char* title;
  const char* description;
};

/** Models on the wire; `count` is carried beside the list and need not be its length. */
struct ModelList {
  std::vector<ModelInfo> models;
  std::int32_t count = 0;
};

/** A request as it came in; what its method does not carry is empty. */
struct Request {
  Method method = Method::kGetAgentApiLevel;
  Delegate delegate;
  ModelInfo model;
  ModelList models;
  std::vector<std::string> agents;
  std::int32_t agent_count = 0;  // carried beside the list of agents
  std::string app_id;
  std::string app_version;
};

/** What comes back for a request. */
enum class AnsweredBy {
  kReply,     // one value, for which the client waits
  kModels,    // a list of models, to a delegate
  kProgress,  // the progress of work on models, to a delegate
};

/** What there is to know about a method. */
struct MethodInfo {
  Method method = Method::kGetAgentApiLevel;
  const char* name = nullptr;  // as scenarios write it
  AnsweredBy answered_by = AnsweredBy::kReply;
  std::int32_t delegate = 0;    // the ID of the delegates that are answered; 0: there are none
  bool has_result = true;       // the answer is, or holds, a number that tells how it went
  bool updates_agents = false;  // an update begins when the result is 0
  void (*read_arguments)(Parcel& parcel, Request* request) = nullptr;  // null: there are none
};

constexpr std::size_t kMethodCount = 9;

/** All methods, in the order of their numbers. */
const std::array<MethodInfo, kMethodCount>& Methods();

/** The index of a method among them. */
std::size_t IndexOf(Method method);

const MethodInfo& InfoOf(Method method);

/** A method's name as scenarios write it; null for a number that is no method. */
const char* MethodName(int number);

/** The method that delegates with this ID are for; null if there is none. */
const MethodInfo* MethodOfDelegate(std::int32_t id);

/** Reads a request. Throws PlatformError where it ends early, std::runtime_error for no method. */
Request ReadRequest(Parcel& parcel);

/** Read what stands next in a message. Throw PlatformError where it ends early. */
Delegate ReadDelegate(Parcel& parcel);
ModelList ReadModelList(Parcel& parcel);

Parcel ReplyWith(std::int32_t value);
Parcel ReplyWith(const std::string& value);

/** One step of a model update or uninstallation, as its progress message carries it. */
struct ProgressStep {
  std::int32_t state = 0;
  std::int32_t index = 0;
  std::int32_t count = 0;
  std::int32_t percentage = 0;
  std::optional<std::int32_t> result;  // absent: the method's
  std::int32_t delay = 0;              // milliseconds before this step
};

/** The lengths that a list answer claims, where they are not the true ones. */
struct ListCounts {
  std::optional<std::int32_t> array_count;  // before the models
  std::optional<std::int32_t> count;        // after them
};

/** The answer to the three list queries. */
Parcel AnswerWith(const Delegate& delegate, std::int32_t result,
                  const std::vector<ModelView>& models, const ListCounts& counts = {});

/** A message as it travels: behind its length, true or not, its content. */
std::string Framed(std::uint32_t length, std::string_view content);
std::string Framed(const Parcel& parcel);

/** Makes an answer as it travels that for another delegate. */
void Readdress(std::string& message, const Delegate& delegate);

/** One answer to the two model operations. */
Parcel AnswerWith(const Delegate& delegate, std::int32_t result, const ProgressStep& progress);

}  // namespace sim

#endif  // AGENT_PROTOCOL_MESSAGES_H_
