// SPDX-License-Identifier: Apache-2.0
// Model and model list handles.

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "fake_platform.h"
#include "kept.h"
#include "model_support.h"

namespace {

using fake::Allocator;
using fake::FailingAllocation;
using fake::IsError;
using fake::IsInfo;
using models::Add;
using models::At;
using models::Contents;
using models::Info;
using models::List;
using models::NameOfRow;
using models::NewInfo;
using models::NewList;
using models::Read;
using models::Size;
using models::Steps;
using models::Texts;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char kInfoFile[] = "service_model_info.cc";
constexpr char kListFile[] = "service_model_list.cc";
constexpr char kInfoDestroy[] = "velmora_svcmgr_ai_model_info_destroy";
constexpr char kListDestroy[] = "velmora_svcmgr_ai_model_list_destroy";
constexpr char kListGet[] = "velmora_svcmgr_ai_model_list_get";
constexpr std::size_t kBound = 2048;

const Texts kFull = {"model-1", "1.0", "A title", "A description"};

// What outputs hold before a call; never followed or released.
char untouched_text[] = "untouched";
const Info kUntouchedInfo = reinterpret_cast<Info>(untouched_text);

// A model with no texts, one with all, an empty list and a list of one model; and outputs.
// Whatever lives at the end is released through the public functions.
struct ModelHandles : fake::PlatformTest {
  void SetUp() override {
    PlatformTest::SetUp();
    blank = NewInfo();
    full = NewInfo(kFull);
    empty = NewList();
    filled = NewList();
    EXPECT_EQ(Add(filled, full), SVCMGR_ERROR_NONE);
    fake::ClearRecord();
  }

  void TearDown() override {
    fake::ForgetScripts("package_info_create");
    fake::InstallAgent("2.3.0");
    for (const Info info : {blank, full, out_info}) Destroy(info);
    for (const List list : {empty, filled}) Destroy(list);
    if (out_text != untouched_text) free(out_text);
    fake::ExpectKept(fake::SeesOperatorNew() ? kept + links : 0);
    fake::ExpectKept(fake::Kept::kStorage, kept);
    PlatformTest::TearDown();
  }

  static void Destroy(Info info) {
    if (info == nullptr || info == kUntouchedInfo) return;
    EXPECT_EQ(velmora_svcmgr_ai_model_info_destroy(info), SVCMGR_ERROR_NONE);
  }

  static void Destroy(List list) {
    if (list == nullptr) return;
    EXPECT_EQ(velmora_svcmgr_ai_model_list_destroy(list), SVCMGR_ERROR_NONE);
  }

  void ExpectOutputsUntouched() const {
    EXPECT_EQ(out_info, kUntouchedInfo);
    EXPECT_EQ(out_text, untouched_text);
  }

  // Nothing that was handed in has changed.
  void ExpectHandlesIntact() const {
    EXPECT_EQ(Read(blank), Texts{});
    EXPECT_EQ(Read(full), kFull);
    EXPECT_THAT(Contents(empty), IsEmpty());
    EXPECT_THAT(Contents(filled), ElementsAre(kFull));
  }

