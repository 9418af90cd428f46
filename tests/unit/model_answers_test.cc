// SPDX-License-Identifier: Apache-2.0
// Answers that hold a list of models, and what the application receives of them.

#include <climits>
#include <new>
#include <string>
#include <vector>

#include "connection_support.h"
#include "exhaustion.h"
#include "fake_platform.h"
#include "kept.h"
#include "model_support.h"

namespace {

using fake::Allocator;
using fake::Count;
using fake::FailingAllocation;
using fake::IsError;
using fake::IsInfo;
using fake::Items;
using models::Contents;
using models::List;
using models::Size;
using models::Texts;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::SizeIs;

constexpr char kAnswerFile[] = "SvcMgrAppProxyCallback.cc";
const Texts kModel = {"model-1", "1.0", "A title", "A description"};

// An answer of this result, these models and this count.
Items Answering(int result, const std::vector<Texts>& models, int count) {
  Items items = {result, Count(static_cast<int>(models.size()))};
  for (const Texts& model : models) {
    for (const auto& text : {model.id, model.version, model.title, model.description}) {
      items.push_back(text.has_value() ? fake::Item(*text) : fake::NullText());
    }
  }
  items.push_back(count);
  return items;
}

std::vector<Texts> ThreeModels() {
  return {{"a", "1", "A", "first"}, {"b", "2", "B", "second"}, {"c", "3", "C", "third"}};
}

struct Answer {
  int error;
  List list;
};

// The usable list is asked for, with the delegate (1, 0), then the described one (2, 1), then the
// versions of a model (3, 2).
struct AnAnswer : fake::PlatformTest {
  void SetUp() override {
    PlatformTest::SetUp();
    connection::Stand();
    const models::Info info = models::NewInfo(kModel);
    EXPECT_EQ(velmora_svcmgr_ai_request_usable_model_list(OnModels, this), SVCMGR_ERROR_NONE);
    EXPECT_EQ(velmora_svcmgr_ai_request_usable_model_list_with_description(OnModels, this),
              SVCMGR_ERROR_NONE);
    EXPECT_EQ(velmora_svcmgr_ai_request_model_version_list(info, OnModels, this),
              SVCMGR_ERROR_NONE);
    EXPECT_EQ(velmora_svcmgr_ai_model_info_destroy(info), SVCMGR_ERROR_NONE);
    answers.reserve(16);  // so that recording an answer allocates nothing
    fake::ClearRecord();
  }

  void TearDown() override {
    fake::ForgetScripts("package_info_create");
    fake::InstallAgent("2.3.0");
    ReleaseAnswers();
    fake::ExpectKept(kept);
    fake::ExpectKept(fake::Kept::kRecord, kept_records);
    fake::ExpectKept(fake::Kept::kStorage, kept_storages);
    PlatformTest::TearDown();
  }

  void ReleaseAnswers() {
    for (const Answer& answer : answers) {
      if (answer.list == nullptr) continue;
      EXPECT_EQ(velmora_svcmgr_ai_model_list_destroy(answer.list), SVCMGR_ERROR_NONE);
    }
    answers.clear();
  }

  static void OnModels(int error, List list, void* user_data) {
    static_cast<AnAnswer*>(user_data)->answers.push_back({error, list});
  }

  // Delivers an answer; the storage of the list that it makes enters the ledger of blocks.
  static void Receive(const Items& payload, int id = 1, int seq = 0) {
    fake::Proxy().QueueCallbackMessage(Items{1, id, seq, false} + payload);
    const fake::NewTracking tracking;
    fake::Proxy().FireReceived();
  }

  // What the conversion of this many models leaves on purpose, once the list is destroyed: storage,
  // for each model the temporary record with its four texts, and the links to the records.
  void KeptByConversion(std::size_t models) {
    const std::size_t storage_and_link = models > 0 && fake::SeesOperatorNew() ? 2 : 0;
    kept += storage_and_link + 5 * models;
    kept_records += models;
    kept_storages += models > 0 ? 1 : 0;
  }

  static std::vector<std::string> MessagesOf(const std::string& function) {
    std::vector<std::string> messages;
    for (const fake::LogRecord& record : fake::Logs()) {
      if (record.function == function) messages.push_back(record.message);
    }
    return messages;
  }

