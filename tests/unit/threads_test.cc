// SPDX-License-Identifier: Apache-2.0
// Several threads: the fake adds no ordering of its own, so ThreadSanitizer sees the library's.

#include <Singleton.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "client.h"
#include "kept.h"

namespace {

using client::EmptyList;
using client::Models;

constexpr int kRounds = 200;

/** Runs `work` on a number of threads at once while `meanwhile` repeats on this one. */
template <typename Work, typename Meanwhile>
void RunTogether(int threads, Work work, Meanwhile meanwhile) {
  std::atomic<int> running{threads};
  std::vector<std::thread> workers;
  for (int i = 0; i < threads; ++i) {
    workers.emplace_back([&] {
      work();
      --running;
    });
  }
  do {
    meanwhile();
  } while (running > 0);
  for (std::thread& worker : workers) worker.join();
}

TEST(TheFirstCalls, MayRace) {
  fake::Reset();
  std::atomic<int> refused{0};
  RunTogether(
      4,
      [&] {
        int level = 0;
        if (velmora_svcmgr_get_agent_api_level(&level) == -107) ++refused;
      },
      [] {});
  EXPECT_EQ(refused, 4);
  fake::Verify();
}

TEST(EachSubscriber, IsOneForAllThreadsThatAskForItFirst) {
  struct Subscriber {
    Subscriber() { ++made(); }
    void ForgetSubscription() {}
    void ForgetAll() {}
    static std::atomic<int>& made() {
      static std::atomic<int> count{0};
      return count;
    }
  };
  RunTogether(4, [] { Singleton<Subscriber>::GetInstance(); }, [] {});
  EXPECT_EQ(Subscriber::made(), 1);
}

class Threads : public client::ConnectedTest {
 protected:
  void SetUp() override {
    ConnectedTest::SetUp();
    fake::SetRecording(false);
  }

  /** An agent that answers each synchronous request, and counts requests sent while one waits. */
  void StartAgent() {
    fake::OnSend([this](const fake::Sent& sent) {
      const int method = sent.items.front().number;
      if (method != 2 && method != 3) return;
      if (fake::WaitingMessages() != 0) ++interleaved;
      if (method == 2) {
        fake::QueueReply({11});
      } else {
        fake::QueueReply({"Licence"});
      }
    });
  }

  std::atomic<int> interleaved{0};
};

TEST_F(Threads, NeverTakeEachOthersReplies) {
  StartAgent();
  std::atomic<int> wrong{0};
  RunTogether(
      3,
      [&] {
        for (int i = 0; i < kRounds; ++i) {
          int level = 0;
          if (velmora_svcmgr_get_agent_api_level(&level) != 0 || level != 11) ++wrong;
          char* text = nullptr;
          if (velmora_svcmgr_get_license_fulltext(&text) != 0 || text == nullptr ||
              std::string(text) != "Licence") {
            ++wrong;
          }
          free(text);
        }
      },
      [] {});
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(interleaved, 0);
}

TEST_F(Threads, AskWhileTheMainLoopDispatches) {
  StartAgent();
  Models models;
  ASSERT_EQ(models.Request(), 0);
  std::atomic<int> wrong{0};
  int delivered = 0;
  RunTogether(
      2,
      [&] {
        for (int i = 0; i < kRounds; ++i) {
          int level = 0;
          if (velmora_svcmgr_get_agent_api_level(&level) != 0 || level != 11) ++wrong;
        }
      },
      [&] {
        fake::DeliverDelegateMessage(1, 0, EmptyList(0));
        ++delivered;
      });
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(interleaved, 0);
  EXPECT_EQ(static_cast<int>(models.answers.size()), delivered);
}

/** Two threads that send model requests, each for its own receiver. */
class RequestingThreads : public Threads {
 protected:
  template <typename Meanwhile>
  void RequestWhile(Meanwhile meanwhile) {
    std::atomic<std::size_t> next{0};
    std::atomic<int> refused{0};
    RunTogether(
        2,
        [&] {
          Models& own = others[next++];
          for (int i = 0; i < kRounds; ++i) {
            if (own.Request() != 0) ++refused;
          }
        },
        meanwhile);
    EXPECT_EQ(refused, 0);
  }

  std::size_t Answers() const { return others[0].answers.size() + others[1].answers.size(); }

