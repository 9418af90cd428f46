// SPDX-License-Identifier: Apache-2.0
#include "protocol/messages.h"

namespace sim {
namespace {

Delegate ReadDelegate(Parcel& parcel) {
  Delegate delegate;
  delegate.id = parcel.Int();
  delegate.seq = parcel.Int();
  delegate.once = parcel.Flag();
  return delegate;
}

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

// Nothing is reserved by a count that comes from outside: a lie ends where the parcel ends.
ModelList ReadModelList(Parcel& parcel) {
  ModelList list;
  for (std::int32_t left = parcel.Count(); left > 0; --left) {
    list.models.push_back(ReadModelInfo(parcel));
  }
  list.count = parcel.Int();
  return list;
}

std::vector<std::string> ReadAgents(Parcel& parcel) {
  std::vector<std::string> agents;
  for (std::int32_t left = parcel.Count(); left > 0; --left) {
    agents.push_back(parcel.Text());
  }
  parcel.Int();  // the count beside the list says nothing more
  return agents;
}

void ReadCaller(Parcel& parcel, Request* request) {
  request->app_id = parcel.Text();
  request->app_version = parcel.Text();
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

Request ReadRequest(Parcel& parcel) {
  const std::int32_t number = parcel.Int();
  if (MethodName(number) == nullptr) {
    throw std::runtime_error("there is no method " + std::to_string(number));
  }
  Request request;
  request.method = static_cast<Method>(number);
  switch (request.method) {
    case Method::kGetAgentApiLevel:
    case Method::kGetLicense:
    case Method::kRequestUpdate:
      break;
    case Method::kGetUsableModelList:
    case Method::kGetUsableModelListWithDesc:
      request.delegate = ReadDelegate(parcel);
      ReadCaller(parcel, &request);
      break;
    case Method::kGetModelVersionList:
      request.delegate = ReadDelegate(parcel);
      request.model = ReadModelInfo(parcel);
      ReadCaller(parcel, &request);
      break;
    case Method::kRequestToUpdate:
    case Method::kRequestToUninstall:
      request.delegate = ReadDelegate(parcel);
      request.models = ReadModelList(parcel);
      break;
    case Method::kRequestUpdateWithList:
      request.agents = ReadAgents(parcel);
      break;
  }
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
  for (const ModelView& model : models) {
    WriteModel(parcel, model);
  }
  parcel.Int(counts.count.value_or(length));
  return parcel;
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
