// SPDX-License-Identifier: Apache-2.0
// Requests for an update of the agents, and the list that names them.

#include <SvcmgrException.h>

#include <climits>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "client.h"
#include "connection_support.h"
#include "event_support.h"

namespace {

using client::kClientFile;
using client::kHandlerFile;
using client::kNotSupported;
using fake::IsError;
using fake::IsInfo;
using fake::IsProxyError;
using testing::ElementsAre;
using testing::IsEmpty;

using List = velmora_svcmgr_agent_list_h;

constexpr char kListFile[] = "service_agent_list.cc";
constexpr int kOutOfIndex = static_cast<int>(0xBFFFFFFAU);

/* The list. */

/** Counts the blocks of operator new too, where they can be seen. */
class AnAgentList : public fake::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    ASSERT_EQ(velmora_svcmgr_agent_list_create(&list), 0);
    fake::ClearRecord();
  }

  void TearDown() override {
    if (list != nullptr) {
      EXPECT_EQ(velmora_svcmgr_agent_list_destroy(list), 0);
    }
    if (grown && fake::SeesOperatorNew()) fake::ExpectKept(1);  // the storage that stays
    PlatformTest::TearDown();
  }

  int Add(const char* agent) {
    const fake::NewTracking tracking;
    const int result = velmora_svcmgr_agent_list_add(list, agent);
    grown = grown || result == 0;
    return result;
  }

  int Size() const {
    int size = -1;
    EXPECT_EQ(velmora_svcmgr_agent_list_get_size(list, &size), 0);
    return size;
  }

  std::string At(int index) const {
    char* agent = nullptr;
    EXPECT_EQ(velmora_svcmgr_agent_list_get(list, index, &agent), 0);
    std::string text = agent == nullptr ? "(null)" : agent;
    std::free(agent);
    return text;
  }

  List list = nullptr;
  bool grown = false;
};

TEST_F(AnAgentList, IsEmptyAtFirstAndOneBlockOfZeroes) {
  EXPECT_EQ(Size(), 0);
  const auto blocks = fake::LiveBlocks();
  ASSERT_EQ(blocks.size(), 1U);
  EXPECT_EQ(blocks[0].origin, "calloc");
  EXPECT_EQ(blocks[0].size, 3 * sizeof(void*));
  const auto* const bytes = static_cast<const unsigned char*>(blocks[0].pointer);
  EXPECT_THAT(std::vector<unsigned char>(bytes, bytes + blocks[0].size), testing::Each(0));
}

TEST_F(AnAgentList, HoldsCopiesInTheirOrder) {
  std::string first = "com.example.first";
  EXPECT_EQ(Add(first.c_str()), 0);
  first.assign(first.size(), '?');
  EXPECT_EQ(Add(""), 0);
  EXPECT_EQ(Add("com.example.first"), 0);
  EXPECT_EQ(Add("\xff\xfe\n"), 0);
  EXPECT_EQ(Size(), 4);
  EXPECT_EQ(At(0), "com.example.first");
  EXPECT_EQ(At(1), "");
  EXPECT_EQ(At(2), "com.example.first");
  EXPECT_EQ(At(3), "\xff\xfe\n");
}

TEST_F(AnAgentList, HoldsLongNamesWhole) {
  const std::string name(5000, 'n');
  EXPECT_EQ(Add(name.c_str()), 0);
  EXPECT_EQ(At(0), name);
}

TEST_F(AnAgentList, HandsOutACopyOfItsOwnEachTime) {
  EXPECT_EQ(Add("name"), 0);
  char* a = nullptr;
  char* b = nullptr;
  EXPECT_EQ(velmora_svcmgr_agent_list_get(list, 0, &a), 0);
  EXPECT_EQ(velmora_svcmgr_agent_list_get(list, 0, &b), 0);
  EXPECT_NE(a, b);
  a[0] = '?';
  EXPECT_EQ(At(0), "name");
  std::free(a);
  std::free(b);
}