  Info blank = nullptr;
  Info full = nullptr;
  List empty = nullptr;
  List filled = nullptr;
  Info out_info = kUntouchedInfo;
  char* out_text = untouched_text;
  std::size_t kept = 1;   // lists with a storage: `filled`
  std::size_t links = 0;  // to texts that are kept
};

// ---- Creating and destroying --------------------------------------------------------------------

// The order of a record's fields is part of what other code may rely on.
static_assert(offsetof(velmora_svcmgr_ai_model_info_s, id) == 0);
static_assert(offsetof(velmora_svcmgr_ai_model_info_s, version) == sizeof(char*));
static_assert(offsetof(velmora_svcmgr_ai_model_info_s, title) == 2 * sizeof(char*));
static_assert(offsetof(velmora_svcmgr_ai_model_info_s, description) == 3 * sizeof(char*));
static_assert(sizeof(velmora_svcmgr_ai_model_info_s) == 4 * sizeof(char*));

// All sixteen combinations of texts that are set and texts that are not.
std::vector<Texts> AllCombinations() {
  std::vector<Texts> all;
  for (int mask = 0; mask < 16; ++mask) {
    const auto text = [&](int bit, const std::string& value) {
      return (mask & bit) != 0 ? std::optional<std::string>(value) : std::nullopt;
    };
    all.push_back({text(1, "an id"), text(2, "a version"), text(4, "a title"), text(8, "words")});
  }
  return all;
}

TEST_F(ModelHandles, AreReleasedWithAllTheirTextsWhicheverAreSet) {
  const auto before = fake::LiveBlocks().size();
  for (const Texts& texts : AllCombinations()) {
    EXPECT_EQ(velmora_svcmgr_ai_model_info_destroy(NewInfo(texts)), SVCMGR_ERROR_NONE);
    EXPECT_THAT(fake::LiveBlocks(), SizeIs(before)) << texts;
  }
}

// ---- Texts of a model ---------------------------------------------------------------------------

struct Field {
  std::string name;
  int (*get)(Info, char**);
  int (*set)(Info, const char*);
  char* velmora_svcmgr_ai_model_info_s::* member;
  const char* wrong_data;

  std::string Getter() const { return "velmora_svcmgr_ai_model_info_get_" + name; }
  std::string Setter() const { return "velmora_svcmgr_ai_model_info_set_" + name; }
};

void PrintTo(const Field& field, std::ostream* out) { *out << field.name; }

const Field kFields[] = {
    {"id", velmora_svcmgr_ai_model_info_get_id, velmora_svcmgr_ai_model_info_set_id,
     &velmora_svcmgr_ai_model_info_s::id, "handle has wrong data"},
    {"version", velmora_svcmgr_ai_model_info_get_version, velmora_svcmgr_ai_model_info_set_version,
     &velmora_svcmgr_ai_model_info_s::version, "Handle has wrong data"},
    {"title", velmora_svcmgr_ai_model_info_get_title, velmora_svcmgr_ai_model_info_set_title,
     &velmora_svcmgr_ai_model_info_s::title, "Handle has wrong data"},
    {"description", velmora_svcmgr_ai_model_info_get_description,
     velmora_svcmgr_ai_model_info_set_description, &velmora_svcmgr_ai_model_info_s::description,
     "Handle has wrong data"},
};

struct AText : ModelHandles, ::testing::WithParamInterface<Field> {
  int Get() { return GetParam().get(blank, &out_text); }
  int Set(const std::string& text) { return GetParam().set(blank, text.c_str()); }
};

INSTANTIATE_TEST_SUITE_P(Of, AText, ::testing::ValuesIn(kFields), NameOfRow());

TEST_P(AText, ThatIsNotSetIsWrongDataEvenWhenAllOthersAreSet) {
  for (const Field& field : kFields) {
    if (field.name != GetParam().name) {
      EXPECT_EQ(field.set(blank, "text"), SVCMGR_ERROR_NONE);
    }
  }
  fake::ClearRecord();
  EXPECT_EQ(Get(), SVCMGR_ERROR_INVALID_OPERATION);
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsError(kInfoFile, GetParam().Getter(), GetParam().wrong_data)));
  ExpectOutputsUntouched();
}

TEST_P(AText, IsReadBackAndChangesNoOther) {
  EXPECT_EQ(Set("text"), SVCMGR_ERROR_NONE);
  EXPECT_EQ(Get(), SVCMGR_ERROR_NONE);
  EXPECT_STREQ(out_text, "text");
  for (const Field& field : kFields) {
    if (field.name != GetParam().name) {
      EXPECT_EQ(blank->*field.member, nullptr) << field.name;
    }
  }
}

TEST_P(AText, MayBeEmpty) {
  EXPECT_EQ(Set(""), SVCMGR_ERROR_NONE);
  EXPECT_EQ(Get(), SVCMGR_ERROR_NONE);
  EXPECT_STREQ(out_text, "");
}

