/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_MODEL_SUPPORT_H_
#define SVCMGR_MODEL_SUPPORT_H_

/* What the tests of models and of their queries share. */

#include <velmora_svcmgr.h>

#include <cstddef>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "fake_platform.h"
#include "service_model_info.h"

namespace models {

using Info = velmora_svcmgr_ai_model_info_h;
using List = velmora_svcmgr_ai_model_list_h;

/** The texts of a model; absent where they are not set. */
struct Texts {
  std::optional<std::string> id;
  std::optional<std::string> version;
  std::optional<std::string> title;
  std::optional<std::string> description;
};

inline bool operator==(const Texts& a, const Texts& b) {
  return a.id == b.id && a.version == b.version && a.title == b.title &&
         a.description == b.description;
}

inline std::ostream& operator<<(std::ostream& out, const Texts& texts) {
  for (const auto& text : {texts.id, texts.version, texts.title, texts.description}) {
    out << '[' << (text.has_value() ? text->substr(0, 60) : "(none)") << ']';
  }
  return out;
}

/** Reads a record directly: nothing is called, nothing recorded. */
inline Texts Read(Info info) {
  const auto text = [](const char* field) {
    return field == nullptr ? std::optional<std::string>() : std::string(field);
  };
  return {text(info->id), text(info->version), text(info->title), text(info->description)};
}

/** A model made through the public functions. */
inline Info NewInfo(const Texts& texts = {}) {
  Info info = nullptr;
  EXPECT_EQ(velmora_svcmgr_ai_model_info_create(&info), SVCMGR_ERROR_NONE);
  const auto set = [&](int (*setter)(Info, const char*), const std::optional<std::string>& text) {
    if (text.has_value()) {
      EXPECT_EQ(setter(info, text->c_str()), SVCMGR_ERROR_NONE);
    }
  };
  set(velmora_svcmgr_ai_model_info_set_id, texts.id);
  set(velmora_svcmgr_ai_model_info_set_version, texts.version);
  set(velmora_svcmgr_ai_model_info_set_title, texts.title);
  set(velmora_svcmgr_ai_model_info_set_description, texts.description);
  return info;
}

inline List NewList() {
  List list = nullptr;
  EXPECT_EQ(velmora_svcmgr_ai_model_list_create(&list), SVCMGR_ERROR_NONE);
  return list;
}

/** Adds a copy of a model; the list's storage enters the ledger of blocks. */
inline int Add(List list, Info info) {
  const fake::NewTracking tracking;
  return velmora_svcmgr_ai_model_list_add(list, info);
}

/** Adds a model of these texts. */
inline void Add(List list, const Texts& texts) {
  const Info info = NewInfo(texts);
  EXPECT_EQ(Add(list, info), SVCMGR_ERROR_NONE);
  EXPECT_EQ(velmora_svcmgr_ai_model_info_destroy(info), SVCMGR_ERROR_NONE);
}

inline int Size(List list) {
  int size = -1;
  EXPECT_EQ(velmora_svcmgr_ai_model_list_get_size(list, &size), SVCMGR_ERROR_NONE);
  return size;
}

/** One model of a list, read through the public functions. */
inline Texts At(List list, int index) {
  Info copy = nullptr;
  EXPECT_EQ(velmora_svcmgr_ai_model_list_get(list, index, &copy), SVCMGR_ERROR_NONE);
  if (copy == nullptr) return {};
  Texts texts = Read(copy);
  EXPECT_EQ(velmora_svcmgr_ai_model_info_destroy(copy), SVCMGR_ERROR_NONE);
  return texts;
}

/** All models of a list, in order. */
inline std::vector<Texts> Contents(List list) {
  std::vector<Texts> contents;
  for (int i = 0; i < Size(list); ++i) contents.push_back(At(list, i));
  return contents;
}

/** The trace without the calls' arguments. */
inline std::vector<std::string> Steps() {
  std::vector<std::string> steps = fake::Trace();
  for (std::string& step : steps) {
    const bool record = step.compare(0, 2, "I ") == 0 || step.compare(0, 2, "E ") == 0;
    if (!record) step.resize(step.find('('));
  }
  return steps;
}

/** A record that a function which the platform calls back writes when something was thrown. */
MATCHER(IsUnknownException, "") {
  return arg.priority == DLOG_ERROR && arg.message == "Unknown Exception";
}

/** Names the instances of a test by the `name` of their rows. */
struct NameOfRow {
  template <typename Row>
  std::string operator()(const ::testing::TestParamInfo<Row>& info) const {
    return info.param.name;
  }
};

}  // namespace models

#endif  // SVCMGR_MODEL_SUPPORT_H_