TEST_F(AnAgentList, GrowsToTwiceItsCountAndReleasesTheFormerStorage) {
  if (!fake::SeesOperatorNew()) GTEST_SKIP() << "the storage cannot be seen here";
  std::vector<std::size_t> capacities;
  for (int i = 0; i < 9; ++i) {
    EXPECT_EQ(Add("a"), 0);
    std::vector<std::size_t> sizes;
    for (const fake::Block& block : fake::LiveBlocks()) {
      if (block.origin == "new") sizes.push_back(block.size / sizeof(char*));
    }
    ASSERT_EQ(sizes.size(), 1U);
    capacities.push_back(sizes[0]);
  }
  EXPECT_THAT(capacities, ElementsAre(1, 2, 4, 4, 8, 8, 8, 8, 16));
}

TEST_F(AnAgentList, KeepsItsStorageAloneWhenDestroyed) {
  for (int i = 0; i < 5; ++i) EXPECT_EQ(Add("name"), 0);
  EXPECT_EQ(velmora_svcmgr_agent_list_destroy(list), 0);
  list = nullptr;
  const auto blocks = fake::LiveBlocks();
  if (!fake::SeesOperatorNew()) {
    EXPECT_THAT(blocks, IsEmpty());
    return;
  }
  ASSERT_EQ(blocks.size(), 1U);
  EXPECT_EQ(blocks[0].origin, "new");
  EXPECT_EQ(blocks[0].size, 8 * sizeof(char*));
  const auto* const slots = static_cast<char* const*>(blocks[0].pointer);
  EXPECT_THAT(std::vector<char*>(slots, slots + 5), testing::Each(nullptr));
}

TEST_F(AnAgentList, LeavesNothingWhenDestroyedEmpty) {
  EXPECT_EQ(velmora_svcmgr_agent_list_destroy(list), 0);
  list = nullptr;
  EXPECT_THAT(fake::LiveBlocks(), IsEmpty());
}

TEST_F(AnAgentList, HasNoNameAtItsSizeAndBeyond) {
  char untouched = 0;
  char* agent = &untouched;
  for (const int index : {0, 1, INT_MAX}) {
    EXPECT_EQ(velmora_svcmgr_agent_list_get(list, index, &agent), kOutOfIndex);
  }
  EXPECT_EQ(Add("a"), 0);
  EXPECT_EQ(Add("b"), 0);
  fake::ClearRecord();
  for (const int index : {2, 3, INT_MAX}) {
    EXPECT_EQ(velmora_svcmgr_agent_list_get(list, index, &agent), kOutOfIndex);
    EXPECT_THAT(fake::Logs().back(),
                IsError(kListFile, "velmora_svcmgr_agent_list_get", "Out of Index!!!"));
  }
  EXPECT_EQ(fake::Logs().size(), 3U);
  EXPECT_EQ(agent, &untouched);
  EXPECT_EQ(At(1), "b");
}

TEST_F(AnAgentList, LogsItsCreationAndItsEndButNoUse) {
  EXPECT_EQ(Add("a"), 0);
  EXPECT_EQ(At(0), "a");
  EXPECT_EQ(Size(), 1);
  EXPECT_THAT(fake::Logs(), IsEmpty());
  List other = nullptr;
  EXPECT_EQ(velmora_svcmgr_agent_list_create(&other), 0);
  EXPECT_EQ(velmora_svcmgr_agent_list_destroy(other), 0);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsInfo(kListFile, "velmora_svcmgr_agent_list_create",
                                               "velmora_svcmgr_agent_list_create"),
                                        IsInfo(kListFile, "velmora_svcmgr_agent_list_destroy",
                                               "velmora_svcmgr_agent_list_destroy")));
}

/* Memory. */

TEST_F(AnAgentList, IsNotCreatedWithoutMemory) {
  char untouched = 0;
  auto other = reinterpret_cast<List>(&untouched);
  const List before = other;
  {
    const fake::FailingAllocation failing(fake::Allocator::kCalloc);
    EXPECT_EQ(velmora_svcmgr_agent_list_create(&other), -12);
    EXPECT_TRUE(failing.Happened());
  }
  EXPECT_EQ(other, before);
  EXPECT_THAT(fake::Logs().back(), IsError(kListFile, "velmora_svcmgr_agent_list_create",
                                           "Failed to create velmora_svcmgr_agent_list_s."));
}

