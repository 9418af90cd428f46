// SPDX-License-Identifier: Apache-2.0
// Makes an application's list of the bytes of a message, many times in a row:
//
//     decode_peer protobuf|gvariant|capnp|capnp-in-place TIMES MODELS
//     decode_peer protobuf-records|gvariant-records|capnp-records TIMES MODELS
//
// prints the checksum of the list, and then the nanoseconds of each time. Each list is the application's
// own, so that no message is used again for the next one. With "-records" it ends with the records that
// the library would have to make.

#include <capnp/message.h>
#include <capnp/serialize.h>
#include <glib.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_world.h"
#include "capnp_models.h"
#include "peer_runs.h"
#include "proto_models.h"
#include "query_runs.h"

namespace {

void RunProtobuf(const QueryRuns& runs) {
  const std::string bytes = MakeProtoModels(runs.models).SerializeAsString();
  const auto decode = [&] {
    ProtoList list;
    Require(list.get()->ParseFromString(bytes), "read a list");
    return list;
  };
  if (runs.kind == "protobuf-records") {
    RunQueriesForRecords(runs.queries, [&](TwoRecords* records) {
      const ProtoList list = decode();
      for (const peers::proto::Model& model : (*list).models()) {
        records->Add({model.id().c_str(), model.version().c_str(), model.title().c_str(),
                      model.description().c_str()});
      }
    });
    return;
  }
  RunQueries(runs.queries, decode, ChecksumOfProtoList, [](const ProtoList&) {});
}

GBytes* GVariantBytes(int count) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(ssss)"));
  for (const ModelTexts& model : TextsOfModels(count)) {
    g_variant_builder_add(&builder, "(ssss)", model.id.c_str(), model.version.c_str(),
                          model.title.c_str(), model.description.c_str());
  }
  GVariant* const models = g_variant_ref_sink(g_variant_builder_end(&builder));
  GBytes* const bytes = g_variant_get_data_as_bytes(models);
  g_variant_unref(models);
  return bytes;
}

// Calls `start` with the number of models, and `add` with the texts of each.
template <typename Start, typename Add>
void DecodeGVariant(GBytes* bytes, Start start, Add add) {
  // From somebody else: not trusted.
  GVariant* const models =
      g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE("a(ssss)"), bytes, FALSE));
  start(g_variant_n_children(models));
  GVariantIter iter;
  g_variant_iter_init(&iter, models);
  const gchar *id, *version, *title, *description;
  while (g_variant_iter_loop(&iter, "(&s&s&s&s)", &id, &version, &title, &description)) {
    add(id, version, title, description);
  }
  g_variant_unref(models);
}

ModelTextsList ListOfGVariant(GBytes* bytes) {
  ModelTextsList list;
  DecodeGVariant(
      bytes, [&](std::size_t count) { list.reserve(count); },
      [&](auto... texts) { list.push_back({texts...}); });
  return list;
}

void RunGVariant(const QueryRuns& runs) {
  GBytes* const bytes = GVariantBytes(runs.models);
  if (runs.kind == "gvariant-records") {
    RunQueriesForRecords(runs.queries, [&](TwoRecords* records) {
      DecodeGVariant(bytes, [](std::size_t) {}, [&](auto... texts) { records->Add({texts...}); });
    });
    return;
  }
  RunQueries(
      runs.queries, [&] { return ListOfGVariant(bytes); }, ChecksumOfModels,
      [](const ModelTextsList&) {});
  g_bytes_unref(bytes);
}

void RunCapnp(const QueryRuns& runs) {
  capnp::MallocMessageBuilder message;
  BuildModels(message.initRoot<peers::capnproto::ModelList>(), runs.models);
  const kj::Array<capnp::word> words = capnp::messageToFlatArray(message);
  const auto reader = [&] { return kj::heap<capnp::FlatArrayMessageReader>(words); };
  const auto list_of = [](capnp::FlatArrayMessageReader& from) {
    return from.getRoot<peers::capnproto::ModelList>();
  };
  if (runs.kind == "capnp-records") {
    RunQueriesForRecords(runs.queries,
                         [&](TwoRecords* records) { MakeRecords(list_of(*reader()), records); });
  } else if (runs.kind == "capnp-in-place") {
    using Reader = kj::Own<capnp::FlatArrayMessageReader>;
    const auto look_up = [&] {
      Reader own = reader();
      Require(SizeOfTexts(list_of(*own)) > 0, "read a list");
      return own;
    };
    RunQueries(
        runs.queries, look_up, [&](Reader& own) { return ChecksumOfReader(list_of(*own)); },
        [](const Reader&) {});
  } else {
    RunQueries(
        runs.queries, [&] { return CopyOf(list_of(*reader())); }, ChecksumOfModels,
        [](const ModelTextsList&) {});
  }
}

}  // namespace

int main(int argc, char** argv) {
  const QueryRuns runs = ReadQueryRuns(argc, argv);
  const std::string decoder = runs.kind.substr(0, runs.kind.find('-'));
  if (decoder == "protobuf") {
    RunProtobuf(runs);
  } else if (decoder == "gvariant") {
    RunGVariant(runs);
  } else {
    Require(decoder == "capnp", "decode that");
    RunCapnp(runs);
  }
  return 0;
}
