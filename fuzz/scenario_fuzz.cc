// SPDX-License-Identifier: Apache-2.0
// A scenario as its author writes it: read, or refused with reasons.
//
// Input: the document.

#include "scenario/scenario_reader.h"

#include <cstring>

#include "input.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view document = Input(data, size).Rest();
  try {
    // Without a folder, a scenario that names files is refused: a target reads nothing but its
    // input.
    const sim::Scenario scenario = sim::ReadScenario(document, "fuzz", "");
    REQUIRE(scenario.time_scale >= 0);
    for (const sim::Model& model : scenario.models) REQUIRE(!model.id.empty());
  } catch (const sim::ScenarioError& error) {
    REQUIRE(std::strlen(error.what()) > 0);
  }
  return 0;
}
