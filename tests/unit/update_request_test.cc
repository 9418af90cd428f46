// SPDX-License-Identifier: Apache-2.0
// Requests for an update of the agents, and the list that names them.

#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

#include "client.h"
#include "connection_support.h"
#include "event_support.h"
#include "kept.h"

namespace {

using fake::IsError;
using fake::IsInfo;
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
    fake::ExpectKept(fake::Kept::kStorage, grown ? 1 : 0);
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

/* Requesting an update of all. */

class AnUpdateRequest : public AnAgentList {};

struct Reply {
  int value;
  int result;
  std::string message;  // empty for none
};

const Reply kReplies[] = {
    {0, 0, ""}, {-13, -13, "Permission denied"}, {-1073741826, -1073741826, "KYR is disabled"}};

TEST_F(AnUpdateRequest, ReturnsTheReplyIfItIsOneOfThese) {
  connection::Stand();
  for (const Reply& reply : kReplies) {
    fake::ClearRecord();
    fake::QueueReply({reply.value});
    EXPECT_EQ(velmora_svcmgr_request_update(), reply.result);
    EXPECT_EQ(events::State(), 1);
    if (reply.message.empty()) {
      EXPECT_THAT(fake::Logs(), IsEmpty());
    } else {
      EXPECT_THAT(
          fake::Logs(),
          ElementsAre(IsInfo(client::kClientFile, "velmora_svcmgr_request_update", reply.message)));
    }
  }
}

constexpr int kOtherReplies[] = {5,    1,           -1,          13,      -38,
                                 -107, -1073741825, -1073741822, INT_MAX, INT_MIN};

TEST_F(AnUpdateRequest, IsNotConnectedForAnyOtherReply) {
  connection::Stand();
  for (const int value : kOtherReplies) {
    fake::ClearRecord();
    fake::QueueReply({value});
    EXPECT_EQ(velmora_svcmgr_request_update(), -107);
    EXPECT_THAT(
        fake::Logs(),
        ElementsAre(IsInfo(client::kClientFile, "velmora_svcmgr_request_update",
                           "Failed to invoke_request_update. err = " + std::to_string(value))));
  }
}

TEST_F(AnUpdateRequest, WithAListIgnoresTheReply) {
  connection::Stand();
  for (const int value : kOtherReplies) {
    fake::QueueReply({value});
    EXPECT_EQ(velmora_svcmgr_request_update_with_list(list), 0);
    EXPECT_EQ(events::State(), 1);
  }
  EXPECT_THAT(fake::Logs(), IsEmpty());
}

TEST_F(AnUpdateRequest, MovesTheStateBeforeItIsBuilt) {
  connection::Stand();
  for (int before = 0; before < 6; ++before) {
    events::Enter(before);
    int state = -1;
    fake::QueueReply({0});
    fake::Next("rpc_port_parcel_create",
               fake::Succeed().Entering([&] { state = events::State(); }));
    EXPECT_EQ(velmora_svcmgr_request_update(), 0);
    EXPECT_EQ(state, 1);
  }
}

TEST_F(AnUpdateRequest, CarriesTheNamesInTheirOrderAndTheirCountAndLeavesTheListAsItIs) {
  for (const char* name : {"ab", "", "c"}) EXPECT_EQ(Add(name), 0);
  connection::Stand();
  for (int i = 0; i < 2; ++i) {
    fake::QueueReply({0});
    EXPECT_EQ(velmora_svcmgr_request_update_with_list(list), 0);
    EXPECT_EQ(fake::SentParcels().back().items,
              (fake::Items{10, fake::Count(3), "ab", "", "c", 3}));
  }
  EXPECT_EQ(Size(), 3);
  EXPECT_EQ(At(0), "ab");
}

/* Asking whether an update is under way. */

TEST_F(AnUpdateRequest, IsNotNeededForTheQuestionWhetherOneIsUnderWayNorIsAProxy) {
  connection::StandWithoutProxy();
  events::Enter(5);
  bool updating = false;
  EXPECT_EQ(velmora_svcmgr_is_being_updated(&updating), 0);
  EXPECT_TRUE(updating);
  EXPECT_THAT(fake::Logs(), IsEmpty());
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