TEST_P(AText, IsACopyOfWhatWasHandedIn) {
  char text[] = "before";
  EXPECT_EQ(GetParam().set(blank, text), SVCMGR_ERROR_NONE);
  std::memcpy(text, "behind", sizeof text);
  EXPECT_STREQ(blank->*GetParam().member, "before");
}

TEST_P(AText, IsHandedOutAsACopy) {
  EXPECT_EQ(Set("before"), SVCMGR_ERROR_NONE);
  EXPECT_EQ(Get(), SVCMGR_ERROR_NONE);
  EXPECT_NE(out_text, blank->*GetParam().member);
  std::memcpy(out_text, "behind", 6);
  EXPECT_STREQ(blank->*GetParam().member, "before");
}

TEST_P(AText, LeavesItsFormerValueAllocatedWhenItIsSetAgain) {
  EXPECT_EQ(Set("first"), SVCMGR_ERROR_NONE);
  EXPECT_EQ(Set("second"), SVCMGR_ERROR_NONE);
  EXPECT_EQ(Set("third"), SVCMGR_ERROR_NONE);
  EXPECT_STREQ(blank->*GetParam().member, "third");
  fake::ExpectKeptText("first");
  fake::ExpectKeptText("second");
  fake::ExpectKept(fake::Kept::kFormerText, 2);
}

/** The blocks of operator new that hold a pointer. */
std::vector<const void*> HoldersOf(const void* pointer) {
  std::vector<const void*> holders;
  for (const fake::Block& block : fake::LiveBlocks()) {
    if (block.origin != "new") continue;
    const auto* const words = static_cast<void* const*>(block.pointer);
    if (std::count(words, words + block.size / sizeof *words, pointer) > 0) {
      holders.push_back(block.pointer);
    }
  }
  return holders;
}

TEST_P(AText, LeavesItsFormerValuesWhereALeakCheckerFindsThem) {
  if (!fake::SeesOperatorNew()) GTEST_SKIP() << "the leak checker itself looks here";
  EXPECT_EQ(Set("first"), SVCMGR_ERROR_NONE);
  const char* const first = blank->*GetParam().member;
  {
    const fake::NewTracking tracking;
    EXPECT_EQ(Set("second"), SVCMGR_ERROR_NONE);
    EXPECT_EQ(Set("third"), SVCMGR_ERROR_NONE);
  }
  links = 2;
  const auto older = HoldersOf(first);
  ASSERT_THAT(older, SizeIs(1));
  EXPECT_THAT(HoldersOf(older[0]), SizeIs(1)) << "the newer link leads to it";
  fake::ExpectKeptText("first");
  fake::ExpectKeptText("second");
  fake::ExpectKept(fake::Kept::kFormerText, 2);
}

TEST_P(AText, IsUnknownExceptionAndStaysWhenSettingItRunsOutOfMemory) {
  EXPECT_EQ(Set("before"), SVCMGR_ERROR_NONE);
  fake::ClearRecord();
  const FailingAllocation failing(Allocator::kStrndup);
  EXPECT_EQ(Set("behind"), SVCMGR_ERROR_INVALID_OPERATION);
  EXPECT_TRUE(failing.Happened());
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsError(kInfoFile, GetParam().Setter(), "Unknown Exception")));
  EXPECT_STREQ(blank->*GetParam().member, "before");
}

TEST_P(AText, IsCutInTheMiddleOfACharacter) {
  const std::string text = std::string(kBound - 1, 'x') + "\xc3\xa9";
  EXPECT_EQ(Set(text), SVCMGR_ERROR_NONE);
  EXPECT_EQ(blank->*GetParam().member, std::string(kBound - 1, 'x') + "\xc3");
}

struct ATextOfLength : ModelHandles, ::testing::WithParamInterface<std::tuple<Field, std::size_t>> {
  static const Field& TheField() { return std::get<0>(GetParam()); }
  static std::size_t Length() { return std::get<1>(GetParam()); }

  // Bytes that lie near each other differ.
  static std::string Text() {
    std::string text;
    for (std::size_t i = 0; i < Length(); ++i) text.push_back(static_cast<char>('!' + i % 90));
    return text;
  }
  static std::string Bounded() { return Text().substr(0, kBound); }

