// SPDX-License-Identifier: Apache-2.0
#include "scenario/package.h"

#include <algorithm>
#include <utility>

#include "scenario/text_rules.h"

namespace sim {

void ReadPackageKeys(ObjectReader& object, Package* package) {
  object.Text("id", &package->id, ApplicationId);
  object.Text("version", &package->version, PackageVersion);
  ReadPatterns(object, "clients", &package->clients);
  object.Object("metadata", [&](ObjectReader& metadata) {
    metadata.AllTexts(&package->metadata, MetadataKey);
  });
}

bool ReadPatterns(ObjectReader& object, const char* key, std::optional<Patterns>* out) {
  Patterns patterns;
  if (!object.Texts(key, &patterns, Pattern)) return false;
  *out = std::move(patterns);
  return true;
}

bool ReadChoiceOfClients(ObjectReader& object, const char* key, Patterns* out) {
  const auto value = object.Take(key);
  if (!value) return false;
  if (value->node().kind == JsonNode::Kind::kFlag) {
    *out = value->node().flag ? Patterns{"*"} : Patterns();
    return true;
  }
  if (value->node().kind == JsonNode::Kind::kList) return ReadTexts(*value, out, Pattern);
  value->Refuse(std::string("must be true or false or a list of texts, not ") +
                NameOf(value->node().kind));
  return false;
}

bool Includes(const Patterns& patterns, const std::string& application) {
  return std::any_of(patterns.begin(), patterns.end(),
                     [&](const std::string& each) { return Matches(each, application); });
}

}  // namespace sim
