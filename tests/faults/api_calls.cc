// SPDX-License-Identifier: Apache-2.0
#include "api_calls.h"

#include <cxxabi.h>
#include <velmora_svcmgr.h>

#include <cstring>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <type_traits>

#include "balance.h"
#include "injection.h"
#include "internal.h"
#include "owners.h"
#include "unit/rules.h"

namespace faults {
namespace {

using Codes = std::map<std::string, std::set<int>>;

Codes& codes() {
  static auto* const forever = new Codes;
  return *forever;
}

void JudgeCode(const char* name, int code) {
  const fake::internal::Guard guard;
  const auto rule = codes().find(name);
  if (rule == codes().end() || rule->second.count(code) > 0) return;
  Find("%s returns %d, which its rules do not name", name, code);
}

/* Who owns what an argument leads to. */

template <typename T>
void Give(T) {}
template <typename T>
void Give(T** out) {
  if (out != nullptr && *out != nullptr) GiveToApplication(*out);
}

/**
 * A test that takes it for granted that a destroy fails, or that a handle was made, goes on with what
 * is none.
 */
template <typename T>
bool IsMisused(T argument) {
  if constexpr (std::is_pointer_v<T> && !std::is_function_v<std::remove_pointer_t<T>>) {
    return argument != nullptr && IsReleased(argument);
  }
  return false;
}

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

template <typename... Arguments>
void Settle(const char* name, const Arguments&... arguments) {
  const fake::internal::Inside inside;
  if (EndsWith(name, "_destroy")) {
    (TakeFromApplication(reinterpret_cast<const void*>(arguments)), ...);
  } else {
    (Give(arguments), ...);
  }
}

/** What a callback hands over is the application's from there on. */
template <typename Handle>
struct Redirection {
  using Callback = void (*)(int, Handle, void*);

  static void Run(int error, Handle handle, void* self) {
    {
      const fake::internal::Inside inside;
      if (handle != nullptr) GiveToApplication(handle);
    }
    const auto* const redirection = static_cast<Redirection*>(self);
    redirection->callback(error, handle, redirection->user_data);
  }

  Callback callback;
  void* user_data;
};

template <typename Handle, typename... Arguments>
void Redirect(std::tuple<Arguments...>& arguments) {
  using Callback = typename Redirection<Handle>::Callback;
  if constexpr ((std::is_same_v<Arguments, Callback> || ...)) {
    auto& callback = std::get<Callback>(arguments);
    if (callback == nullptr) return;
    const fake::internal::Inside inside;
    auto& user_data = std::get<void*>(arguments);
    // Lives as long as the process: nobody knows which answer is the last.
    user_data = new Redirection<Handle>{callback, user_data};
    callback = Redirection<Handle>::Run;
  }
}

// The forced unwind of a thread has no object.
template <typename... Parameters>
__attribute__((no_sanitize("null"))) int Judge(const char* name, int (*real)(Parameters...),
                                               Parameters... given) {
  const bool by_library = FindCaller().owner == Owner::kLibrary;
  std::tuple<Parameters...> arguments(given...);
  if (!by_library) {
    if (IsArmedProcess() && (false || ... || IsMisused(given))) GiveUp();
    Redirect<velmora_svcmgr_ai_model_list_h>(arguments);
    Redirect<velmora_svcmgr_ai_progress_h>(arguments);
  }
  int code = 0;
  try {
    const Judged judged;
    code = std::apply(real, arguments);
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    Find("an exception escapes from %s", name);
    throw;
  }
  JudgeCode(name, code);
  if (code == SVCMGR_ERROR_NONE && !by_library) Settle(name, given...);
  return code;
}

template <typename Function>
struct Signature;
template <typename... Parameters>
struct Signature<int(Parameters...)> {
  template <std::size_t n>
  using Parameter = std::tuple_element_t<n, std::tuple<Parameters...>>;
};

}  // namespace

void JudgeCodes() {
  for (const rules::Function& function : rules::Functions()) {
    std::set<int> allowed = function.Codes();
    if (function.exhausted) allowed.insert(function.exhausted->begin(), function.exhausted->end());
    codes()[function.name] = std::move(allowed);
  }
}

}  // namespace faults

#define WRAP_0(name)                       \
  extern "C" decltype(name) __real_##name; \
  extern "C" int __wrap_##name();          \
  int __wrap_##name() { return faults::Judge(#name, __real_##name); }