  // A record may hold a longer text than the setters accept.
  static void Plant(Info info) { info->*TheField().member = strdup(Text().c_str()); }
};

INSTANTIATE_TEST_SUITE_P(Of, ATextOfLength,
                         ::testing::Combine(::testing::ValuesIn(kFields),
                                            ::testing::Values(0, 1, 2047, 2048, 2049, 3000)),
                         [](const auto& row) {
                           return std::get<0>(row.param).name + "_" +
                                  std::to_string(std::get<1>(row.param));
                         });

TEST_P(ATextOfLength, IsBoundedWhenItIsSet) {
  EXPECT_EQ(TheField().set(blank, Text().c_str()), SVCMGR_ERROR_NONE);
  EXPECT_EQ(blank->*TheField().member, Bounded());
  EXPECT_EQ(TheField().get(blank, &out_text), SVCMGR_ERROR_NONE);
  EXPECT_EQ(out_text, Bounded());
}

TEST_P(ATextOfLength, IsBoundedWhenItIsRead) {
  Plant(blank);
  EXPECT_EQ(TheField().get(blank, &out_text), SVCMGR_ERROR_NONE);
  EXPECT_EQ(out_text, Bounded());
  EXPECT_EQ(blank->*TheField().member, Text());
}

TEST_P(ATextOfLength, IsBoundedWhenItsModelIsAdded) {
  Plant(blank);
  EXPECT_EQ(Add(filled, blank), SVCMGR_ERROR_NONE);
  EXPECT_EQ(velmora_svcmgr_ai_model_list_get(filled, 1, &out_info), SVCMGR_ERROR_NONE);
  EXPECT_EQ(out_info->*TheField().member, Bounded());
  EXPECT_EQ(blank->*TheField().member, Text());
}

// ---- Lists --------------------------------------------------------------------------------------

struct ModelLists : ModelHandles {
  // Three models in `filled`.
  void AddTwoMore() {
    Add(filled, Texts{"model-2", "2.0", "Second", "of three"});
    Add(filled, Texts{"model-3", "3.0", "Third", "of three"});
    fake::ClearRecord();
  }

  static Texts Second() { return {"model-2", "2.0", "Second", "of three"}; }
  static Texts Third() { return {"model-3", "3.0", "Third", "of three"}; }

  // The blocks that hold neither a record nor a text.
  static std::vector<std::size_t> StorageSizes() {
    std::vector<std::size_t> sizes;
    for (const fake::Block& block : fake::LiveBlocks()) {
      if (block.origin != "calloc" && block.origin != "strndup") sizes.push_back(block.size);
    }
    return sizes;
  }
};

TEST_F(ModelLists, KeepModelsInTheOrderInWhichTheyWereAdded) {
  std::vector<Texts> added = {kFull};
  for (int i = 2; i <= 100; ++i) {
    added.push_back({"model-" + std::to_string(i), std::to_string(i), "title", std::nullopt});
    Add(filled, added.back());
    EXPECT_EQ(Size(filled), i);
  }
  EXPECT_EQ(Contents(filled), added);
}

TEST_F(ModelLists, DoubleTheirStorageWheneverItIsFull) {
  if (!fake::SeesOperatorNew()) GTEST_SKIP() << "operator new is the sanitizer's";
  std::size_t capacity = 1;
  for (std::size_t size = 1; size <= 40; ++size) {
    if (size > capacity) capacity *= 2;
    if (size > 1) {
      EXPECT_EQ(Add(filled, full), SVCMGR_ERROR_NONE);
    }
    EXPECT_THAT(StorageSizes(), ElementsAre(capacity * sizeof(void*))) << size;
  }
}