TEST_F(AnAgentList, StaysAsItIsWhenANameCannotBeCopied) {
  EXPECT_EQ(Add("a"), 0);
  {
    const fake::FailingAllocation failing(fake::Allocator::kStrndup);
    EXPECT_EQ(Add("b"), -38);
    EXPECT_TRUE(failing.Happened());
  }
  EXPECT_THAT(fake::Logs(), ElementsAre(IsError(kListFile, "velmora_svcmgr_agent_list_add",
                                                "Unknown Exception")));
  EXPECT_EQ(Size(), 1);
  EXPECT_EQ(Add("b"), 0);
  EXPECT_EQ(At(1), "b");
}

TEST_F(AnAgentList, StaysAsItIsWhenItCannotGrow) {
  if (!fake::SeesOperatorNew()) GTEST_SKIP() << "operator new cannot be made to fail here";
  EXPECT_EQ(Add("a"), 0);
  EXPECT_EQ(Add("b"), 0);
  {
    const fake::FailingAllocation failing(fake::Allocator::kNew);
    EXPECT_EQ(Add("c"), -38);
    EXPECT_TRUE(failing.Happened());
  }
  EXPECT_THAT(fake::Logs(), ElementsAre(IsError(kListFile, "velmora_svcmgr_agent_list_add",
                                                "Unknown Exception")));
  EXPECT_EQ(Size(), 2);
  EXPECT_EQ(At(1), "b");
}

TEST_F(AnAgentList, HandsNothingOutWhenANameCannotBeCopied) {
  EXPECT_EQ(Add("a"), 0);
  char untouched = 0;
  char* agent = &untouched;
  {
    const fake::FailingAllocation failing(fake::Allocator::kStrndup);
    EXPECT_EQ(velmora_svcmgr_agent_list_get(list, 0, &agent), -38);
    EXPECT_TRUE(failing.Happened());
  }
  EXPECT_EQ(agent, &untouched);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsError(kListFile, "velmora_svcmgr_agent_list_get",
                                                "Unknown Exception")));
}

/* The frame of the list's functions, in its order. */

struct NullArgument {
  const char* name;
  const char* function;
  const char* message;
  bool logs_entry;
  std::function<int(List)> call;
};

void PrintTo(const NullArgument& row, std::ostream* out) { *out << row.name; }

class ANullArgument : public AnAgentList, public testing::WithParamInterface<NullArgument> {
 protected:
  static void ExpectError(const char* message) {
    std::vector<testing::Matcher<fake::LogRecord>> records;
    if (GetParam().logs_entry) {
      records.emplace_back(IsInfo(kListFile, GetParam().function, GetParam().function));
    }
    records.emplace_back(IsError(kListFile, GetParam().function, message));
    EXPECT_THAT(fake::Logs(), testing::ElementsAreArray(records));
  }
};

TEST_P(ANullArgument, IsRefused) {
  EXPECT_EQ(GetParam().call(list), -22);
  ExpectError(GetParam().message);
  EXPECT_EQ(Size(), 0);
}

TEST_P(ANullArgument, IsLookedAtBehindTheAgentsPackage) {
  fake::RemoveAgent();
  EXPECT_EQ(GetParam().call(list), kNotSupported);
  ExpectError("Not supported");
  fake::InstallAgent("2.3.0");
}

TEST_P(ANullArgument, IsRefusedWhateverTheAgentsVersionIs) {
  fake::InstallAgent("0.0.1");
  EXPECT_EQ(GetParam().call(list), -22);
}

int size_out = 0;

