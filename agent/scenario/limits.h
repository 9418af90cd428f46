// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SCENARIO_LIMITS_H_
#define AGENT_SCENARIO_LIMITS_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "scenario/scenario.h"

namespace sim {

constexpr std::int32_t kLongestDelay = 600000;
constexpr std::int32_t kLargestModel = 1 << 30;
constexpr std::int32_t kMostParts = 1000;
constexpr std::int32_t kMostGenerated = 100000;
constexpr std::int32_t kMostRepeats = 10000;
constexpr std::int32_t kMostTimes = 1000;
constexpr std::size_t kMostCalls = 100;
constexpr std::int32_t kLongestFill = 1 << 16;

// What does not fit into a message: each returns the reason, or nothing if it fits.

std::optional<std::string> TooLargeAsLicence(const std::string& licence);
std::optional<std::string> TooLargeAsList(const std::vector<Model>& models);
std::optional<std::string> TooLargeAsAnswer(const std::vector<ModelInfo>& models);
std::optional<std::string> TooLargeAsVersions(const Model& model);

}  // namespace sim

#endif  // AGENT_SCENARIO_LIMITS_H_
