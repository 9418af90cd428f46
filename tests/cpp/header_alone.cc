// SPDX-License-Identifier: Apache-2.0
// Uses every template of the header, without anything else included.
#include <velmora_svcmgr.hpp>

#if defined(__cpp_lib_ranges)
#include <ranges>
#endif

namespace vs = velmora::svcmgr;

#if defined(__cpp_lib_ranges)
static_assert(std::ranges::random_access_range<const vs::ModelList>);
static_assert(std::ranges::sized_range<const vs::AgentList>);
#endif
static_assert(std::is_nothrow_move_constructible_v<vs::Outcome<vs::ModelList>>);
static_assert(!std::is_copy_constructible_v<vs::Token>);
static_assert(!std::is_copy_constructible_v<vs::ModelWork>);

vs::Token AskAll(vs::Session& session);

vs::Token AskAll(vs::Session& session) {
  session.OnState(nullptr);
  session
      .Models([](const vs::Outcome<vs::ModelList>& models) {
        if (!models) return;
        for (const vs::Model& model : *models) static_cast<void>(model.id());
      })
      .Detach();
  session.License(nullptr, vs::Milliseconds(1)).Detach();
  session.RequestUpdate({"an agent"}, nullptr).Detach();
  session.RunBlocking<int>([]() -> vs::Outcome<int> { return 1; }, nullptr).Detach();
  session.Update({"a model", {"another", "1.0"}}, nullptr, nullptr).Detach();
  session
      .Uninstall({"a model"}, nullptr, nullptr,
                 {vs::kNoLimit, vs::kNoLimit, vs::Resend::kAfterRestart, nullptr})
      .Detach();
  vs::Outcome<vs::Token> updates = session.OnUpdateStatus([](vs::UpdateStatus) {});
  if (updates) return std::move(*updates);
  return session.OnModelStatus([](vs::ModelStatus) {}).value_or(vs::Token());
}