INSTANTIATE_TEST_SUITE_P(
    Each, ANullArgument,
    testing::Values(
        NullArgument{"CreateOut", "velmora_svcmgr_agent_list_create", "Invalid parameter!!", true,
                     [](List) { return velmora_svcmgr_agent_list_create(nullptr); }},
        NullArgument{"DestroyList", "velmora_svcmgr_agent_list_destroy", "Invalid parameter!!",
                     true, [](List) { return velmora_svcmgr_agent_list_destroy(nullptr); }},
        NullArgument{"AddList", "velmora_svcmgr_agent_list_add", "Invalid parameter!!", false,
                     [](List) { return velmora_svcmgr_agent_list_add(nullptr, "a"); }},
        NullArgument{"AddName", "velmora_svcmgr_agent_list_add", "Invalid parameter!!", false,
                     [](List list) { return velmora_svcmgr_agent_list_add(list, nullptr); }},
        NullArgument{"GetList", "velmora_svcmgr_agent_list_get", "Invalid parameter!!", false,
                     [](List) {
                       char* agent = nullptr;
                       return velmora_svcmgr_agent_list_get(nullptr, 0, &agent);
                     }},
        // The list is empty: the null comes before the index.
        NullArgument{"GetOut", "velmora_svcmgr_agent_list_get", "Invalid parameter!!", false,
                     [](List list) { return velmora_svcmgr_agent_list_get(list, 0, nullptr); }},
        NullArgument{"GetSizeList", "velmora_svcmgr_agent_list_get_size", "Invalid parameter",
                     false,
                     [](List) { return velmora_svcmgr_agent_list_get_size(nullptr, &size_out); }},
        NullArgument{"GetSizeOut", "velmora_svcmgr_agent_list_get_size", "Invalid parameter", false,
                     [](List list) { return velmora_svcmgr_agent_list_get_size(list, nullptr); }}),
    [](const auto& row) { return std::string(row.param.name); });

/* Requesting an update of all. */

constexpr char kRequest[] = "velmora_svcmgr_request_update";
constexpr char kRequestList[] = "velmora_svcmgr_request_update_with_list";

std::string Failure(int value) {
  return "Failed to invoke_request_update. err = " + std::to_string(value);
}

class AnUpdateRequest : public fake::PlatformTest {};

TEST_F(AnUpdateRequest, IsNotSupportedWithoutTheAgent) {
  connection::Stand();
  fake::RemoveAgent();
  EXPECT_EQ(velmora_svcmgr_request_update(), kNotSupported);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsError(kClientFile, kRequest, "Not supported")));
  EXPECT_EQ(events::State(), 0);
}

TEST_F(AnUpdateRequest, NeedsAConnection) {
  EXPECT_EQ(velmora_svcmgr_request_update(), -107);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsInfo(kClientFile, kRequest, "not initialized")));
  connection::Start();
  EXPECT_EQ(velmora_svcmgr_request_update(), -107);
  fake::Proxy().FireConnected();
  fake::Proxy().FireDisconnected();
  EXPECT_EQ(velmora_svcmgr_request_update(), -107);
  fake::Proxy().FireRejected();
  EXPECT_EQ(velmora_svcmgr_request_update(), -107);
  EXPECT_THAT(fake::SentParcels(), IsEmpty());
  EXPECT_EQ(events::State(), 0);
}

TEST_F(AnUpdateRequest, NeedsAProxy) {
  connection::StandWithoutProxy();
  EXPECT_EQ(velmora_svcmgr_request_update(), -107);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsError(kHandlerFile, "request_update", "Not connected"),
                                        IsInfo(kClientFile, kRequest, Failure(-38))));
  EXPECT_EQ(events::State(), 0);
}

TEST_F(AnUpdateRequest, NeedsNoMinimumVersionOfTheAgent) {
  connection::Stand();
  fake::InstallAgent("1.0.0");
  fake::QueueReply({0});
  EXPECT_EQ(velmora_svcmgr_request_update(), 0);
  EXPECT_EQ(fake::CountCalls("package_info_get_version"), 0U);
}

