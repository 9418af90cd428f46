// SPDX-License-Identifier: Apache-2.0
//
// Lists the models that this application may use, with their versions and descriptions, and shows
// how handles and texts of the C interface get owners in C++.
#include <glib.h>
#include <velmora_svcmgr.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

namespace {

struct Destroy {
  void operator()(velmora_svcmgr_ai_model_info_s* info) const {
    velmora_svcmgr_ai_model_info_destroy(info);
  }
  void operator()(velmora_svcmgr_ai_model_list_s* list) const {
    velmora_svcmgr_ai_model_list_destroy(list);
  }
  void operator()(char* text) const { std::free(text); }
};

using ModelInfo = std::unique_ptr<velmora_svcmgr_ai_model_info_s, Destroy>;
using ModelList = std::unique_ptr<velmora_svcmgr_ai_model_list_s, Destroy>;
using Text = std::unique_ptr<char, Destroy>;

using Getter = int (*)(velmora_svcmgr_ai_model_info_h, char**);

std::string TextOf(const ModelInfo& info, Getter get) {
  char* text = nullptr;
  if (get(info.get(), &text) != SVCMGR_ERROR_NONE) return "(not set)";
  return Text(text).get();
}

int SizeOf(const ModelList& list) {
  int size = 0;
  velmora_svcmgr_ai_model_list_get_size(list.get(), &size);
  return size;
}

ModelInfo ModelAt(const ModelList& list, int index) {
  velmora_svcmgr_ai_model_info_h info = nullptr;
  velmora_svcmgr_ai_model_list_get(list.get(), index, &info);
  return ModelInfo(info);
}

class Listing {
 public:
  /** Returns SVCMGR_ERROR_NONE, or why there is no list. */
  int Run() {
    // Connecting may succeed and never report, and an agent may never answer.
    const guint limit = g_timeout_add_seconds(10, OnTimeIsUp, this);
    End(velmora_svcmgr_connect(OnConnection, this));
    while (!result_) g_main_context_iteration(nullptr, TRUE);
    if (!time_is_up_) g_source_remove(limit);
    velmora_svcmgr_disconnect();
    return *result_;
  }

 private:
  // The first failure is the result; success is told apart by who reports it.
  void End(int error) {
    if (error != SVCMGR_ERROR_NONE && !result_) result_ = error;
  }

  static void OnConnection(int error, int state, void* self) {
    auto* listing = static_cast<Listing*>(self);
    if (state == SVCMGR_CONNECTION_STATE_CONNECTED)
      listing->End(velmora_svcmgr_ai_request_usable_model_list_with_description(OnModels, listing));
    else
      listing->End(error != SVCMGR_ERROR_NONE ? error : SVCMGR_ERROR_NOT_CONNECTED);
  }

  static void OnModels(int error, velmora_svcmgr_ai_model_list_h handle, void* self) {
    const ModelList list(handle);
    auto* listing = static_cast<Listing*>(self);
    if (listing->result_) return;  // an agent may answer again
    for (int i = 0; i < SizeOf(list); ++i) {
      const ModelInfo model = ModelAt(list, i);
      std::cout << TextOf(model, velmora_svcmgr_ai_model_info_get_id) << " "
                << TextOf(model, velmora_svcmgr_ai_model_info_get_version) << ": "
                << TextOf(model, velmora_svcmgr_ai_model_info_get_description) << "\n";
    }
    listing->result_ = error;
  }

  static gboolean OnTimeIsUp(void* self) {
    auto* listing = static_cast<Listing*>(self);
    listing->time_is_up_ = true;
    listing->End(SVCMGR_ERROR_CONNECTION_FAILED);
    return G_SOURCE_REMOVE;
  }

  std::optional<int> result_;
  bool time_is_up_ = false;
};

}  // namespace

int main() {
  const int result = Listing().Run();
  if (result != SVCMGR_ERROR_NONE) std::cerr << "list-models-cc: error " << result << "\n";
  return result == SVCMGR_ERROR_NONE && std::cout.flush() ? EXIT_SUCCESS : EXIT_FAILURE;
}
