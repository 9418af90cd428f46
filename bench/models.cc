// SPDX-License-Identifier: Apache-2.0
#include "models.h"

#include "model_texts.h"

void WriteModels(rpc_port_parcel_h parcel, int count) {
  rpc_port_parcel_write_array_count(parcel, count);
  for (int i = 0; i < count; ++i) {
    const ModelTexts model = TextsOfModel(i);
    for (const auto* text : {&model.id, &model.version, &model.title, &model.description}) {
      rpc_port_parcel_write_string(parcel, text->c_str());
    }
  }
  rpc_port_parcel_write_int32(parcel, count);
}