TEST_F(AnUpdateRequest, IsTheMethodsNumberAlone) {
  connection::Stand();
  fake::QueueReply({0});
  EXPECT_EQ(velmora_svcmgr_request_update(), 0);
  ASSERT_EQ(fake::SentParcels().size(), 1U);
  EXPECT_EQ(fake::SentParcels()[0].Hex(), "04 00 00 00");
  EXPECT_THAT(fake::SentParcels(RPC_PORT_PORT_CALLBACK), IsEmpty());
  EXPECT_THAT(fake::Logs(), IsEmpty());
}

struct Reply {
  int value;
  int result;
  const char* message;  // null: none; "": that of a failure
};

void PrintTo(const Reply& row, std::ostream* out) { *out << row.value; }

class AReply : public AnUpdateRequest, public testing::WithParamInterface<Reply> {};

TEST_P(AReply, IsTranslated) {
  connection::Stand();
  fake::QueueReply({GetParam().value});
  EXPECT_EQ(velmora_svcmgr_request_update(), GetParam().result);
  EXPECT_EQ(events::State(), 1);
  if (GetParam().message == nullptr) {
    EXPECT_THAT(fake::Logs(), IsEmpty());
    return;
  }
  const std::string message = GetParam().message;
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsInfo(kClientFile, kRequest,
                                 message.empty() ? Failure(GetParam().value) : message)));
}

TEST_P(AReply, ToARequestWithAListIsIgnored) {
  connection::Stand();
  List list = nullptr;
  ASSERT_EQ(velmora_svcmgr_agent_list_create(&list), 0);
  fake::ClearRecord();
  fake::QueueReply({GetParam().value});
  EXPECT_EQ(velmora_svcmgr_request_update_with_list(list), 0);
  EXPECT_EQ(fake::WaitingMessages(), 0U);
  EXPECT_EQ(events::State(), 1);
  EXPECT_THAT(fake::Logs(), IsEmpty());
  EXPECT_EQ(velmora_svcmgr_agent_list_destroy(list), 0);
}

INSTANTIATE_TEST_SUITE_P(Each, AReply,
                         testing::Values(Reply{0, 0, nullptr}, Reply{-13, -13, "Permission denied"},
                                         Reply{-1073741826, -1073741826, "KYR is disabled"},
                                         Reply{5, -107, ""}, Reply{1, -107, ""},
                                         Reply{-1, -107, ""}, Reply{13, -107, ""},
                                         Reply{-38, -107, ""}, Reply{-107, -107, ""},
                                         Reply{-1073741825, -107, ""}, Reply{-1073741822, -107, ""},
                                         Reply{INT_MAX, -107, ""}, Reply{INT_MIN, -107, ""}),
                         [](const auto& row) {
                           const long long value = row.param.value;
                           return (value < 0 ? "Minus" : "") +
                                  std::to_string(value < 0 ? -value : value);
                         });

/* What can go wrong on the way, for both requests. */

struct Mishap {
  const char* name;
  std::function<void()> prepare;
  const char* proxy_message;  // of the proxy's record; null if it writes none
  const char* message;        // of the request without a list
};

void PrintTo(const Mishap& row, std::ostream* out) { *out << row.name; }

class AMishap : public AnUpdateRequest, public testing::WithParamInterface<Mishap> {
 protected:
  void SetUp() override {
    AnUpdateRequest::SetUp();
    connection::Stand();
  }

  /** What is logged when a request of the member's name comes to nothing. */
  static void ExpectRecords(const char* member, const char* message, const char* function) {
    std::vector<testing::Matcher<fake::LogRecord>> records;
    if (GetParam().proxy_message != nullptr) {
      records.emplace_back(IsProxyError(member, GetParam().proxy_message));
    }
    records.emplace_back(IsError(kHandlerFile, member, message));
    records.emplace_back(IsInfo(kClientFile, function, Failure(-38)));
    EXPECT_THAT(fake::Logs(), testing::ElementsAreArray(records));
  }
};

