// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SCENARIO_PACKAGE_H_
#define AGENT_SCENARIO_PACKAGE_H_

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "scenario/object_reader.h"

namespace sim {

/** With * and ?, of application IDs. */
using Patterns = std::vector<std::string>;

constexpr char kUsualVersion[] = "1.0.0";

/** An installed package. */
struct Package {
  std::string id;
  std::string version;
  std::string application;          // empty: the package's ID
  std::optional<Patterns> clients;  // that may connect to its ports; absent: all
  std::map<std::string, std::string> metadata;
  bool readable = true;
};

/** Which clients the agent accepts, of those that may connect to its port. */
struct Admission {
  Patterns refused;
  Patterns admitted;  // although they are refused
};

/** Reads the keys of a package that any package may have. */
void ReadPackageKeys(ObjectReader& object, Package* package);

/** Reads a list of patterns; what was there before stays where the key is absent or wrong. */
bool ReadPatterns(ObjectReader& object, const char* key, std::optional<Patterns>* out);

/** Reads a choice of clients: all for true, none for false, or those of a list. */
bool ReadChoiceOfClients(ObjectReader& object, const char* key, Patterns* out);

/** Tells whether an application is among those of the patterns. */
bool Includes(const Patterns& patterns, const std::string& application);

}  // namespace sim

#endif  // AGENT_SCENARIO_PACKAGE_H_
