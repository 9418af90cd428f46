// SPDX-License-Identifier: Apache-2.0
#include "trace/messages.h"

#include <algorithm>
#include <string>

namespace sim {
namespace {

Fields FieldsOf(const Delegate& delegate) {
  return {{"id", delegate.id}, {"seq", delegate.seq}, {"once", delegate.once}};
}

Fields FieldsOf(const ModelInfo& model) {
  return {{"id", model.id},
          {"version", model.version},
          {"title", model.title},
          {"description", model.description}};
}

Fields FieldsOf(const std::vector<ModelInfo>& models) {
  Fields list = Fields::array();
  for (const ModelInfo& model : models) list.push_back(FieldsOf(model));
  return list;
}

Parcel ParcelOf(std::string_view content) {
  Parcel parcel;
  parcel.SetBytes(content);
  return parcel;
}

Fields ListIn(Parcel& parcel) {
  const ModelList list = ReadModelList(parcel);
  return {{"models", FieldsOf(list.models)}, {"count", list.count}};
}

Fields ProgressIn(Parcel& parcel) {
  Fields progress = Fields::object();
  for (const char* name : {"state", "index", "count", "percentage"}) progress[name] = parcel.Int();
  return progress;
}

}  // namespace

Fields ArgumentsOf(const Request& request) {
  Fields arguments = Fields::object();
  const MethodInfo& method = InfoOf(request.method);
  if (method.answered_by != AnsweredBy::kReply) arguments["delegate"] = FieldsOf(request.delegate);
  if (request.method == Method::kGetModelVersionList) arguments["model"] = FieldsOf(request.model);
  if (method.answered_by == AnsweredBy::kModels) {
    arguments["appId"] = request.app_id;
    arguments["appVersion"] = request.app_version;
  }
  if (method.answered_by == AnsweredBy::kProgress) {
    arguments["models"] = FieldsOf(request.models.models);
    arguments["count"] = request.models.count;
  }
  if (request.method == Method::kRequestUpdateWithList) {
    arguments["agents"] = request.agents;
    arguments["count"] = request.agent_count;
  }
  return arguments;
}

std::optional<Fields> ReplyIn(std::string_view content, std::optional<Method> method) {
  if (!method || InfoOf(*method).answered_by != AnsweredBy::kReply) return std::nullopt;
  try {
    Parcel parcel = ParcelOf(content);
    if (parcel.Int() != kCommandReply) return std::nullopt;
    Fields reply = {{"method", InfoOf(*method).name}};
    if (InfoOf(*method).has_result) {
      reply["result"] = parcel.Int();
    } else {
      reply["text"] = parcel.Text();
    }
    return reply;
  } catch (const PlatformError&) {
    return std::nullopt;
  }
}

std::optional<Fields> AnswerIn(std::string_view content) {
  try {
    Parcel parcel = ParcelOf(content);
    if (parcel.Int() != kCommandAnswer) return std::nullopt;
    const Delegate delegate = ReadDelegate(parcel);
    const MethodInfo* method = MethodOfDelegate(delegate.id);
    if (method == nullptr) return std::nullopt;
    Fields answer = {
        {"method", method->name}, {"delegate", FieldsOf(delegate)}, {"result", parcel.Int()}};
    answer.update(method->answered_by == AnsweredBy::kModels ? ListIn(parcel) : ProgressIn(parcel));
    return answer;
  } catch (const PlatformError&) {
    return std::nullopt;
  }
}

Fields BytesIn(std::string_view content) {
  constexpr std::size_t kMost = 64;
  constexpr char kDigits[] = "0123456789abcdef";
  std::string digits;
  for (const char c : content.substr(0, kMost)) {
    const auto byte = static_cast<unsigned char>(c);
    digits += {kDigits[byte >> 4], kDigits[byte & 15]};
  }
  return {{"size", content.size()}, {"bytes", digits}};
}

}  // namespace sim