TEST_P(AMishap, MakesTheRequestFailAndLeavesItRequested) {
  GetParam().prepare();
  EXPECT_EQ(velmora_svcmgr_request_update(), -107);
  ExpectRecords("request_update", GetParam().message, kRequest);
  EXPECT_EQ(events::State(), 1);
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
}

TEST_P(AMishap, MakesTheRequestWithAListFailAndLeavesItRequested) {
  List list = nullptr;
  ASSERT_EQ(velmora_svcmgr_agent_list_create(&list), 0);
  fake::ClearRecord();
  GetParam().prepare();
  EXPECT_EQ(velmora_svcmgr_request_update_with_list(list), -107);
  // Whatever was thrown.
  ExpectRecords("request_update_with_list", "Unknown Exception", kRequestList);
  EXPECT_EQ(events::State(), 1);
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
  EXPECT_EQ(velmora_svcmgr_agent_list_destroy(list), 0);
}

TEST_P(AMishap, LeavesTheConnectionUsable) {
  GetParam().prepare();
  EXPECT_EQ(velmora_svcmgr_request_update(), -107);
  fake::ForgetMessages();
  fake::QueueReply({0});
  EXPECT_EQ(velmora_svcmgr_request_update(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Each, AMishap,
    testing::Values(
        Mishap{"SendFails", [] { fake::Next("rpc_port_parcel_send", fake::Fail(-5)); },
               "Failed to send parcel. result(-5)", "PROXY EXCEPTION!!!"},
        Mishap{"NoReply", [] {}, "Invalid protocol", "PROXY EXCEPTION!!!"},
        Mishap{"EmptyReply",
               [] {
                 fake::QueueMessage({0, fake::Unreadable()});
               },
               "Invalid protocol", "PROXY EXCEPTION!!!"},
        Mishap{"GarbageReply",
               [] {
                 fake::QueueMessage({0, fake::UnreadableWithGarbage()});
               },
               "Invalid protocol", "PROXY EXCEPTION!!!"},
        Mishap{"PlatformThrows",
               [] { fake::Next("rpc_port_parcel_send", fake::Throw(std::runtime_error("no"))); },
               nullptr, "Unknown Exception"},
        Mishap{"ClientException",
               [] { fake::Next("rpc_port_parcel_send", fake::Throw(AppInfoException())); }, nullptr,
               "Failed to get app info."}),
    [](const auto& row) { return std::string(row.param.name); });

class ARequestedState : public AnUpdateRequest, public testing::WithParamInterface<int> {};

TEST_P(ARequestedState, IsEnteredFromEachState) {
  connection::Stand();
  events::Enter(GetParam());
  fake::QueueReply({0});
  EXPECT_EQ(velmora_svcmgr_request_update(), 0);
  EXPECT_EQ(events::State(), 1);
}

TEST_P(ARequestedState, IsEnteredBeforeTheRequestIsBuilt) {
  connection::Stand();
  events::Enter(GetParam());
  int state = -1;
  fake::QueueReply({0});
  fake::Next("rpc_port_parcel_create", fake::Succeed().Entering([&] { state = events::State(); }));
  EXPECT_EQ(velmora_svcmgr_request_update(), 0);
  EXPECT_EQ(state, 1);
}

TEST_P(ARequestedState, IsNotEnteredWithoutAConnection) {
  List list = nullptr;
  ASSERT_EQ(velmora_svcmgr_agent_list_create(&list), 0);
  events::Enter(GetParam());
  EXPECT_EQ(velmora_svcmgr_request_update(), -107);
  EXPECT_EQ(velmora_svcmgr_request_update_with_list(list), -107);
  connection::StandWithoutProxy();
  EXPECT_EQ(velmora_svcmgr_request_update(), -107);
  EXPECT_EQ(velmora_svcmgr_request_update_with_list(list), -107);
  EXPECT_EQ(events::State(), GetParam());
  EXPECT_EQ(velmora_svcmgr_agent_list_destroy(list), 0);
}

TEST_P(ARequestedState, TellsWhetherAnUpdateIsUnderWay) {
  connection::Stand();
  events::Enter(GetParam());
  bool updating = GetParam() <= 1;
  EXPECT_EQ(velmora_svcmgr_is_being_updated(&updating), 0);
  EXPECT_EQ(updating, GetParam() > 1);
  EXPECT_THAT(fake::CallNames("rpc_port_"), IsEmpty());
  EXPECT_THAT(fake::Logs(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(From, ARequestedState, testing::Range(0, 6));

/* Requesting an update of some. */

class AnUpdateRequestWithAList : public AnAgentList {
 protected:
  void ExpectSent(const std::string& hex) {
    connection::Stand();
    fake::QueueReply({0});
    EXPECT_EQ(velmora_svcmgr_request_update_with_list(list), 0);
    ASSERT_EQ(fake::SentParcels().size(), 1U);
    EXPECT_EQ(fake::SentParcels()[0].Hex(), hex);
    EXPECT_THAT(fake::Logs(), IsEmpty());
  }
};

TEST_F(AnUpdateRequestWithAList, CarriesNoNameOfAnEmptyList) {
  ExpectSent("0a 00 00 00 00 00 00 00 00 00 00 00");
}

TEST_F(AnUpdateRequestWithAList, CarriesTheNamesInTheirOrderAndTheirCount) {
  EXPECT_EQ(Add("ab"), 0);
  EXPECT_EQ(Add(""), 0);
  EXPECT_EQ(Add("c"), 0);
  ExpectSent(
      "0a 00 00 00 03 00 00 00 "
      "03 00 00 00 61 62 00 01 00 00 00 00 02 00 00 00 63 00 "
      "03 00 00 00");
}

TEST_F(AnUpdateRequestWithAList, LeavesTheListAsItIs) {
  EXPECT_EQ(Add("a"), 0);
  connection::Stand();
  for (int i = 0; i < 2; ++i) {
    fake::QueueReply({0});
    EXPECT_EQ(velmora_svcmgr_request_update_with_list(list), 0);
  }
  EXPECT_EQ(Size(), 1);
  EXPECT_EQ(At(0), "a");
  EXPECT_EQ(fake::SentParcels()[0].Hex(), fake::SentParcels()[1].Hex());
}

TEST_F(AnUpdateRequestWithAList, IsNotSupportedWithoutTheAgent) {
  connection::Stand();
  fake::RemoveAgent();
  EXPECT_EQ(velmora_svcmgr_request_update_with_list(nullptr), kNotSupported);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsError(kClientFile, kRequestList, "Not supported")));
  fake::InstallAgent("2.3.0");
}

TEST_F(AnUpdateRequestWithAList, NeedsAnAgentOfLevelElevenAndSaysNothingOtherwise) {
  for (const char* version : {"2.2.9", "1.7.0", "1.6.0", "", "x"}) {
    fake::InstallAgent(version);
    EXPECT_EQ(velmora_svcmgr_request_update_with_list(nullptr), client::kUnsupportedAgentVersion);
    EXPECT_THAT(fake::Logs(), IsEmpty()) << version;
  }
}

TEST_F(AnUpdateRequestWithAList, NeedsAList) {
  EXPECT_EQ(velmora_svcmgr_request_update_with_list(nullptr), -22);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsError(kClientFile, kRequestList, "parameter is NULL!!")));
}

TEST_F(AnUpdateRequestWithAList, NeedsAConnection) {
  EXPECT_EQ(velmora_svcmgr_request_update_with_list(list), -107);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsInfo(kClientFile, kRequestList, "not initialized")));
}