TEST_F(ModelLists, HoldNoStorageWhenNothingWasEverAdded) {
  if (!fake::SeesOperatorNew()) GTEST_SKIP() << "operator new is the sanitizer's";
  EXPECT_EQ(velmora_svcmgr_ai_model_list_destroy(filled), SVCMGR_ERROR_NONE);
  filled = nullptr;
  EXPECT_THAT(StorageSizes(), SizeIs(1));  // what the destroyed list leaves
  EXPECT_EQ(velmora_svcmgr_ai_model_list_destroy(empty), SVCMGR_ERROR_NONE);
  empty = nullptr;
  EXPECT_THAT(StorageSizes(), SizeIs(1));
}

TEST_F(ModelLists, LeaveTheirStorageAndNothingElseWhenTheyAreDestroyed) {
  if (!fake::SeesOperatorNew()) GTEST_SKIP() << "operator new is the sanitizer's";
  AddTwoMore();
  Destroy(blank);
  Destroy(full);
  Destroy(empty);
  Destroy(filled);
  blank = full = nullptr;
  empty = filled = nullptr;
  const auto blocks = fake::LiveBlocks();
  ASSERT_THAT(blocks, SizeIs(1));
  EXPECT_EQ(blocks.front().size, 4 * sizeof(void*));
}

TEST_F(ModelLists, CopyWhicheverTextsAreSet) {
  for (const Texts& texts : AllCombinations()) {
    Add(filled, texts);
    const int size = Size(filled);
    ASSERT_GT(size, 0);
    EXPECT_EQ(At(filled, size - 1), texts);
  }
}

TEST_F(ModelLists, HoldTwoCopiesOfAModelThatIsAddedTwice) {
  EXPECT_EQ(Add(filled, full), SVCMGR_ERROR_NONE);
  const auto before = fake::LiveBlocks().size();
  EXPECT_EQ(Add(filled, full), SVCMGR_ERROR_NONE);
  // A record and four texts; the storage is replaced.
  EXPECT_THAT(fake::LiveBlocks(), SizeIs(before + 5));
  EXPECT_THAT(Contents(filled), ElementsAre(kFull, kFull, kFull));
}

TEST_F(ModelLists, DoNotSeeLaterChangesOfAModel) {
  EXPECT_EQ(Add(filled, blank), SVCMGR_ERROR_NONE);
  EXPECT_EQ(velmora_svcmgr_ai_model_info_set_id(blank, "late"), SVCMGR_ERROR_NONE);
  EXPECT_EQ(At(filled, 1), Texts{});
}

TEST_F(ModelLists, HandOutCopies) {
  EXPECT_EQ(velmora_svcmgr_ai_model_list_get(filled, 0, &out_info), SVCMGR_ERROR_NONE);
  EXPECT_EQ(Read(out_info), kFull);
  EXPECT_NE(out_info, full);
  for (const Field& field : kFields) *(out_info->*field.member) = '#';
  EXPECT_THAT(Contents(filled), ElementsAre(kFull));
  EXPECT_EQ(Read(full), kFull);
}

TEST_F(ModelLists, HandNothingOutBehindTheirEnd) {
  for (const auto& [list, index] : {std::pair(empty, 0), std::pair(empty, 1), std::pair(filled, 1),
                                    std::pair(filled, 2), std::pair(filled, INT_MAX)}) {
    fake::ClearRecord();
    EXPECT_EQ(velmora_svcmgr_ai_model_list_get(list, index, &out_info), SVCMGR_ERROR_OUT_OF_INDEX);
    EXPECT_THAT(fake::Logs(), ElementsAre(IsError(kListFile, kListGet, "Out of Index!!!")));
  }
  ExpectOutputsUntouched();
}

TEST_F(ModelLists, DestroyTheirModelsThroughThePublicFunction) {
  AddTwoMore();
  EXPECT_EQ(velmora_svcmgr_ai_model_list_destroy(filled), SVCMGR_ERROR_NONE);
  filled = nullptr;
  std::vector<std::string> expected = {
      "I velmora_svcmgr_ai_model_list_destroy: "
      "velmora_svcmgr_ai_model_list_destroy",
      "package_info_create", "package_info_destroy"};
  for (int i = 0; i < 3; ++i) {
    expected.insert(expected.end(), {"I velmora_svcmgr_ai_model_info_destroy: "
                                     "velmora_svcmgr_ai_model_info_destroy",
                                     "package_info_create", "package_info_destroy"});
  }
  EXPECT_EQ(Steps(), expected);
}