  std::vector<Answer> answers;
  std::size_t kept = 0;
  std::size_t kept_records = 0;
  std::size_t kept_storages = 0;
};

TEST_F(AnAnswer, WritesItsRecordsInOrder) {
  Receive(Answering(8, {ThreeModels()[0], ThreeModels()[1]}, 2));
  KeptByConversion(2);
  const std::string info_create = "velmora_svcmgr_ai_model_info_create";
  const std::string list_create = "velmora_svcmgr_ai_model_list_create";
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsInfo(kAnswerFile, "OnReceived",
                                 "GetModelVersionListCB::OnReceived error_code[8]"),
                          IsInfo(kAnswerFile, "Convert", "conver AIModelList to model_list_handle"),
                          IsInfo("service_model_list.cc", list_create, list_create),
                          IsInfo("service_model_info.cc", info_create, info_create),
                          IsInfo(kAnswerFile, "Convert", "model [a - 1 - A - first]"),
                          IsInfo("service_model_info.cc", info_create, info_create),
                          IsInfo(kAnswerFile, "Convert", "model [b - 2 - B - second]"),
                          IsInfo(kAnswerFile, "Convert", "Successful conversion of [2] models.")));
  EXPECT_EQ(answers.at(0).error, SVCMGR_ERROR_KYR_DISABLED);
  EXPECT_THAT(Contents(answers[0].list), ElementsAre(ThreeModels()[0], ThreeModels()[1]));
}

TEST_F(AnAnswer, IsRecordedByItsKind) {
  Receive(Answering(9, {}, 0), 2, 1);
  EXPECT_THAT(
      fake::Logs().front(),
      IsInfo(kAnswerFile, "OnReceived", "GetUsableModelListWithDescCB::OnReceived error_code[9]"));
  fake::ClearRecord();
  Receive(Answering(9, {}, 0), 3, 2);
  EXPECT_EQ(fake::Logs().front().function, "Convert");
}

TEST_F(AnAnswer, IsConvertedThroughThePublicFunctions) {
  Receive(Answering(0, ThreeModels(), 3));
  KeptByConversion(3);
  // One for the list; for each model one to make it, four to set its texts, one to add it.
  EXPECT_EQ(fake::CountCalls("package_info_create"), 1U + 3U * 6U);
}

TEST_F(AnAnswer, LeavesTheStorageAndOneRecordForEachModel) {
  Receive(Answering(0, ThreeModels(), 3));
  KeptByConversion(3);
  ReleaseAnswers();
  std::vector<std::string> texts;
  int records = 0;
  std::vector<std::size_t> others;
  for (const fake::Block& block : fake::LiveBlocks()) {
    if (block.origin == "strndup") {
      texts.push_back(block.Text());
    } else if (block.origin == "calloc") {
      ++records;
      EXPECT_EQ(block.size, 4 * sizeof(char*));
    } else {
      others.push_back(block.size / sizeof(void*));
    }
  }
  EXPECT_THAT(texts, ::testing::UnorderedElementsAre("a", "1", "A", "first", "b", "2", "B",
                                                     "second", "c", "3", "C", "third"));
  EXPECT_EQ(records, 3);
  // Three records and the link before; room for four models, of which the list has three.
  if (!fake::SeesOperatorNew()) return;
  EXPECT_THAT(others, ::testing::UnorderedElementsAre(4U, 4U));
}

TEST_F(AnAnswer, IsAnEmptyListIfItsCountIsNotPositiveWhateverFollows) {
  for (const int count : {0, -1, -3, INT_MIN}) {
    fake::ClearRecord();
    Receive(Answering(0, count == 0 ? std::vector<Texts>() : ThreeModels(), count));
    EXPECT_EQ(answers.at(0).error, SVCMGR_ERROR_NONE);
    EXPECT_EQ(Size(answers[0].list), 0);
    EXPECT_THAT(MessagesOf("Convert"),
                ElementsAre("conver AIModelList to model_list_handle",
                            "Successful conversion of [" + std::to_string(count) + "] models."));
    ReleaseAnswers();
  }
}

TEST_F(AnAnswer, HasItsModelsInOrderWhateverItsPositiveCountIs) {
  for (const int count : {1, 2, 3, 4, 1000, INT_MAX}) {
    Receive(Answering(0, ThreeModels(), count));
    KeptByConversion(3);
    EXPECT_EQ(MessagesOf("Convert").back(),
              "Successful conversion of [" + std::to_string(count) + "] models.");
    EXPECT_EQ(Contents(answers.at(0).list), ThreeModels());
    ReleaseAnswers();
  }
}

TEST_F(AnAnswer, WithNullTextsHasEmptyOnes) {
  Receive(Answering(0, {Texts{}}, 1));
  KeptByConversion(1);
  EXPECT_THAT(Contents(answers.at(0).list), ElementsAre(Texts{"", "", "", ""}));
  EXPECT_THAT(fake::LogMessages(), Contains("Convert: model [ -  -  - ]"));
}

TEST_F(AnAnswer, WithConversionsInItsTextsIsLoggedAsItIs) {
  Receive(Answering(0, {{"%s", "%n", "%d%%", "100%"}}, 1));
  KeptByConversion(1);
  EXPECT_THAT(fake::LogMessages(), Contains("Convert: model [%s - %n - %d%% - 100%]"));
}