TEST_F(AnUpdateRequestWithAList, NeedsAProxy) {
  connection::StandWithoutProxy();
  EXPECT_EQ(velmora_svcmgr_request_update_with_list(list), -107);
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsError(kHandlerFile, "request_update_with_list", "Not connected"),
                          IsInfo(kClientFile, kRequestList, Failure(-107))));
}

TEST_F(AnUpdateRequestWithAList, FailsWhenItsNamesCannotBeCopied) {
  EXPECT_EQ(Add("a"), 0);
  EXPECT_EQ(Add("b"), 0);
  connection::Stand();
  for (int n = 1; n <= 2; ++n) {
    fake::ClearRecord();
    events::Enter(0);
    const fake::FailingAllocation failing(fake::Allocator::kStrdup, n);
    EXPECT_EQ(velmora_svcmgr_request_update_with_list(list), -107);
    ASSERT_TRUE(failing.Happened());
    EXPECT_THAT(fake::Logs(),
                ElementsAre(IsError(kHandlerFile, "request_update_with_list", "Unknown Exception"),
                            IsInfo(kClientFile, kRequestList, Failure(-38))));
    EXPECT_THAT(fake::SentParcels(), IsEmpty());
    EXPECT_EQ(events::State(), 1);
  }
}

TEST_F(AnUpdateRequestWithAList, FailsAtEachAllocationAlike) {
  if (!fake::SeesOperatorNew()) GTEST_SKIP() << "operator new cannot be made to fail here";
  EXPECT_EQ(Add("a"), 0);
  connection::Stand();
  int failures = 0;
  for (bool happened = true; happened; ++failures) {
    ASSERT_LT(failures, 100);
    fake::ForgetMessages();
    fake::QueueReply({0});
    const fake::FailingAllocation failing(fake::Allocator::kAny, failures + 1);
    const int result = velmora_svcmgr_request_update_with_list(list);
    happened = failing.Happened();
    EXPECT_EQ(result, happened ? -107 : 0);
  }
  EXPECT_GT(failures, 2);
}