// Destroying a list of three models while the agent vanishes after some of them.
struct AListDestroyThatStops : ModelLists, ::testing::WithParamInterface<int> {
  void SetUp() override {
    ModelLists::SetUp();
    AddTwoMore();
  }

  static int Destroyed() { return GetParam(); }

  void StopWith(fake::Step step) {
    // The list's own check comes first.
    fake::AtCall("package_info_create", 1 + Destroyed() + 1, std::move(step));
    result = velmora_svcmgr_ai_model_list_destroy(filled);
  }

  int result = 0;
};

INSTANTIATE_TEST_SUITE_P(Behind, AListDestroyThatStops, ::testing::Values(0, 1, 2),
                         [](const auto& row) { return std::to_string(row.param) + "Models"; });

TEST_P(AListDestroyThatStops, ReturnsTheCodeAtOnce) {
  StopWith(fake::Fail(fake::kNoSuchPackage));
  EXPECT_EQ(result, SVCMGR_ERROR_NOT_SUPPORTED);
  const auto logs = fake::Logs();
  ASSERT_THAT(logs, SizeIs(static_cast<std::size_t>(Destroyed()) + 3));
  EXPECT_THAT(logs.front(), IsInfo(kListFile, kListDestroy, kListDestroy));
  for (std::size_t i = 1; i + 1 < logs.size(); ++i) {
    EXPECT_THAT(logs[i], IsInfo(kInfoFile, kInfoDestroy, kInfoDestroy));
  }
  EXPECT_THAT(logs.back(), IsError(kInfoFile, kInfoDestroy, "Not supported"));
}

TEST_P(AListDestroyThatStops, ReturnsWhateverCodeItsModelReturns) {
  StopWith(fake::Throw(std::runtime_error("thrown")));
  EXPECT_EQ(result, SVCMGR_ERROR_INVALID_OPERATION);
  EXPECT_THAT(fake::Logs().back(), IsError(kInfoFile, kInfoDestroy, "Unknown Exception"));
  EXPECT_EQ(Size(filled), 3);
}

TEST_P(AListDestroyThatStops, HasReleasedTheModelsBeforeAndLeavesSizeAndIndices) {
  const auto before = fake::LiveBlocks().size();
  StopWith(fake::Fail(fake::kNoSuchPackage));
  EXPECT_THAT(fake::LiveBlocks(), SizeIs(before - 5 * static_cast<std::size_t>(Destroyed())));
  EXPECT_EQ(Size(filled), 3);
  const std::vector<Texts> all = {kFull, Second(), Third()};
  for (int i = 0; i < 3; ++i) {
    if (i < Destroyed()) {
      EXPECT_EQ(velmora_svcmgr_ai_model_list_get(filled, i, &out_info),
                SVCMGR_ERROR_INVALID_OPERATION);
      ExpectOutputsUntouched();
    } else {
      EXPECT_EQ(At(filled, i), all[static_cast<std::size_t>(i)]);
    }
  }
  EXPECT_EQ(velmora_svcmgr_ai_model_list_get(filled, 3, &out_info), SVCMGR_ERROR_OUT_OF_INDEX);
  EXPECT_EQ(Add(filled, full), SVCMGR_ERROR_NONE);
  EXPECT_EQ(At(filled, 3), kFull);
}

TEST_P(AListDestroyThatStops, IsCompletedByASecondOneThatSkipsWhatIsGone) {
  StopWith(fake::Fail(fake::kNoSuchPackage));
  fake::ClearRecord();
  EXPECT_EQ(velmora_svcmgr_ai_model_list_destroy(filled), SVCMGR_ERROR_NONE);
  filled = nullptr;
  EXPECT_EQ(fake::CountCalls("package_info_create"), 1U + 3U - static_cast<unsigned>(Destroyed()));
  EXPECT_THAT(fake::Logs(), SizeIs(1U + 3U - static_cast<unsigned>(Destroyed())));
}

}  // namespace
