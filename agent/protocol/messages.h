// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_PROTOCOL_MESSAGES_H
#define AGENT_PROTOCOL_MESSAGES_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "protocol/parcel.h"
#include "scenario/scenario.h"

/*
 * What travels between a client and the agent, field by field in wire order.
 *
 *   request    client to agent, main port      int32 method, arguments
 *   reply      agent to client, main port      int32 0, value
 *   answer     agent to client, callback port  int32 1, delegate, payload
 */

namespace sim {

constexpr std::uint32_t kMostBytes = 16u << 20;  // what a message may hold

constexpr std::int32_t kCommandReply = 0;
constexpr std::int32_t kCommandAnswer = 1;

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
  std::string app_id;
  std::string app_version;
};

/** Reads a request. Throws PlatformError where it ends early, std::runtime_error for no method. */
Request ReadRequest(Parcel& parcel);

Parcel ReplyWith(std::int32_t value);
Parcel ReplyWith(const std::string& value);

/** What a list answer says of its lengths, where it shall not say the truth. */
struct ListCounts {
  std::optional<std::int32_t> array_count;  // before the models
  std::optional<std::int32_t> count;        // behind them
};

/** The answer to the three list queries. */
Parcel AnswerWith(const Delegate& delegate, std::int32_t result,
                  const std::vector<ModelView>& models, const ListCounts& counts = {});

/** One answer to the two model operations. */
Parcel AnswerWith(const Delegate& delegate, std::int32_t result, const ProgressStep& progress);

}  // namespace sim

#endif  // AGENT_PROTOCOL_MESSAGES_H