/* Asking whether an update is under way. */

constexpr char kQuestion[] = "velmora_svcmgr_is_being_updated";

class AnUpdateQuestion : public fake::PlatformTest {};

TEST_F(AnUpdateQuestion, IsCheckedInOrder) {
  fake::RemoveAgent();
  EXPECT_EQ(velmora_svcmgr_is_being_updated(nullptr), kNotSupported);
  fake::InstallAgent("0.1.0");
  EXPECT_EQ(velmora_svcmgr_is_being_updated(nullptr), -22);
  bool updating = true;
  EXPECT_EQ(velmora_svcmgr_is_being_updated(&updating), -107);
  EXPECT_TRUE(updating);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsError(kClientFile, kQuestion, "Not supported"),
                                        IsError(kClientFile, kQuestion, "parameter is NULL!!"),
                                        IsInfo(kClientFile, kQuestion, "not initialized")));
}

TEST_F(AnUpdateQuestion, NeedsNoProxy) {
  connection::StandWithoutProxy();
  events::Enter(5);
  bool updating = false;
  EXPECT_EQ(velmora_svcmgr_is_being_updated(&updating), 0);
  EXPECT_TRUE(updating);
  EXPECT_THAT(fake::Logs(), IsEmpty());
}

TEST_F(AnUpdateQuestion, IsAnsweredWithNoRightBehindARequest) {
  connection::Stand();
  fake::QueueReply({0});
  EXPECT_EQ(velmora_svcmgr_request_update(), 0);
  bool updating = true;
  EXPECT_EQ(velmora_svcmgr_is_being_updated(&updating), 0);
  EXPECT_FALSE(updating);
  events::AnnounceUpdate();
  EXPECT_EQ(velmora_svcmgr_is_being_updated(&updating), 0);
  EXPECT_TRUE(updating);
}

/* Deliberate traps. */

TEST_F(AnUpdateRequest, IsFollowedByAReconnectionInsideTheWait) {
  connection::Stand();
  fake::Next("rpc_port_parcel_send", fake::Hook([] {
               events::AnnounceUpdate();
               fake::Proxy().FireDisconnected();
               events::AnnounceLaunch();
             }));
  EXPECT_EQ(velmora_svcmgr_request_update(), -107);
  EXPECT_EQ(fake::ProxyCount(), 2);
  EXPECT_FALSE(fake::Proxy(1).Alive());
  EXPECT_EQ(events::State(), 4);
}

}  // namespace
