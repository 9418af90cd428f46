# SPDX-License-Identifier: Apache-2.0
# Writes OUTPUT, a source file that holds the scenarios FILES (names separated by "|").

string(REPLACE "|" ";" files "${FILES}")
# With their endings, "a-b" would come before "a".
list(TRANSFORM files REPLACE "\\.json$" "")
list(SORT files)
set(rows "")
foreach(file IN LISTS files)
  get_filename_component(name "${file}" NAME)
  file(READ "${file}.json" text)
  string(APPEND rows "      {\"${name}\", R\"scenario(${text})scenario\"},\n")
endforeach()
file(CONFIGURE OUTPUT "${OUTPUT}" @ONLY CONTENT [[
// SPDX-License-Identifier: Apache-2.0
// Generated from the scenarios that ship.
#include "scenario/scenario_files.h"

namespace sim {

const std::vector<ShippedScenario>& ShippedScenarios() {
  static const std::vector<ShippedScenario> scenarios = {
@rows@  };
  return scenarios;
}

}  // namespace sim
]])
