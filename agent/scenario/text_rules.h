// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SCENARIO_TEXT_RULES_H_
#define AGENT_SCENARIO_TEXT_RULES_H_

#include <optional>
#include <string>

namespace sim {

// The rules of a scenario's texts. Each says what is wrong with a text; nothing if it is right.

std::optional<std::string> NotEmpty(const std::string& text);

/** The ID of an application or package. */
std::optional<std::string> ApplicationId(const std::string& text);

std::optional<std::string> PackageVersion(const std::string& text);

std::optional<std::string> MetadataKey(const std::string& text);

/** A model's ID or version. */
std::optional<std::string> ModelName(const std::string& text);

/** A pattern of application IDs; see Matches. */
std::optional<std::string> Pattern(const std::string& text);

/** Tells whether a text matches a pattern in which * stands for any text and ? for any character.
 */
bool Matches(const std::string& pattern, const std::string& text);

}  // namespace sim

#endif  // AGENT_SCENARIO_TEXT_RULES_H_
