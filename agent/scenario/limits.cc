// SPDX-License-Identifier: Apache-2.0
#include "scenario/limits.h"

#include <algorithm>
#include <cstddef>

#include "protocol/messages.h"

namespace sim {
namespace {

// A number precedes the text, and the text has a length before it and an end mark after it.
constexpr std::size_t kLongestLicence = kMostBytes - 2 * sizeof(std::int32_t) - 1;

std::size_t EncodedSize(const std::string& text) { return sizeof(std::int32_t) + text.size() + 1; }

/** The encoded size of an answer with an empty list. */
std::size_t EmptyAnswerSize() {
  static const std::size_t size =
      AnswerWith(Delegate(), 0, std::vector<ModelView>()).Bytes().size();
  return size;
}

std::optional<std::string> TooLarge(const std::string& what, std::size_t size) {
  if (size <= kMostBytes) return std::nullopt;
  return what + " takes " + std::to_string(size) + " bytes: a message holds " +
         std::to_string(kMostBytes);
}

/** The size of the model in an answer, with the longest version that may be the usable one. */
std::size_t EntrySize(const Model& model, bool described) {
  std::size_t version = 0;
  for (const auto* versions : {&model.versions, &model.available}) {
    for (const std::string& each : *versions) version = std::max(version, EncodedSize(each));
  }
  return EncodedSize(model.id) + version + EncodedSize(model.title) +
         EncodedSize(described ? model.description : "");
}

}  // namespace

std::optional<std::string> TooLargeAsLicence(const std::string& licence) {
  if (licence.size() <= kLongestLicence) return std::nullopt;
  return "must not be longer than " + std::to_string(kLongestLicence) +
         " bytes: a message holds 16 MiB";
}

std::optional<std::string> TooLargeAsList(const std::vector<Model>& models) {
  std::size_t plain = EmptyAnswerSize();
  std::size_t described = EmptyAnswerSize();
  for (const Model& model : models) {
    plain += EntrySize(model, false);
    described += EntrySize(model, true);
  }
  const auto reason = TooLarge("the list of all models", plain);
  return reason ? reason : TooLarge("the list of all models with their descriptions", described);
}

std::optional<std::string> TooLargeAsAnswer(const std::vector<ModelInfo>& models) {
  std::size_t size = EmptyAnswerSize();
  for (const ModelInfo& model : models) {
    size += EncodedSize(model.id) + EncodedSize(model.version) + EncodedSize(model.title) +
            EncodedSize(model.description);
  }
  return TooLarge("the list of these models", size);
}

std::optional<std::string> TooLargeAsVersions(const Model& model) {
  std::size_t size = EmptyAnswerSize();
  for (const auto* versions : {&model.versions, &model.available}) {
    for (const std::string& version : *versions) {
      size += EncodedSize(model.id) + EncodedSize(version) + EncodedSize(model.title) +
              EncodedSize(model.description);
    }
  }
  return TooLarge("the list of the model's versions", size);
}

}  // namespace sim
