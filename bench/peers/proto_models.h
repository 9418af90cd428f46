// SPDX-License-Identifier: Apache-2.0
#ifndef BENCH_PEERS_PROTO_MODELS_H_
#define BENCH_PEERS_PROTO_MODELS_H_

#include <google/protobuf/arena.h>
#include <models.pb.h>

#include <cstdint>
#include <memory>

#include "checksum.h"
#include "model_texts.h"

// Lists of models as Protocol Buffers have them. What is generated for a message is what an
// application uses of it: its texts are std::string.

inline peers::proto::ModelList MakeProtoModels(int count) {
  peers::proto::ModelList list;
  for (const ModelTexts& texts : TextsOfModels(count)) {
    peers::proto::Model* const model = list.add_models();
    model->set_id(texts.id);
    model->set_version(texts.version);
    model->set_title(texts.title);
    model->set_description(texts.description);
  }
  return list;
}

// A list to be read into, in an arena of its own, as the guide to arenas has it: from some hundred
// models on, that is a good deal faster than a message that allocates each part of it.
class ProtoList {
 public:
  peers::proto::ModelList* get() { return list_; }
  const peers::proto::ModelList& operator*() const { return *list_; }

 private:
  std::unique_ptr<google::protobuf::Arena> arena_ = std::make_unique<google::protobuf::Arena>();
  peers::proto::ModelList* list_ =
      google::protobuf::Arena::CreateMessage<peers::proto::ModelList>(arena_.get());
};

inline std::uint64_t ChecksumOfProtoList(const ProtoList& list) {
  Checksum sum;
  for (const peers::proto::Model& model : (*list).models()) {
    for (const auto* text : {&model.id(), &model.version(), &model.title(), &model.description()}) {
      sum.Add(*text);
    }
  }
  return sum.value();
}

#endif  // BENCH_PEERS_PROTO_MODELS_H_
