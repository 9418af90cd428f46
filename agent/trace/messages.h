// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_TRACE_MESSAGES_H_
#define AGENT_TRACE_MESSAGES_H_

#include <optional>
#include <string_view>

#include "protocol/messages.h"
#include "trace/trace.h"

namespace sim {

/** The arguments of a request by their names. */
Fields ArgumentsOf(const Request& request);

/**
 * What a reply of the main port holds: "result", a number, or "text". `method` is the one that the
 * client has asked for last; none, or content that is no reply to it, gives nothing.
 */
std::optional<Fields> ReplyIn(std::string_view content, std::optional<Method> method);

/**
 * What a message of the callback port holds: the "method" that it answers, its "delegate", the
 * "result", and either "models" and "count" or the fields of a progress message. Nothing where it
 * cannot be read to its end, or no method has such a delegate.
 */
std::optional<Fields> AnswerIn(std::string_view content);

/** Bytes that could not be read as anything: how many, and the first of them as hexadecimal digits. */
Fields BytesIn(std::string_view content);

}  // namespace sim

#endif  // AGENT_TRACE_MESSAGES_H_