TEST_F(AnAnswer, WithLongTextsIsLoggedWholeAndBoundedInTheList) {
  const std::string text(3000, 'x');
  Receive(Answering(0, {{"id", "1", "title", text}}, 1));
  KeptByConversion(1);
  EXPECT_THAT(fake::LogMessages(), Contains("Convert: model [id - 1 - title - " + text + "]"));
  EXPECT_EQ(Contents(answers.at(0).list).at(0).description, text.substr(0, 2048));
}

TEST_F(AnAnswer, MayComeAgain) {
  Receive(Answering(0, {kModel}, 1));
  Receive(Answering(5, ThreeModels(), 3));
  KeptByConversion(1);
  KeptByConversion(3);
  ASSERT_THAT(answers, SizeIs(2));
  EXPECT_THAT(Contents(answers[0].list), ElementsAre(kModel));
  EXPECT_EQ(answers[1].error, SVCMGR_ERROR_NO_SPACE);
  EXPECT_EQ(Contents(answers[1].list), ThreeModels());
}

TEST_F(AnAnswer, IsReadByteByByte) {
  for (const char* delegate :
       {"01 00 00 00 00 00 00 00", "02 00 00 00 01 00 00 00", "03 00 00 00 02 00 00 00"}) {
    fake::Proxy().QueueCallbackBytes(
        "01 00 00 00 " + std::string(delegate) +
        " 00 06 00 00 00 02 00 00 00 "
        "02 00 00 00 61 00 02 00 00 00 62 00 02 00 00 00 63 00 02 00 00 00 64 00 "
        "02 00 00 00 65 00 01 00 00 00 00 01 00 00 00 00 03 00 00 00 c3 a4 00 "
        "02 00 00 00");
    const fake::NewTracking tracking;
    fake::Proxy().FireReceived();
    ASSERT_THAT(answers, SizeIs(1));
    EXPECT_EQ(answers[0].error, SVCMGR_ERROR_AGENT_CODE_6);
    EXPECT_THAT(Contents(answers[0].list),
                ElementsAre(Texts{"a", "b", "c", "d"}, Texts{"e", "", "", "\xc3\xa4"}));
    KeptByConversion(2);
    ReleaseAnswers();
  }
}

TEST_F(AnAnswer, WithANegativeArrayCountIsAnEmptyList) {
  for (const int count : {-1, -1000, INT_MIN}) {
    Receive({0, Count(count), 3});
    ASSERT_THAT(answers, SizeIs(1));
    EXPECT_EQ(answers[0].error, SVCMGR_ERROR_NONE);
    EXPECT_EQ(Size(answers[0].list), 0);
    ReleaseAnswers();
  }
}

TEST_F(AnAnswer, WithAnArrayCountBeyondItsModelsIsAFailureWithAnEmptyList) {
  for (const int count : {2, 1000, INT_MAX}) {
    Receive({0, Count(count), "a", "1", "A", "first", fake::Unreadable()});
    ASSERT_THAT(answers, SizeIs(1));
    EXPECT_EQ(answers[0].error, SVCMGR_ERROR_INVALID_OPERATION);
    EXPECT_EQ(Size(answers[0].list), 0);
    EXPECT_THAT(fake::Logs(), testing::Contains(IsInfo(kAnswerFile, "Convert",
                                                       "Successful conversion of [0] models.")));
    ReleaseAnswers();
  }
}

TEST_F(AnAnswer, ThatEndsEarlyIsAFailureWithAnEmptyList) {
  const Items whole = Answering(0, {ThreeModels()[0], ThreeModels()[1]}, 2);
  for (std::size_t n = 0; n < whole.size(); ++n) {
    for (const fake::Item& end : {fake::Unreadable(), fake::UnreadableWithGarbage()}) {
      Items payload(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n));
      payload.push_back(end);
      Receive(payload);
      ASSERT_THAT(answers, SizeIs(1)) << n;
      EXPECT_EQ(answers[0].error, SVCMGR_ERROR_INVALID_OPERATION) << n;
      EXPECT_EQ(Size(answers[0].list), 0) << n;
      ReleaseAnswers();
    }
  }
}

// ---- Answers that cannot be converted -----------------------------------------------------------

