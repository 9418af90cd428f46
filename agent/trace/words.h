// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_TRACE_WORDS_H_
#define AGENT_TRACE_WORDS_H_

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace sim {

/** The time of day of a record's time, in UTC. */
std::string ClockOf(const std::string& time);

/**
 * A record of the trace as one line for people, without its time: safe for a terminal, and short
 * enough to be written to a pipe in one piece.
 */
std::string InWords(const std::string& what, const nlohmann::ordered_json& fields);

/** The same for a whole record, behind its time of day. */
std::string InWords(const nlohmann::ordered_json& record);

}  // namespace sim

#endif  // AGENT_TRACE_WORDS_H_
