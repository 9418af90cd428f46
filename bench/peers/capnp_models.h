// SPDX-License-Identifier: Apache-2.0
#ifndef BENCH_PEERS_CAPNP_MODELS_H_
#define BENCH_PEERS_CAPNP_MODELS_H_

#include <models.capnp.h>

#include <cstdint>
#include <string>

#include "checksum.h"
#include "peer_runs.h"
#include "two_records.h"

// Lists of models as Cap'n Proto has them: read in the message, as its manual does it, or copied, for
// what outlives the message.

inline void BuildModels(peers::capnproto::ModelList::Builder list, int count) {
  auto models = list.initModels(static_cast<unsigned>(count));
  for (unsigned i = 0; i < models.size(); ++i) {
    const ModelTexts texts = TextsOfModel(static_cast<int>(i));
    models[i].setId(texts.id.c_str());
    models[i].setVersion(texts.version.c_str());
    models[i].setTitle(texts.title.c_str());
    models[i].setDescription(texts.description.c_str());
  }
}

// Calls `use` with each text.
template <typename Use>
void ForEachText(peers::capnproto::ModelList::Reader list, Use use) {
  for (const auto model : list.getModels()) {
    use(model.getId());
    use(model.getVersion());
    use(model.getTitle());
    use(model.getDescription());
  }
}

// The bytes of all texts, so that each is looked up, but none is read.
inline std::size_t SizeOfTexts(peers::capnproto::ModelList::Reader list) {
  std::size_t size = 0;
  ForEachText(list, [&](capnp::Text::Reader text) { size += text.size(); });
  return size;
}

inline std::uint64_t ChecksumOfReader(peers::capnproto::ModelList::Reader list) {
  Checksum sum;
  ForEachText(list, [&](capnp::Text::Reader text) { sum.Add(text.cStr()); });
  return sum.value();
}

inline std::string CopyOf(capnp::Text::Reader text) { return {text.begin(), text.size()}; }

inline ModelTextsList CopyOf(peers::capnproto::ModelList::Reader list) {
  ModelTextsList models;
  models.reserve(list.getModels().size());
  for (const auto model : list.getModels()) {
    models.push_back({CopyOf(model.getId()), CopyOf(model.getVersion()), CopyOf(model.getTitle()),
                      CopyOf(model.getDescription())});
  }
  return models;
}

inline void MakeRecords(peers::capnproto::ModelList::Reader list, TwoRecords* records) {
  for (const auto model : list.getModels()) {
    records->Add({model.getId().cStr(), model.getVersion().cStr(), model.getTitle().cStr(),
                  model.getDescription().cStr()});
  }
}

#endif  // BENCH_PEERS_CAPNP_MODELS_H_