TEST_F(AnAnswer, IsDeliveredWithoutAListWhenMemoryIsExhausted) {
  fake::Proxy().QueueCallbackMessage(Items{1, 1, 0, false} + Answering(0, ThreeModels(), 3));
  {
    const FailingAllocation failing(Allocator::kCalloc);
    fake::Proxy().FireReceived();
    EXPECT_TRUE(failing.Happened());
  }
  ASSERT_THAT(answers, SizeIs(1));
  EXPECT_EQ(answers[0].error, SVCMGR_ERROR_NONE);
  EXPECT_EQ(answers[0].list, nullptr);
  const std::string list_create = "velmora_svcmgr_ai_model_list_create";
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsInfo(kAnswerFile, "OnReceived",
                                 "GetModelVersionListCB::OnReceived error_code[0]"),
                          IsInfo(kAnswerFile, "Convert", "conver AIModelList to model_list_handle"),
                          IsInfo("service_model_list.cc", list_create, list_create),
                          IsError("service_model_list.cc", list_create,
                                  "Failed to create velmora_svcmgr_ai_model_list_s."),
                          IsInfo(kAnswerFile, "Convert", "Successful conversion of [3] models.")));
}

struct AModelThatCannotBeMade : AnAnswer, ::testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(OfThree, AModelThatCannotBeMade, ::testing::Range(0, 3));

TEST_P(AModelThatCannotBeMade, IsLoggedAndLeftOut) {
  fake::Proxy().QueueCallbackMessage(Items{1, 1, 0, false} + Answering(0, ThreeModels(), 3));
  // The list comes first; a model takes two records, a temporary one and the list's.
  const int n = 1 + 2 * GetParam() + 1;
  {
    const fake::NewTracking tracking;
    const FailingAllocation failing(Allocator::kCalloc, n);
    fake::Proxy().FireReceived();
    EXPECT_TRUE(failing.Happened());
  }
  KeptByConversion(2);
  EXPECT_THAT(MessagesOf("Convert"),
              ElementsAre("conver AIModelList to model_list_handle", "model [a - 1 - A - first]",
                          "model [b - 2 - B - second]", "model [c - 3 - C - third]",
                          "Successful conversion of [3] models."));
  EXPECT_THAT(fake::Logs(),
              Contains(IsError("service_model_info.cc", "velmora_svcmgr_ai_model_info_create",
                               "Failed to create velmora_svcmgr_ai_model_info_h.")));
  std::vector<Texts> rest = ThreeModels();
  rest.erase(rest.begin() + GetParam());
  EXPECT_EQ(Contents(answers.at(0).list), rest);
}

TEST_F(AnAnswer, LacksTheTextsThatCouldNotBeSet) {
  fake::Proxy().QueueCallbackMessage(Items{1, 1, 0, false} + Answering(0, {kModel}, 1));
  {
    const fake::NewTracking tracking;
    const FailingAllocation failing(Allocator::kStrndup, 3);
    fake::Proxy().FireReceived();
  }
  KeptByConversion(1);
  --kept;  // the temporary record has three texts
  EXPECT_THAT(Contents(answers.at(0).list),
              ElementsAre(Texts{kModel.id, kModel.version, std::nullopt, kModel.description}));
}

TEST_F(AnAnswer, LacksAModelThatCouldNotBeAdded) {
  fake::Proxy().QueueCallbackMessage(Items{1, 1, 0, false} + Answering(0, ThreeModels(), 3));
  // One for the list, and for each model one to make it, four to set its texts, one to add it.
  fake::AtCall("package_info_create", 1 + 6 + 6, fake::Fail(fake::kNoSuchPackage));
  {
    const fake::NewTracking tracking;
    fake::Proxy().FireReceived();
  }
  KeptByConversion(3);
  EXPECT_THAT(Contents(answers.at(0).list), ElementsAre(ThreeModels()[0], ThreeModels()[2]));
}

TEST_F(AnAnswer, DoesNoHarmWhereverMemoryRunsOut) {
  const int failures = exhaustion::ForEachFailingAllocation(
      [&] {
        answers.clear();
        fake::Proxy().QueueCallbackMessage(Items{1, 1, 0, false} +
                                           Answering(0, {ThreeModels()[0], ThreeModels()[1]}, 2));
      },
      [] {
        const fake::NewTracking tracking;
        exhaustion::Receive();
      },
      [&](bool happened) {
        EXPECT_LE(answers.size(), 1U);
        EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
        if (!happened) {
          EXPECT_THAT(answers, SizeIs(1));
        }
        for (const Answer& answer : answers) {
          if (answer.list == nullptr) continue;
          const std::size_t models = Contents(answer.list).size();
          EXPECT_LE(models, 2U);
          if (models > 0) ++kept_storages;
        }
        ReleaseAnswers();
      });
  EXPECT_GE(failures, 10);
  // Of all runs one had no list, and two had no record of one of the models; each of the eight
  // texts was missing once. One had no link to the records, and the one without a list needed none.
  const std::size_t runs = static_cast<std::size_t>(failures) + 1;
  kept_records = 2 * runs - 2 - 1 - 1;
  kept = 5 * kept_records - 8;
  if (fake::SeesOperatorNew()) kept += kept_storages + runs - 2;
}

}  // namespace
