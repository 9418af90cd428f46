// SPDX-License-Identifier: Apache-2.0
#ifndef BENCH_PEERS_PROTO_MODELS_H_
#define BENCH_PEERS_PROTO_MODELS_H_

#include <models.pb.h>

#include <cstdint>

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

inline std::uint64_t ChecksumOfProtoModels(const peers::proto::ModelList& list) {
  Checksum sum;
  for (const peers::proto::Model& model : list.models()) {
    for (const auto* text : {&model.id(), &model.version(), &model.title(), &model.description()}) {
      sum.Add(*text);
    }
  }
  return sum.value();
}

#endif  // BENCH_PEERS_PROTO_MODELS_H_
