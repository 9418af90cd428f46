// SPDX-License-Identifier: Apache-2.0
#include "protocol/messages.h"

#include <algorithm>

namespace sim {
namespace {

ModelInfo ReadModelInfo(Parcel& parcel) {
  ModelInfo model;
  model.id = parcel.Text();
  model.version = parcel.Text();
  model.title = parcel.Text();
  model.description = parcel.Text();
  return model;
}

void WriteModel(Parcel& parcel, const ModelView& model) {
  parcel.Text(model.id);
  parcel.Text(model.version);
  parcel.Text(model.title);
  parcel.Text(model.description);
}

void ReadCaller(Parcel& parcel, Request* request) {
  request->app_id = parcel.Text();
  request->app_version = parcel.Text();
}

void ReadListQuery(Parcel& parcel, Request* request) {
  request->delegate = ReadDelegate(parcel);
  ReadCaller(parcel, request);
}

void ReadVersionQuery(Parcel& parcel, Request* request) {
  request->delegate = ReadDelegate(parcel);
  request->model = ReadModelInfo(parcel);
  ReadCaller(parcel, request);
}

void ReadModelWork(Parcel& parcel, Request* request) {
  request->delegate = ReadDelegate(parcel);
  request->models = ReadModelList(parcel);
}

void ReadAgentList(Parcel& parcel, Request* request) {
  for (std::int32_t left = parcel.Count(); left > 0; --left) {
    request->agents.push_back(parcel.Text());
  }
  request->agent_count = parcel.Int();
}

constexpr std::array<MethodInfo, kMethodCount> kMethods = {{
    {.method = Method::kGetAgentApiLevel, .name = "get_agent_api_level"},
    {.method = Method::kGetLicense, .name = "get_license", .has_result = false},
    {.method = Method::kRequestUpdate, .name = "request_update", .updates_agents = true},
    {.method = Method::kGetUsableModelList,
     .name = "GetUsableModelList",
     .answered_by = AnsweredBy::kModels,
     .delegate = 1,
     .read_arguments = ReadListQuery},
    {.method = Method::kGetUsableModelListWithDesc,
     .name = "GetUsableModelListWithDesc",
     .answered_by = AnsweredBy::kModels,
     .delegate = 2,
     .read_arguments = ReadListQuery},
    {.method = Method::kGetModelVersionList,
     .name = "GetModelVersionList",
     .answered_by = AnsweredBy::kModels,
     .delegate = 3,
     .read_arguments = ReadVersionQuery},
    {.method = Method::kRequestToUpdate,
     .name = "RequestToUpdate",
     .answered_by = AnsweredBy::kProgress,
     .delegate = 4,
     .read_arguments = ReadModelWork},
    {.method = Method::kRequestToUninstall,
     .name = "RequestToUninstall",
     .answered_by = AnsweredBy::kProgress,
     .delegate = 5,
     .read_arguments = ReadModelWork},
    {.method = Method::kRequestUpdateWithList,
     .name = "request_update_with_list",
     .updates_agents = true,
     .read_arguments = ReadAgentList},
}};

constexpr int kFirstMethod = static_cast<int>(kMethods.front().method);

constexpr bool AreInOrder() {
  int number = kFirstMethod;
  for (const MethodInfo& info : kMethods) {
    if (info.name == nullptr || static_cast<int>(info.method) != number++) return false;
  }
  return true;
}
static_assert(AreInOrder(), "a row's place is its method's number");

/** Null for a number that is no method. */
const MethodInfo* FindMethod(int number) {
  const bool known = number >= kFirstMethod && number <= static_cast<int>(kMethods.back().method);
  return known ? &kMethods[static_cast<std::size_t>(number - kFirstMethod)] : nullptr;
}

Parcel AnswerFor(const Delegate& delegate) {
  Parcel parcel;
  parcel.Int(kCommandAnswer);
  parcel.Int(delegate.id);
  parcel.Int(delegate.seq);
  parcel.Flag(delegate.once);
  return parcel;
}

}  // namespace

const std::array<MethodInfo, kMethodCount>& Methods() { return kMethods; }

std::size_t IndexOf(Method method) {
  return static_cast<std::size_t>(static_cast<int>(method) - kFirstMethod);
}

const MethodInfo& InfoOf(Method method) { return kMethods[IndexOf(method)]; }

const char* MethodName(int number) {
  const MethodInfo* info = FindMethod(number);
  return info == nullptr ? nullptr : info->name;
}

const MethodInfo* MethodOfDelegate(std::int32_t id) {
  const auto* const found = std::find_if(kMethods.begin(), kMethods.end(), [id](const auto& info) {
    return info.delegate != 0 && info.delegate == id;
  });
  return found == kMethods.end() ? nullptr : found;
}

Delegate ReadDelegate(Parcel& parcel) {
  Delegate delegate;
  delegate.id = parcel.Int();
  delegate.seq = parcel.Int();
  delegate.once = parcel.Flag();
  return delegate;
}

// Nothing is reserved by a count that comes from outside: a lie ends where the parcel ends.
ModelList ReadModelList(Parcel& parcel) {
  ModelList list;
  for (std::int32_t left = parcel.Count(); left > 0; --left) {
    list.models.push_back(ReadModelInfo(parcel));
  }
  list.count = parcel.Int();
  return list;
}

Request ReadRequest(Parcel& parcel) {
  const std::int32_t number = parcel.Int();
  const MethodInfo* info = FindMethod(number);
  if (info == nullptr) throw std::runtime_error("there is no method " + std::to_string(number));
  Request request;
  request.method = info->method;
  if (info->read_arguments != nullptr) info->read_arguments(parcel, &request);
  return request;
}

Parcel ReplyWith(std::int32_t value) {
  Parcel parcel;
  parcel.Int(kCommandReply).Int(value);
  return parcel;
}

Parcel ReplyWith(const std::string& value) {
  Parcel parcel;
  parcel.Int(kCommandReply).Text(value.c_str());
  return parcel;
}

Parcel AnswerWith(const Delegate& delegate, std::int32_t result,
                  const std::vector<ModelView>& models, const ListCounts& counts) {
  const auto length = static_cast<std::int32_t>(models.size());
  Parcel parcel = AnswerFor(delegate);
  parcel.Int(result);
  parcel.Count(counts.array_count.value_or(length));
  for (const ModelView& model : models) WriteModel(parcel, model);
  parcel.Int(counts.count.value_or(length));
  return parcel;
}

std::string Framed(std::uint32_t length, std::string_view content) {
  std::string message;
  message.reserve(kLengthSize + content.size());
  for (int shift = 0; shift < 32; shift += 8)
    message += static_cast<char>((length >> shift) & 0xff);
  return message.append(content);
}

std::string Framed(const Parcel& parcel) {
  const std::string_view content = parcel.Bytes();
  return Framed(static_cast<std::uint32_t>(content.size()), content);
}

void Readdress(std::string& message, const Delegate& delegate) {
  const Parcel head = AnswerFor(delegate);
  message.replace(kLengthSize, head.Bytes().size(), head.Bytes());
}

Parcel AnswerWith(const Delegate& delegate, std::int32_t result, const ProgressStep& progress) {
  Parcel parcel = AnswerFor(delegate);
  parcel.Int(result);
  parcel.Int(progress.state);
  parcel.Int(progress.index);
  parcel.Int(progress.count);
  parcel.Int(progress.percentage);
  return parcel;
}

}  // namespace sim