  std::vector<Models> others{2};
};

TEST_F(RequestingThreads, AreNotDisturbedByDispatch) {
  Models models;
  ASSERT_EQ(models.Request(), 0);
  RequestWhile([] { fake::DeliverDelegateMessage(1, 0, EmptyList(0)); });
  fake::DeliverDelegateMessage(1, 1, EmptyList(0));
  fake::DeliverDelegateMessage(1, 2 * kRounds, EmptyList(0));
  EXPECT_EQ(Answers(), 2U);
}

TEST_F(RequestingThreads, AreNotRefusedWhileTheConnectionIsLost) {
  RequestWhile([] {
    fake::Proxy().FireDisconnected();
    fake::Proxy().FireConnected();
  });
  EXPECT_EQ(Answers(), 0U);
}

TEST_F(Threads, AskWhileTheConnectionIsLostAndRejected) {
  StartAgent();
  std::atomic<int> strange{0};
  RunTogether(
      2,
      [&] {
        for (int i = 0; i < kRounds; ++i) {
          int level = 0;
          const int code = velmora_svcmgr_get_agent_api_level(&level);
          if (code != 0 && code != -107) ++strange;
        }
      },
      [&] {
        fake::Proxy().FireDisconnected();
        fake::Proxy().FireConnected();
        fake::Proxy().FireRejected();
        fake::Proxy().FireConnected();
      });
  EXPECT_EQ(strange, 0);
}

TEST_F(Threads, MayWaitForTheLockOrAReplyWhileTheConnectionEnds) {
  std::atomic<int> waiting{0};
  std::atomic<bool> ended{false};
  // An agent that never answers; the wait ends when the connection does.
  fake::Always("rpc_port_parcel_create_from_port", fake::Fail(-5).Entering([&] {
    ++waiting;
    while (!ended) std::this_thread::yield();
  }));
  // But for this thread: what it waited for, from inside the disconnection, only it could end.
  fake::Always("rpc_port_parcel_create",
               fake::Succeed().Entering([&, here = std::this_thread::get_id()] {
                 if (std::this_thread::get_id() == here) ended = true;
               }));
  std::atomic<int> strange{0};
  std::atomic<int> asked{0};
  const auto ask = [&] {
    int level = 0;
    const int code = velmora_svcmgr_get_agent_api_level(&level);
    if (code != client::kInvalidApiLevel && code != -107) ++strange;
    ++asked;
  };
  std::thread first(ask);
  while (waiting == 0 && asked == 0) std::this_thread::yield();
  EXPECT_EQ(asked, 0) << "ended before it waited";
  std::thread second(ask);
  EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
  ended = true;
  first.join();
  second.join();
  EXPECT_EQ(strange, 0);
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), 0);
}

TEST_F(Threads, MayUseTheirOwnModelHandles) {
  std::atomic<int> wrong{0};
  RunTogether(
      3,
      [&] {
        for (int i = 0; i < kRounds; ++i) {
          velmora_svcmgr_ai_model_info_h info = nullptr;
          char* id = nullptr;
          if (velmora_svcmgr_ai_model_info_create(&info) != 0) ++wrong;
          if (velmora_svcmgr_ai_model_info_set_id(info, "id") != 0) ++wrong;
          if (velmora_svcmgr_ai_model_info_get_id(info, &id) != 0) ++wrong;
          free(id);
          if (velmora_svcmgr_ai_model_info_destroy(info) != 0) ++wrong;
        }
      },
      [] {});
  EXPECT_EQ(wrong, 0);
}

/** One thing after the other that any thread may do; false if one of them fails otherwise than for
 *  lack of a connection, or because it ends meanwhile. */
bool DoOfEverything(Models* models) {
  const auto is_usual = [](int code) {
    return code == 0 || code == -107 || code == -38 || code == client::kInvalidApiLevel;
  };
  int level = 0;
  velmora_svcmgr_ai_model_info_h info = nullptr;
  velmora_svcmgr_ai_model_list_h list = nullptr;
  bool updating = false;
  const bool good = is_usual(velmora_svcmgr_get_agent_api_level(&level)) &&
                    is_usual(models->Request()) &&
                    velmora_svcmgr_ai_model_info_create(&info) == 0 &&
                    velmora_svcmgr_ai_model_info_set_id(info, "id") == 0 &&
                    velmora_svcmgr_ai_model_list_create(&list) == 0 &&
                    velmora_svcmgr_ai_model_list_add(list, info) == 0 &&
                    is_usual(velmora_svcmgr_is_being_updated(&updating));
  velmora_svcmgr_ai_model_list_destroy(list);
  velmora_svcmgr_ai_model_info_destroy(info);
  return good;
}

TEST_F(Threads, OfAnyNumberMayDoAnythingWhileTheConnectionComesAndGoes) {
  // For a longer look, the number of connections.
  const char* const wanted = std::getenv("SVCMGR_TEST_CONNECTIONS");
  const int connections = wanted == nullptr ? 100 : std::stoi(wanted);
  // The reply to a call that the connection's end has cut off is the next one's: all are of one kind.
  StartAgent();
  fake::AllowPortsAfterTheirProxy();
  std::atomic<bool> ended{false};
  std::atomic<int> strange{0};
  std::atomic<std::size_t> next{0};
  std::atomic<std::size_t> lists{0};
  std::vector<Models> others(64);
  int left = connections;
  RunTogether(
      static_cast<int>(others.size()),
      [&] {
        Models& own = others[next++];
        do {
          if (!DoOfEverything(&own)) ++strange;
          ++lists;
        } while (!ended);
      },
      [&] {
        if (left == 0) {
          ended = true;
          return;
        }
        --left;
        if (velmora_svcmgr_disconnect() != 0 || connection.Connect() != 0) ++strange;
        fake::Proxy().FireConnected();
      });
  EXPECT_EQ(strange, 0);
  EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
  fake::ExpectKept(fake::Kept::kStorage, lists);
}

}  // namespace