#define WRAP_1(name)                                                     \
  extern "C" decltype(name) __real_##name;                               \
  extern "C" decltype(name) __wrap_##name;                               \
  int __wrap_##name(faults::Signature<decltype(name)>::Parameter<0> a) { \
    return faults::Judge(#name, __real_##name, a);                       \
  }
#define WRAP_2(name)                                                     \
  extern "C" decltype(name) __real_##name;                               \
  extern "C" decltype(name) __wrap_##name;                               \
  int __wrap_##name(faults::Signature<decltype(name)>::Parameter<0> a,   \
                    faults::Signature<decltype(name)>::Parameter<1> b) { \
    return faults::Judge(#name, __real_##name, a, b);                    \
  }
#define WRAP_3(name)                                                     \
  extern "C" decltype(name) __real_##name;                               \
  extern "C" decltype(name) __wrap_##name;                               \
  int __wrap_##name(faults::Signature<decltype(name)>::Parameter<0> a,   \
                    faults::Signature<decltype(name)>::Parameter<1> b,   \
                    faults::Signature<decltype(name)>::Parameter<2> c) { \
    return faults::Judge(#name, __real_##name, a, b, c);                 \
  }

WRAP_2(velmora_svcmgr_connect)
WRAP_0(velmora_svcmgr_disconnect)
WRAP_1(velmora_svcmgr_get_license_fulltext)
WRAP_1(velmora_svcmgr_get_agent_api_level)
WRAP_1(velmora_svcmgr_get_client_api_level)
WRAP_1(velmora_svcmgr_agent_list_create)
WRAP_1(velmora_svcmgr_agent_list_destroy)
WRAP_2(velmora_svcmgr_agent_list_add)
WRAP_3(velmora_svcmgr_agent_list_get)
WRAP_2(velmora_svcmgr_agent_list_get_size)
WRAP_0(velmora_svcmgr_request_update)
WRAP_1(velmora_svcmgr_request_update_with_list)
WRAP_1(velmora_svcmgr_is_being_updated)
WRAP_2(velmora_svcmgr_set_update_status_cb)
WRAP_0(velmora_svcmgr_unset_update_status_cb)
WRAP_1(velmora_svcmgr_ai_model_info_create)
WRAP_1(velmora_svcmgr_ai_model_info_destroy)
WRAP_2(velmora_svcmgr_ai_model_info_get_id)
WRAP_2(velmora_svcmgr_ai_model_info_get_version)
WRAP_2(velmora_svcmgr_ai_model_info_get_title)
WRAP_2(velmora_svcmgr_ai_model_info_get_description)
WRAP_2(velmora_svcmgr_ai_model_info_set_id)
WRAP_2(velmora_svcmgr_ai_model_info_set_version)
WRAP_2(velmora_svcmgr_ai_model_info_set_title)
WRAP_2(velmora_svcmgr_ai_model_info_set_description)
WRAP_1(velmora_svcmgr_ai_model_list_create)
WRAP_1(velmora_svcmgr_ai_model_list_destroy)
WRAP_2(velmora_svcmgr_ai_model_list_add)
WRAP_3(velmora_svcmgr_ai_model_list_get)
WRAP_2(velmora_svcmgr_ai_model_list_get_size)
WRAP_2(velmora_svcmgr_ai_request_usable_model_list)
WRAP_2(velmora_svcmgr_ai_request_usable_model_list_with_description)
WRAP_3(velmora_svcmgr_ai_request_usable_model_list_with_category)
WRAP_3(velmora_svcmgr_ai_request_model_version_list)
WRAP_1(velmora_svcmgr_ai_progress_create)
WRAP_1(velmora_svcmgr_ai_progress_destroy)
WRAP_2(velmora_svcmgr_ai_progress_get_percentage)
WRAP_2(velmora_svcmgr_ai_progress_get_count)
WRAP_2(velmora_svcmgr_ai_progress_get_index)
WRAP_2(velmora_svcmgr_ai_progress_get_state)
WRAP_2(velmora_svcmgr_ai_progress_set_percentage)
WRAP_2(velmora_svcmgr_ai_progress_set_count)
WRAP_2(velmora_svcmgr_ai_progress_set_index)
WRAP_2(velmora_svcmgr_ai_progress_set_state)
WRAP_3(velmora_svcmgr_ai_request_to_update)
WRAP_3(velmora_svcmgr_ai_request_to_uninstall)
WRAP_2(velmora_svcmgr_ai_register_status_cb)
WRAP_0(velmora_svcmgr_ai_deregister_status_cb)
