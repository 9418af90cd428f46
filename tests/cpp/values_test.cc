// SPDX-License-Identifier: Apache-2.0
// Callables, outcomes, errors, and the owners of handles.
#include <algorithm>
#include <functional>
#include <set>
#include <sstream>
#include <type_traits>
#include <utility>

#include "face_support.h"

namespace {

using face::Word;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;
namespace vs = velmora::svcmgr;

TEST(ACallable, OwnsWhatCanOnlyBeMoved) {
  vs::Callable<int(int)> add = [held = std::make_unique<int>(40)](int n) { return *held + n; };
  vs::Callable<int(int)> moved = std::move(add);
  EXPECT_EQ(moved(2), 42);
}

TEST(ACallable, ThatIsEmptyDoesNothing) {
  EXPECT_FALSE(vs::Callable<int()>());
  EXPECT_FALSE(vs::Callable<int()>(nullptr));
  EXPECT_FALSE(vs::Callable<int()>(std::function<int()>()));
  EXPECT_FALSE(vs::Callable<int()>(static_cast<int (*)()>(nullptr)));
  EXPECT_EQ(vs::Callable<int()>()(), 0);
  EXPECT_TRUE(vs::Callable<int()>([] { return 1; }));
}

TEST(AnOutcome, HoldsAValueOrAnError) {
  vs::Outcome<std::string> good = std::string("text");
  EXPECT_TRUE(good.has_value());
  EXPECT_EQ(*good, "text");
  EXPECT_EQ(good->size(), 4U);
  const vs::Outcome<std::string> bad = vs::Error(vs::kTimedOut);
  EXPECT_FALSE(bad);
  EXPECT_EQ(bad.error(), vs::Error(vs::kTimedOut));
  EXPECT_EQ(bad.value_or("other"), "other");
  EXPECT_TRUE(vs::Outcome<void>().has_value());
  EXPECT_EQ(Word(vs::Outcome<void>(vs::Error(vs::kTimedOut))), "TIMEOUT");
}

TEST(AnOutcome, GoesOnWithItsValue) {
  const auto half = [](int n) -> vs::Outcome<int> {
    if (n % 2 != 0) return vs::Error(SVCMGR_ERROR_INVALID_PARAMETER);
    return n / 2;
  };
  EXPECT_EQ(vs::Outcome<int>(8).and_then(half).and_then(half).value_or(0), 2);
  EXPECT_EQ(Word(vs::Outcome<int>(6).and_then(half).and_then(half)),
            "SVCMGR_ERROR_INVALID_PARAMETER");
  const auto text = vs::Outcome<int>(7).transform([](int n) { return std::to_string(n); });
  EXPECT_EQ(*text, "7");
}

TEST(AnOutcome, OfNothingPassesThroughFunctionsToo) {
  const vs::Outcome<void> done;
  const vs::Outcome<void> failed = vs::Error(SVCMGR_ERROR_NO_SPACE);
  int calls = 0;
  const auto count = [&calls] { return vs::Outcome<int>(++calls); };
  EXPECT_EQ(done.and_then(count).value_or(0), 1);
  EXPECT_EQ(Word(failed.and_then(count)), "SVCMGR_ERROR_NO_SPACE");
  EXPECT_EQ(*done.transform([] { return std::string("seven"); }), "seven");
  EXPECT_EQ(Word(failed.transform([&calls] { return ++calls; })), "SVCMGR_ERROR_NO_SPACE");
  const vs::Outcome<void> still = done.transform([&calls] { ++calls; });
  EXPECT_TRUE(still.has_value());
  EXPECT_EQ(Word(failed.transform([&calls] { ++calls; })), "SVCMGR_ERROR_NO_SPACE");
  EXPECT_EQ(calls, 2) << "of a failure nothing is called";
}

TEST(AnOutcome, EndsTheProcessWhenWhatIsNotThereIsRead) {
  vs::Outcome<int> bad = vs::Error(vs::kTimedOut);
  EXPECT_DEATH(static_cast<void>(bad.value()), "the value of a failure was asked for: TIMEOUT");
  vs::Outcome<int> good = 1;
  EXPECT_DEATH(static_cast<void>(good.error()), "the error of a success was asked for");
}

TEST(AnOutcome, ThrowsWhereItIsAskedTo) {
  EXPECT_EQ(vs::Outcome<int>(1).value_or_throw(), 1);
  try {
    vs::Outcome<void>(vs::Error(vs::kTimedOut)).value_or_throw();
    FAIL();
  } catch (const vs::OutcomeError& error) {
    EXPECT_EQ(error.error().code(), vs::kTimedOut);
    EXPECT_STREQ(error.what(), "the agent did not answer in time");
  }
}

constexpr int kCodes[] = {
    SVCMGR_ERROR_NONE,
    SVCMGR_ERROR_CONNECTION_FAILED,
    SVCMGR_ERROR_IO_ERROR,
    SVCMGR_ERROR_OUT_OF_MEMORY,
    SVCMGR_ERROR_PERMISSION_DENIED,
    SVCMGR_ERROR_INVALID_PARAMETER,
    SVCMGR_ERROR_NO_SPACE,
    SVCMGR_ERROR_INVALID_OPERATION,
    SVCMGR_ERROR_ALREADY_CONNECTED,
    SVCMGR_ERROR_NOT_CONNECTED,
    SVCMGR_ERROR_NOT_SUPPORTED,
    SVCMGR_ERROR_INVALID_API_LEVEL,
    SVCMGR_ERROR_KYR_DISABLED,
    SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION,
    SVCMGR_ERROR_AGENT_CODE_6,
    SVCMGR_ERROR_OUT_OF_INDEX,
    SVCMGR_ERROR_AGENT_CODE_3,
    vs::kConnectionLost,
    vs::kTimedOut,
    vs::kSessionExists,
    vs::kNoLicense,
    vs::kWorkFailed,
    vs::kNotTaken,
};

TEST(AnError, HasANameAMeaningAndARemedyOfItsOwn) {
  std::set<std::string> names;
  for (const int code : kCodes) {
    const vs::Error error(code);
    EXPECT_TRUE(names.insert(error.name()).second) << error.name();
    EXPECT_NE(std::string(error.name()), "UNKNOWN") << code;
    EXPECT_THAT(error.meaning(), Not(HasSubstr("unknown")));
    EXPECT_EQ(std::string(error.remedy()).back(), '.');
  }
  EXPECT_STREQ(vs::Error(-999).name(), "UNKNOWN");
  EXPECT_EQ(vs::Error(-999).code(), -999);
}

TEST(AnError, IsWrittenWithItsMeaning) {
  std::ostringstream out;
  out << vs::Error(SVCMGR_ERROR_NO_SPACE);
  EXPECT_EQ(out.str(), "SVCMGR_ERROR_NO_SPACE: the device has no storage left");
}

struct AHandle : fake::PlatformTest {
  static vs::ModelList ThreeModels() {
    return vs::ModelList::Make({"a", {"b", "2.0"}, "c"}).value();
  }
};

TEST_F(AHandle, OfAModelReadsItsTexts) {
  vs::ModelName name("a", "1.0");
  name.title = "A";
  const vs::Model model = name.Make().value();
  EXPECT_EQ(model.id(), "a");
  EXPECT_EQ(model.version(), "1.0");
  EXPECT_EQ(model.title(), "A");
  EXPECT_EQ(model.description(), "");
  EXPECT_TRUE(model.Read(vs::Field::kDescription));
  EXPECT_EQ(model.Read(vs::Field::kTitle).str(), "A");
}

TEST_F(AHandle, TellsAbsentTextsFromEmptyOnes) {
  vs::Model::Handle raw = nullptr;
  ASSERT_EQ(velmora_svcmgr_ai_model_info_create(&raw), SVCMGR_ERROR_NONE);
  const vs::Model model(raw);
  EXPECT_FALSE(model.Read(vs::Field::kId));
  EXPECT_EQ(Word(model.TryRead(vs::Field::kId)), "ok");
  EXPECT_EQ(model.id(), "");
  EXPECT_FALSE(vs::Model());
  EXPECT_EQ(vs::Model().id(), "");
}

TEST_F(AHandle, OfAListIsWalkedThrough) {
  const vs::ModelList list = ThreeModels();
  std::vector<std::string> ids;
  for (const auto& model : list) ids.push_back(model.id());
  EXPECT_THAT(ids, ElementsAre("a", "b", "c"));
  EXPECT_EQ(list.begin()->id(), "a");
  EXPECT_EQ((list.end() - 1)->version(), "");
  EXPECT_EQ(list[1].version(), "2.0");
  const std::vector<vs::ModelName> names(list.begin(), list.end());
  EXPECT_THAT(names, SizeIs(3));
  const auto found = std::find_if(list.begin(), list.end(),
                                  [](const vs::Model& model) { return model.id() == "b"; });
  EXPECT_EQ(found - list.begin(), 1);
}

TEST_F(AHandle, OfAListIsNeverAskedPastItsEnd) {
  const vs::ModelList list = ThreeModels();
  EXPECT_EQ(Word(list.At(3)), "SVCMGR_ERROR_OUT_OF_INDEX");
  EXPECT_EQ(Word(list.At(static_cast<std::size_t>(-1))), "SVCMGR_ERROR_OUT_OF_INDEX");
  EXPECT_FALSE(list[3]);
  EXPECT_THAT(fake::LogMessages(), Not(testing::Contains(HasSubstr("Out of Index"))));
  EXPECT_EQ(Word(vs::ModelList().At(0)), "SVCMGR_ERROR_OUT_OF_INDEX");
  for (const auto& model : vs::ModelList()) FAIL() << model.id();
}

TEST_F(AHandle, IsLeftEmptyWhenItIsMoved) {
  vs::ModelList list = ThreeModels();
  const vs::ModelList other = std::move(list);
  EXPECT_EQ(other.size(), 3U);
  // NOLINTBEGIN(bugprone-use-after-move,clang-analyzer-cplusplus.Move): that is what is asked
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(list.handle(), nullptr);
  // NOLINTEND(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
}

TEST_F(AHandle, IsGivenUpForTheCInterface) {
  vs::ModelList list = ThreeModels();
  const vs::ModelList::Handle raw = list.release();
  EXPECT_TRUE(list.empty());
  const vs::ModelList again(raw);
  EXPECT_EQ(again.size(), 3U);
}

TEST_F(AHandle, OfAgentsHasTheirNames) {
  const vs::AgentList agents = vs::AgentList::Make({"one", "two"}).value();
  std::vector<std::string> names(agents.begin(), agents.end());
  EXPECT_THAT(names, ElementsAre("one", "two"));
  EXPECT_EQ(Word(agents.At(2)), "SVCMGR_ERROR_OUT_OF_INDEX");
  EXPECT_EQ(agents[5], "");
}

TEST_F(AHandle, ThatCannotBeMadeSaysWhy) {
  fake::RemoveAgent();
  EXPECT_EQ(Word(vs::ModelList::Make({"a"})), "SVCMGR_ERROR_NOT_SUPPORTED");
  EXPECT_EQ(Word(vs::AgentList::Make({"a"})), "SVCMGR_ERROR_NOT_SUPPORTED");
  EXPECT_EQ(Word(vs::ModelName("a").Make()), "SVCMGR_ERROR_NOT_SUPPORTED");
}

TEST_F(AHandle, ThatMemoryDoesNotSufficeForIsReleased) {
  for (int n = 1;; ++n) {
    const fake::FailingAllocation failing(fake::Allocator::kAny, n);
    const vs::Outcome<vs::Model> model = vs::ModelName("a").Make();
    if (!failing.Happened()) break;
    EXPECT_FALSE(model);
  }
}

template <typename T, typename = void>
struct HasView : std::false_type {};
template <typename T>
struct HasView<T, std::void_t<decltype(std::declval<T>().view())>> : std::true_type {};

TEST(AText, GivesAViewOnlyWhereItOutlivesTheExpression) {
  EXPECT_TRUE(HasView<const vs::Text&>::value);
  EXPECT_FALSE(HasView<vs::Text>::value) << "model.Read(field).view() dangles";
}

TEST(AnError, ThatIsUnknownIsPrintedWithItsCode) {
  std::ostringstream text;
  text << vs::Error(-999);
  EXPECT_THAT(text.str(), testing::HasSubstr("-999"));
}

TEST(AnOutcome, IsMadeOfWhatMakesAValueAndOfNoCode) {
  const vs::Outcome<std::string> text = "text";
  EXPECT_EQ(*text, "text");
  EXPECT_FALSE((std::is_convertible_v<velmora_svcmgr_error_e, vs::Outcome<int>>));
  EXPECT_FALSE((std::is_convertible_v<vs::OwnError, vs::Outcome<int>>));
}

TEST(AnOutcome, OfATruthIsNoTruthItself) {
  EXPECT_FALSE((std::is_constructible_v<bool, vs::Outcome<bool>>));
  EXPECT_TRUE((std::is_constructible_v<bool, vs::Outcome<bool>&>));
  EXPECT_TRUE((std::is_constructible_v<bool, vs::Outcome<int>>));
}

TEST(AnOutcome, GoesOnWithoutBeingMovedFrom) {
  const vs::Outcome<std::string> text = "text";
  EXPECT_EQ(*text.transform([](const std::string& t) { return t.size(); }), 4U);
  int seen = 0;
  const vs::Outcome<void> none = text.transform([&](const std::string&) { ++seen; });
  EXPECT_TRUE(none.has_value());
  EXPECT_EQ(seen, 1);
  const auto next = text.and_then(
      [](const std::string&) -> vs::Outcome<int> { return vs::Error(vs::kTimedOut); });
  EXPECT_EQ(next.error().code(), vs::kTimedOut);
  EXPECT_EQ(*text, "text");
}

}  // namespace
